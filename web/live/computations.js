// What the page offers: sliders, and the call that they set. Units and defaults are those of the command `tarn`.

/// The sides that a pyramid of this depth halves evenly.
function padded_size(grid, levels) {
  const multiple = 2 ** Math.min(Math.max(levels - 1, 0), 12);
  const up = side => Math.ceil(side / multiple) * multiple;
  return {width: up(grid.width), height: up(grid.height)};
}

/// Repeats the last column and the last row.
function pad(cells, from, to) {
  const result = new Float32Array(to.width * to.height);
  for (let y = 0; y < to.height; ++y) {
    const row = Math.min(y, from.height - 1) * from.width;
    for (let x = 0; x < to.width; ++x) result[y * to.width + x] = cells[row + Math.min(x, from.width - 1)];
  }
  return result;
}

function crop(cells, from, to) {
  const result = new Float32Array(to.width * to.height);
  for (let y = 0; y < to.height; ++y)
    result.set(cells.subarray(y * from.width, y * from.width + to.width), y * to.width);
  return result;
}

const side_of_cell = grid => Math.sqrt(grid.cell[0] * grid.cell[1]);
const blank = size => new Float32Array(size.width * size.height);

const computations = {
  erode: {
    title: "Running water",
    about: "Drops run downhill, cut where they are fast and drop their load where they are slow.",
    sliders: {
      iterations: ["Rounds", 1, 60, 1, 15],
      feature_size: ["Largest landform, m", 200, 6000, 100, 1500],
      erosion_strength: ["Strength", 0, 1, 0.05, 0.9],
      plain_deposition: ["Drops on plains", 0, 1, 0.05, 0],
      terrace_deposition: ["Drops on terraces", 0, 4, 0.1, 0],
      shaping_sharpness: ["Sharpness", 0, 1, 0.05, 0.7],
      seed: ["Seed", 1, 99, 1, 1]},
    run(library, grid, heights, set) {
      const size = padded_size(grid, Math.ceil(Math.log2(set.feature_size / 2 / side_of_cell(grid))));
      const [work, flow, sediment, wear] = [pad(heights, grid, size), blank(size), blank(size), blank(size)];
      library.call("ParallelErosionSimulation", [work, null, flow, sediment, null, wear], "parallel_erosion", {
        ...size, terrain_size: side_of_cell(grid) * size.width, terrain_height: grid.height_unit, shaping_strength: 0.3,
        fill_slope_scale: 1, fill_angle: 2, plain_angle: 5, terrace_angle: 12, constant_capacity: 0.05, ...set});
      const layer = (name, unit, colours, cells) =>
        ({name, unit, colours, cells: crop(cells, size, grid), thins_out: true});
      return {heights: crop(work, size, grid), layers: [layer("Flow of the run", "of 1", "water", flow),
        layer("Sediment", grid.unit, "amounts", sediment), layer("Wear", grid.unit, "amounts", wear)]};
    }},
  weather: {
    title: "Weathering",
    about: "Ground that is too steep comes loose, slides down and comes to rest.",
    sliders: {
      duration: ["Duration", 0.002, 0.1, 0.002, 0.02],
      repose_angle: ["Repose angle, °", 0, 60, 1, 15],
      curvature_bias: ["Convex ground first", 0, 1, 0.05, 0.5],
      erosion_rate: ["Rate", 0, 3, 0.1, 1]},
    run(library, grid, heights, set) {
      const feature_size = Math.max(grid.width, grid.height) * side_of_cell(grid) / 32;
      const size = padded_size(grid, Math.ceil(Math.log2(feature_size / side_of_cell(grid))));
      const [work, depth, wear] = [pad(heights, grid, size), blank(size), blank(size)];
      library.call("ThermalSimulation", [work, depth, wear, null, null], "thermal", {
        ...size, feature_size, terrain_size: side_of_cell(grid) * size.width, terrain_height: grid.height_unit, ...set});
      const layer = (name, cells) =>
        ({name, unit: grid.unit, colours: "amounts", cells: crop(cells, size, grid), thins_out: true});
      return {heights: crop(work, size, grid), layers: [layer("Loose cover", depth), layer("Came loose", wear)]};
    }},
  shape: {
    title: "Slope failure",
    about: "All scales at once: slopes wear back from crests that stay sharp, or fill from their feet.",
    sliders: {
      rate: ["Rate", -2, 2, 0.1, -0.5],
      feature_cells: ["Largest landform, cells", 2, 64, 1, 12],
      detail_gain: ["Detail kept", 0, 1.5, 0.05, 1],
      blend: ["Blend", 0, 1, 0.05, 1]},
    run(library, grid, heights, {feature_cells, ...set}) {
      const size = padded_size(grid, Math.ceil(Math.log2(feature_cells)));
      const work = pad(heights, grid, size);
      library.call("ThermalShaper_Process", [work, null], "thermal_shaper", {
        ...size, level_divisor: grid.height_unit, scale_numerator: side_of_cell(grid) * size.width,
        level_multiplier: grid.height_unit * feature_cells / size.width, ...set});
      return {heights: crop(work, size, grid), layers: []};
    }},
  rocks: {
    title: "Rocks",
    about: "Rocks slide and bounce downhill and come to rest on one another.",
    sliders: {
      count: ["Rocks", 100, 20000, 100, 1500],
      max_size: ["Largest radius, cells", 2, 20, 0.5, 6],
      friction: ["Friction", 0, 1, 0.02, 0.1],
      restitution: ["Bounce", 0, 1, 0.05, 0.3],
      favour_small: ["Mostly small", 0, 1, 1, 0],
      draw_unmoved: ["Also those that stay where they were", 0, 1, 1, 1],
      seed: ["Seed", 1, 99, 1, 1]},
    run(library, grid, heights, set) {
      const side = Math.max(grid.width, grid.height), size = {width: side, height: side};
      const work = pad(heights, grid, size), cell = Math.max(side_of_cell(grid), 1);
      const [rock, coverage, speed] = [blank(size), blank(size), blank(size)];
      // A cell counts as one unit of length, so that rocks see the slope around them whatever the cells' size.
      library.call("DebrisSimulation", [work, rock, coverage, speed], "debris", {
        resolution: side, terrain_size: side * side_of_cell(grid) / cell, terrain_height: grid.height_unit / cell,
        min_size: set.max_size / 4, ...set});
      return {heights: crop(work, size, grid), layers: [
        {name: "Rocks", unit: "of 1", colours: "amounts", cells: crop(coverage, size, grid), thins_out: true, on: true}]};
    }},
  dunes: {
    title: "Sand in the wind",
    about: "A sheet of sand; the wind blows from the left. The size of dunes follows the cells.",
    sliders: {
      sand: ["Sand, share of a cell's width", 0, 5, 0.1, 0.6],
      relief: ["Relief for the wind", 0.02, 1, 0.02, 0.1],
      duration: ["Duration", 0.005, 0.2, 0.005, 0.02],
      repose_angle: ["Repose angle, °", 20, 45, 1, 34]},
    run(library, grid, heights, {sand, relief, ...set}) {
      // The wind meets lowered heights, as in a model: real mountains are too high for dunes of a few cells. The sand of
      // the model then lies on the real ground.
      const terrain_height = grid.height_unit * relief;
      const depth = blank(grid).fill(sand * side_of_cell(grid) / terrain_height);
      library.call("DuneSimulation", [heights.slice(), depth, blank(grid)], "arrakis", {
        width: grid.width, height: grid.height, terrain_size: side_of_cell(grid) * grid.width, terrain_height, ...set});
      const cells = depth.map(share => share * relief);
      return {heights: heights.map((height, i) => height + cells[i]),
              layers: [{name: "Sand", unit: grid.unit, colours: "amounts", cells, thins_out: true, on: true}]};
    }},
  light: {
    title: "Light",
    about: "Shadows of the sun and the light of the sky, as layers.",
    sliders: {
      azimuth: ["Sun from north, °", 0, 359, 1, 315],
      elevation: ["Sun above the horizon, °", 1, 90, 1, 35],
      exaggeration: ["Height ×", 0.5, 10, 0.1, 3]},
    run(library, grid, heights, {azimuth, elevation, exaggeration}) {
      const turn = azimuth * Math.PI / 180, rise = elevation * Math.PI / 180;
      const [diffuse, shadow, sky, red, green, blue] = Array.from({length: 6}, () => blank(grid));
      library.call("Shade", [heights.slice(), diffuse, shadow, sky, red, green, blue, null, null, null], "lighting", {
        width: grid.width, height: grid.height, terrain_size: side_of_cell(grid) * grid.width,
        terrain_height: grid.height_unit * exaggeration,
        sun_direction: [Math.sin(turn) * Math.cos(rise), -Math.cos(turn) * Math.cos(rise), Math.sin(rise)],
        sun_rings: -8, sun_diameter: 0.53, ao_subdivisions: 2, hybrid_ao_subdivisions: 2, exposure: 1,
        sun_intensity: 1, ambient_intensity: 0.3, sun_color: [1, 1, 1], ambient_color: [1, 1, 1], albedo: 0.5,
        direct_light: 1, ambient_light: 1, shadows: 1, ambient_occlusion: 1});
      const layer = (name, unit, cells) => ({name, unit, colours: "shade", cells, multiplies: true, on: true});
      return {sun: [azimuth, elevation], exaggeration,
              layers: [layer("Shadow", "of full sun", shadow), layer("Sky in view", "of the sky", sky)]};
    }},
  flow: {
    title: "Where water gathers",
    about: "Trails run downhill from all cells; their number is a layer.",
    sliders: {
      flow_length: ["Length of rivers, widths", 0, 4, 0.1, 1],
      spread: ["Spread", 0, 5, 0.1, 1],
      seed: ["Seed", 0, 99, 1, 0]},
    run(library, grid, heights, set) {
      let least = Infinity, greatest = -Infinity;
      for (const height of heights) {
        least = Math.min(least, height);
        greatest = Math.max(greatest, height);
      }
      const flow = blank(grid), unit_heights = heights.map(h => greatest > least ? (h - least) / (greatest - least) : 0);
      library.call("FlowSimulation", [unit_heights, flow, null], "flow", {width: grid.width, height: grid.height, ...set});
      return {layers: [{name: "Flow", unit: "of 1", colours: "water", cells: flow, thins_out: true, on: true}]};
    }},
};
