// The stage: the scene with its panel of layers, its keys, the divider and the readout.

const by_id = id => document.getElementById(id);

function set_theme(is_dark) {
  document.documentElement.classList.toggle("dark", is_dark);
}
set_theme(matchMedia("(prefers-color-scheme: dark)").matches);

class Stage {
  constructor() {
    this.canvas = by_id("canvas");
    this.terrain = new Terrain(this.canvas);
    this.layers = [];
    this.wants_before = true;
    this.connect();
  }

  /// `grid` as Terrain takes it, with `unit` of the heights and, if they are known, `origin` and `step` of the cells on
  /// the map. `layers`: {name, unit, colours, least, greatest, cells, cells_before?, paint?, thins_out?, multiplies?,
  /// on?} or {name, image}. What a layer lacks of that its `load` brings, when it is first seen.
  show(grid, sides, layers) {
    const was = new Map(this.layers.map(layer => [layer.name, layer]));
    this.grid = grid;
    this.sides = sides;
    this.layers = layers.map(layer => {
      const old = was.get(layer.name);
      const shown = {opacity: 1, on: false, ...layer, ...(old ? {on: old.on, opacity: old.opacity} : {})};
      shown.painted = this.painter(grid, shown);
      return shown;
    });
    by_id("compare_label").hidden = !sides.before;
    this.terrain.set_grid(grid, sides);
    this.list_layers();
    this.compare(this.wants_before);
    this.repaint();
    this.set_wireframe(by_id("wireframe").checked);
  }

  /// Layers are painted when they are first seen.
  painter(grid, layer) {
    const canvases = {};
    return side => {
      if (layer.image) return layer.image;
      const cells = side === "before" ? layer.cells_before : layer.cells;
      if (!cells) return null;
      canvases[side] ??= layer.paint ? layer.paint(grid, cells) : paint_values(grid, layer, cells);
      return canvases[side];
    };
  }

  async repaint() {
    for (const layer of this.layers)
      if (layer.on && layer.load) {
        const {load} = layer;
        layer.load = null;
        Object.assign(layer, await load());
        this.list_layers();
      }
    for (const side of Object.keys(this.sides))
      if (this.sides[side]) this.terrain.set_colours(side, compose(this.grid, this.layers, side));
  }

  list_layers() {
    by_id("layers").replaceChildren(...this.layers.map((layer, i) => this.layer_row(layer, i)));
  }

  layer_row(layer, index) {
    const row = document.createElement("div");
    row.className = "layer";
    row.innerHTML = `<div class="name"><label><input type="checkbox"> <span></span></label><kbd></kbd></div>
      <div class="more"><div class="row"><input type="range" min="0" max="1" step="0.05"></div>
      <div class="legend"></div><div class="ticks"><span></span><span></span><span></span></div></div>`;
    const [box, opacity] = row.querySelectorAll("input");
    row.querySelector("span").textContent = layer.name;
    row.querySelector("kbd").textContent = index < 9 ? index + 1 : "";
    box.checked = layer.on;
    opacity.value = layer.opacity;
    opacity.setAttribute("aria-label", `Opacity of ${layer.name}`);
    const more = row.querySelector(".more");
    more.hidden = !layer.on;
    if (layer.colours && !layer.load) {
      row.querySelector(".legend").style.background = css_gradient(layer.colours);
      const middle = (layer.least + layer.greatest) / 2;
      row.querySelectorAll(".ticks span").forEach((tick, k) => {
        tick.textContent = with_unit([layer.least, middle, layer.greatest][k], k === 2 ? layer.unit : "");
      });
    } else row.querySelectorAll(".legend, .ticks").forEach(part => { part.hidden = true; });
    box.addEventListener("change", () => {
      layer.on = box.checked;
      more.hidden = !layer.on;
      this.repaint();
    });
    opacity.addEventListener("input", () => {
      layer.opacity = Number(opacity.value);
      this.repaint();
    });
    return row;
  }

  set_exaggeration(value) {
    const factor = Math.min(Math.max(value, 0), Number(by_id("exaggeration").max));
    by_id("exaggeration").value = factor;
    by_id("exaggeration_value").textContent = number_text(factor);
    this.terrain.stretch.value = factor;
    this.terrain.draw();
  }

  set_wireframe(on) {
    by_id("wireframe").checked = on;
    this.terrain.set_wireframe(on);
  }

  set_light(on) {
    by_id("lit").checked = on;
    this.terrain.light.value = on ? 1 : 0;
    this.terrain.draw();
  }

  compare(is_wanted) {
    this.wants_before = is_wanted;
    const on = is_wanted && Boolean(this.sides.before);
    by_id("compare").checked = on;
    by_id("divider").hidden = !on;
    this.set_divider(on ? this.terrain.divider || 0.5 : 0);
  }

  set_divider(share) {
    const divider = by_id("divider");
    const place = divider.hidden ? 0 : Math.min(Math.max(share, 0.02), 0.98);
    this.terrain.divider = place;
    divider.style.left = `${100 * place}%`;
    divider.setAttribute("aria-valuenow", Math.round(100 * place));
    this.terrain.draw();
  }

  /// Tells what is under a place of the canvas, in pixels.
  read_out(x, y) {
    const readout = by_id("readout");
    const found = this.grid && this.terrain.pick(x, y);
    readout.hidden = !found;
    if (!found) return;
    const {column, row, side} = found, {grid} = this;
    const i = row * grid.width + column;
    const place = grid.origin
      ? `${(grid.origin[0] + (column + 0.5) * grid.step[0]).toFixed(grid.places)}, ${(grid.origin[1] + (row + 0.5) * grid.step[1]).toFixed(grid.places)}`
      : `${number_text(column * grid.cell[0])} m, ${number_text(row * grid.cell[1])} m`;
    const lines = [`${place}   column ${column}, row ${row}`];
    const heights = this.sides[side][i];
    let line = `Height ${with_unit(heights, grid.unit)}`;
    if (this.sides.before && this.sides.after) {
      const change = this.sides.after[i] - this.sides.before[i];
      line += `   ${side}, change ${change > 0 ? "+" : ""}${with_unit(change, grid.unit)}`;
    }
    lines.push(line);
    for (const layer of this.layers)
      if (layer.on && !layer.load && layer.colours && layer.name !== "Height") {
        const cells = side === "before" ? layer.cells_before : layer.cells;
        if (cells) lines.push(`${layer.name} ${with_unit(cells[i], layer.unit)}`);
      }
    readout.textContent = lines.join("\n");
  }

  read_out_middle() {
    this.terrain.camera.updateMatrixWorld();
    this.read_out(this.canvas.clientWidth / 2, this.canvas.clientHeight / 2);
  }

  save() {
    this.terrain.render();
    const link = document.createElement("a");
    link.href = this.canvas.toDataURL("image/png");
    link.download = "terrain.png";
    link.click();
  }

  toggle_layer(index) {
    const layer = this.layers[index];
    if (!layer) return;
    layer.on = !layer.on;
    this.list_layers();
    this.repaint();
  }

  press(key, with_shift) {
    const {terrain} = this, step = 0.08;
    const [right, up] = {ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, 1], ArrowDown: [0, -1]}[key] ?? [0, 0];
    if (right || up) {
      if (with_shift) terrain.move(right * step, up * step);
      else terrain.turn(right * step, up * step);
    } else if (key === "+" || key === "=") terrain.zoom(1 / 1.1);
    else if (key === "-" || key === "_") terrain.zoom(1.1);
    else if (key === "[") this.set_exaggeration(terrain.stretch.value - 0.25);
    else if (key === "]") this.set_exaggeration(terrain.stretch.value + 0.25);
    else if (key === ",") this.set_divider(terrain.divider - 0.03);
    else if (key === ".") this.set_divider(terrain.divider + 0.03);
    else if (key === "l") this.set_light(!terrain.light.value);
    else if (key === "w") this.set_wireframe(!by_id("wireframe").checked);
    else if (key === "b" && this.sides.before) this.compare(by_id("divider").hidden);
    else if (key === "r") terrain.reset();
    else if (key === "t") this.toggle_theme();
    else if (key >= "1" && key <= "9") this.toggle_layer(Number(key) - 1);
    else return false;
    this.read_out_middle();
    return true;
  }

  toggle_theme() {
    set_theme(!document.documentElement.classList.contains("dark"));
    this.terrain.draw();
  }

  connect() {
    by_id("exaggeration").addEventListener("input", event => this.set_exaggeration(Number(event.target.value)));
    by_id("lit").addEventListener("change", event => this.set_light(event.target.checked));
    by_id("wireframe").addEventListener("change", event => this.set_wireframe(event.target.checked));
    by_id("compare").addEventListener("change", event => this.compare(event.target.checked));
    by_id("reset").addEventListener("click", () => this.terrain.reset());
    by_id("theme").addEventListener("click", () => this.toggle_theme());
    by_id("save").addEventListener("click", () => this.save());
    this.canvas.addEventListener("pointermove", event => this.read_out(event.offsetX, event.offsetY));
    this.canvas.addEventListener("pointerdown", () => this.canvas.focus({preventScroll: true}));
    document.addEventListener("keydown", event => {
      const is_typing = event.target.matches("input, select, textarea");
      if (!this.grid || is_typing || event.ctrlKey || event.metaKey || event.altKey) return;
      if (event.target === by_id("divider") && event.key.startsWith("Arrow"))
        this.set_divider(this.terrain.divider + (event.key === "ArrowLeft" ? -0.03 : event.key === "ArrowRight" ? 0.03 : 0));
      else if (!this.press(event.key.length === 1 ? event.key.toLowerCase() : event.key, event.shiftKey)) return;
      event.preventDefault();
    });
    const divider = by_id("divider");
    divider.addEventListener("pointerdown", event => divider.setPointerCapture(event.pointerId));
    divider.addEventListener("pointermove", event => {
      if (!divider.hasPointerCapture(event.pointerId)) return;
      const box = this.canvas.getBoundingClientRect();
      this.set_divider((event.clientX - box.left) / box.width);
    });
    if (matchMedia("(max-width: 640px)").matches) by_id("panel").open = false;
  }
}

/// The layers that follow from the heights alone.
function layers_of_heights(grid, sides, palettes) {
  const names = Object.keys(sides);
  const of_sides = make => {
    const made = Object.fromEntries(names.map(name => [name, make(sides[name])]));
    return {cells: made.after, cells_before: made.before};
  };
  const span = ({cells, cells_before}) => extremes_of(cells, cells_before ?? []);
  const steepness = () => {
    const layer = of_sides(heights => steepness_of(slopes_of(grid, heights), grid.height_unit));
    return {...layer, ...span(layer)};
  };
  const change = () => {
    const cells = sides.after.map((value, i) => value - sides.before[i]);
    const {least, greatest} = extremes_of(cells);
    const range = Math.max(-least, greatest);
    return {cells, least: -range, greatest: range};
  };
  const heights = {cells: sides.after, cells_before: sides.before};
  const layers = [
    {name: "Height", unit: grid.unit, colours: palettes.heights, ...heights, ...span(heights), on: true},
    {name: "Slope", unit: "°", colours: palettes.amounts, load: steepness},
    {name: "Normals", paint: paint_normals, load: () => of_sides(cells => slopes_of(grid, cells))}];
  if (sides.before) layers.push({name: "Change", unit: grid.unit, colours: palettes.change, load: change});
  return layers;
}

/// Normals as colours: red to the east, green to the north, blue upwards.
function paint_normals(grid, slopes) {
  return paint(grid, i => {
    const x = -slopes[2 * i] * grid.height_unit, y = slopes[2 * i + 1] * grid.height_unit;
    const length = Math.hypot(x, y, 1);
    return [x, y, 1].map(part => 127.5 + 127.5 * part / length).concat(255);
  });
}
