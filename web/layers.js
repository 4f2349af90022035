// Layers: values on the terrain's cells, drawn in the colours of a palette over one another.

/// A colour between the even steps of a palette, at a fraction from 0 to 1.
function palette_colour(palette, fraction) {
  const place = Math.min(Math.max(fraction, 0), 1) * (palette.length - 1);
  const first = Math.min(Math.floor(place), palette.length - 2);
  return [0, 1, 2].map(i => palette[first][i] + (palette[first + 1][i] - palette[first][i]) * (place - first));
}

const css_colour = colour => `rgb(${colour.map(Math.round).join(" ")})`;

function css_gradient(palette) {
  return `linear-gradient(to right, ${palette.map(css_colour).join(", ")})`;
}

/// Four digits, and no more places than say something.
function number_text(value) {
  if (!Number.isFinite(value)) return "–";
  const places = Math.min(Math.max(3 - Math.floor(Math.log10(Math.max(Math.abs(value), 1e-3))), 0), 4);
  return String(Number(value.toFixed(places)));
}

function with_unit(value, unit) {
  return number_text(value) + (unit ? (unit === "°" ? "" : " ") + unit : "");
}

function extremes_of(...grids) {
  let least = Infinity, greatest = -Infinity;
  for (const cells of grids)
    for (const value of cells) {
      if (value < least) least = value;
      if (value > greatest) greatest = value;
    }
  return least <= greatest ? {least, greatest} : {least: 0, greatest: 0};
}

/// Falls to the east and to the south, in units of height a metre, from the neighbours on both sides.
function slopes_of(grid, cells) {
  const {width, height, cell} = grid;
  const slopes = new Float32Array(2 * width * height);
  for (let y = 0, i = 0; y < height; ++y) {
    const up = y > 0 ? width : 0, down = y + 1 < height ? width : 0;
    for (let x = 0; x < width; ++x, ++i) {
      const left = x > 0 ? 1 : 0, right = x + 1 < width ? 1 : 0, own = cells[i];
      const at = k => Number.isNaN(cells[k]) ? own : cells[k];
      slopes[2 * i] = left + right ? (at(i + right) - at(i - left)) / ((left + right) * cell[0]) : 0;
      slopes[2 * i + 1] = up + down ? (at(i + down) - at(i - up)) / ((up + down) / width * cell[1]) : 0;
    }
  }
  return slopes;
}

function steepness_of(slopes, height_unit) {
  const angles = new Float32Array(slopes.length / 2);
  for (let i = 0; i < angles.length; ++i)
    angles[i] = Math.atan(Math.hypot(slopes[2 * i], slopes[2 * i + 1]) * height_unit) * 180 / Math.PI;
  return angles;
}

/// A canvas with a pixel a cell. `colour(i)` gives [red, green, blue, alpha] or nothing.
function paint(grid, colour) {
  const canvas = document.createElement("canvas");
  canvas.width = grid.width;
  canvas.height = grid.height;
  const context = canvas.getContext("2d");
  const image = context.createImageData(grid.width, grid.height);
  for (let i = 0; i < grid.width * grid.height; ++i) {
    const rgba = colour(i);
    if (rgba) image.data.set(rgba, 4 * i);
  }
  context.putImageData(image, 0, 0);
  return canvas;
}

/// Values in the colours of a palette. Where a layer lies over others only where there is much of it, its low values
/// let them through.
function paint_values(grid, layer, cells) {
  const steps = 1024;
  const table = Array.from({length: steps + 1}, (_, k) => {
    const share = k / steps;
    const seen = layer.thins_out ? Math.min(1, 3 * share) : 1;
    return [...palette_colour(layer.colours, share), 255 * seen];
  });
  const scale = layer.greatest > layer.least ? steps / (layer.greatest - layer.least) : 0;
  return paint(grid, i => Number.isNaN(cells[i])
    ? null : table[Math.min(Math.max(Math.round((cells[i] - layer.least) * scale), 0), steps)]);
}

/// Draws the layers that are on over one another.
function compose(grid, layers, side) {
  const canvas = document.createElement("canvas");
  canvas.width = grid.width;
  canvas.height = grid.height;
  const context = canvas.getContext("2d");
  context.fillStyle = "#b8b2a6";
  context.fillRect(0, 0, canvas.width, canvas.height);
  for (const layer of layers) {
    if (!layer.on) continue;
    const painted = layer.painted(side);
    if (!painted) continue;
    context.globalAlpha = layer.opacity;
    context.globalCompositeOperation = layer.multiplies ? "multiply" : "source-over";
    context.drawImage(painted, 0, 0, canvas.width, canvas.height);
  }
  return canvas;
}
