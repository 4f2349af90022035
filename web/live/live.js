// The page: a terrain, the sliders of a computation, and what it leaves behind on the stage.

const palettes = @include palettes@;
const largest = 1 << 20; // cells

class Live {
  constructor() {
    this.stage = new Stage();
    this.done = []; // states before the runs, for undo
    for (const [name, {title}] of Object.entries(computations)) by_id("computation").add(new Option(title, name));
    by_id("computation").addEventListener("change", () => this.list_sliders());
    by_id("run").addEventListener("click", () => this.run());
    by_id("cancel").addEventListener("click", () => this.cancel());
    by_id("undo").addEventListener("click", () => this.undo());
    by_id("save_grid").addEventListener("click", () => this.save());
    by_id("open").addEventListener("change", event => this.open(event.target.files[0]));
    for (const kind of ["dragover", "dragleave", "drop"])
      document.addEventListener(kind, event => {
        event.preventDefault();
        document.body.classList.toggle("dropping", kind === "dragover");
        if (kind === "drop" && event.dataTransfer.files.length > 0) this.open(event.dataTransfer.files[0]);
      });
    this.list_sliders();
  }

  say(text) {
    by_id("said").textContent = text;
  }

  list_sliders() {
    const {about, sliders} = computations[by_id("computation").value];
    by_id("about_computation").textContent = about;
    by_id("sliders").replaceChildren(...Object.entries(sliders).map(([name, [label, least, greatest, step, value]]) => {
      const row = document.createElement("label");
      row.className = "slider";
      row.innerHTML = '<span></span><output></output><input type="range">';
      const [title, shown, input] = row.children;
      title.textContent = label;
      Object.assign(input, {name, min: least, max: greatest, step});
      input.value = value;
      const show = () => { shown.textContent = input.value; };
      input.addEventListener("input", show);
      show();
      return row;
    }));
  }

  settings() {
    const inputs = [...by_id("sliders").querySelectorAll("input")];
    return Object.fromEntries(inputs.map(input => [input.name, Number(input.value)]));
  }

  /// Shows heights, beside those before the last run if that changed them, and the layers that it left.
  show(heights, before, layers) {
    const sides = before ? {after: heights, before} : {after: heights};
    this.state = {heights, before, layers};
    const more = layers.map(layer => ({...layer, colours: palettes[layer.colours], ...extremes_of(layer.cells)}));
    this.stage.show(this.grid, sides, [...layers_of_heights(this.grid, sides, palettes), ...more]);
    by_id("undo").disabled = this.done.length === 0;
    by_id("message").textContent = "";
  }

  async make_worker() {
    this.folder ??= await folder_with_threads();
    const library = this.folder ? `importScripts("${this.folder}tarn.js");` : by_id("library").textContent;
    const code = new Blob([library, by_id("worker").textContent], {type: "text/javascript"});
    const worker = new Worker(URL.createObjectURL(code));
    worker.onmessage = ({data}) => this.hear(data);
    worker.onerror = event => this.hear({error: event.message});
    return worker;
  }

  async run() {
    this.set_running(true);
    this.say("Running …");
    this.worker ??= this.make_worker();
    const worker = await this.worker;
    const {grid, state: {heights}} = this;
    worker.postMessage({folder: this.folder, name: by_id("computation").value, grid, heights,
                        settings: this.settings()});
  }

  set_running(on) {
    by_id("run").disabled = on;
    by_id("cancel").disabled = !on;
    by_id("undo").disabled = on || this.done.length === 0;
    by_id("progress").value = 0;
  }

  cancel() {
    this.worker.then(worker => worker.terminate());
    this.worker = null;
    this.set_running(false);
    this.say("Cancelled; nothing has changed.");
  }

  hear({percent, result, seconds, threads, error}) {
    if (percent !== undefined) {
      by_id("progress").value = percent;
      return;
    }
    this.set_running(false);
    if (error) {
      this.say(`It failed: ${error}`);
      return;
    }
    this.done.push(this.state);
    if (result.exaggeration) this.stage.set_exaggeration(result.exaggeration);
    if (result.sun) this.stage.terrain.set_sun(...result.sun);
    const {heights, layers, before} = this.state;
    // What does not change the heights leaves the layers of other runs.
    const others = result.heights ? [] : layers.filter(old => !result.layers.some(layer => layer.name === old.name));
    this.show(result.heights ?? heights, result.heights ? heights : before, [...others, ...result.layers]);
    this.say(`Done in ${seconds.toFixed(1)} s on ${threads === 1 ? "one thread" : `${threads} threads`}.`);
  }

  undo() {
    const {heights, before, layers} = this.done.pop();
    this.show(heights, before, layers);
    this.say("");
  }

  start(grid) {
    const {cells, ...rest} = grid;
    if (cells.some(Number.isNaN)) throw new Error("it has cells without a value; `tarn` fills such holes");
    if (cells.length > largest) throw new Error(`it has more than ${largest} cells`);
    if (!by_id("cancel").disabled) this.cancel();
    const places = rest.step && rest.step[0] < 0.1 ? 5 : 1;
    this.grid = {height_unit: 1, unit: "m", places, ...rest};
    this.done = [];
    this.show(cells, null, []);
    this.stage.terrain.reset();
  }

  async open(file) {
    try {
      const is_picture = file.type === "image/png" || file.name.toLowerCase().endsWith(".png");
      this.start(is_picture ? await read_png(file) : await read_tiff(await file.arrayBuffer()));
      this.say(`${file.name}: ${this.grid.width} × ${this.grid.height} cells of ${number_text(this.grid.cell[0])} m`);
    } catch (error) {
      this.say(`${file.name} cannot be used: ${error.message}`);
    }
  }

  save() {
    const link = document.createElement("a");
    link.href = URL.createObjectURL(new Blob([write_tiff(this.grid, this.state.heights)], {type: "image/tiff"}));
    link.download = "terrain.tif";
    link.click();
  }
}

/// Where the build with threads lies, beside a page that is served; empty where the page may not have threads, since
/// browsers let only isolated pages share memory between them.
async function folder_with_threads() {
  const folder = new URL("threads/", location.href).href;
  if (!crossOriginIsolated) return "";
  const answer = await fetch(`${folder}tarn.wasm`, {method: "HEAD"}).catch(() => null);
  return answer?.ok ? folder : "";
}

/// Browsers give 8 bits of grey: white is 255 m, an eighth of the longer side.
async function read_png(file) {
  const bitmap = await createImageBitmap(file, {colorSpaceConversion: "none"});
  const canvas = document.createElement("canvas");
  canvas.width = bitmap.width;
  canvas.height = bitmap.height;
  const context = canvas.getContext("2d");
  context.drawImage(bitmap, 0, 0);
  const {data} = context.getImageData(0, 0, bitmap.width, bitmap.height);
  const cells = Float32Array.from({length: data.length / 4}, (_, i) => (data[4 * i] + data[4 * i + 1] + data[4 * i + 2]) / 3);
  const side = 8 * 255 / Math.max(bitmap.width, bitmap.height);
  return {width: bitmap.width, height: bitmap.height, cells, cell: [side, side]};
}

let live, stage;
(async () => {
  live = new Live();
  stage = live.stage;
  stage.set_exaggeration(3);
  const sample = await fetch(`data:;base64,${by_id("sample").textContent}`);
  live.start(await read_tiff(await sample.arrayBuffer()));
})().catch(error => {
  by_id("message").textContent = `The page cannot run: ${error.message}.`;
  console.error(error);
});
