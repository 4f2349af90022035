// The page that `tarn view` writes: one grid, its layers and, perhaps, what it was before.

function load_image(url) {
  return new Promise((resolve, reject) => {
    const image = new Image();
    image.onload = () => resolve(image);
    image.onerror = () => reject(new Error("the picture cannot be read"));
    image.src = url;
  });
}

let stage;

async function show_data(data) {
  document.title = data.title;
  by_id("title").textContent = data.title;
  by_id("subtitle").textContent = data.note;
  by_id("about").textContent = data.about;
  const {grid} = data;
  const decode = packed => decode_grid(packed, grid.width, grid.height);
  const sides = {after: await decode(data.after)};
  if (data.before) sides.before = await decode(data.before);
  stage = new Stage();
  const layers = layers_of_heights(grid, sides, data.palettes);
  for (const packed of data.layers)
    layers.push({...packed, colours: data.palettes[packed.palette], cells: null,
                 load: async () => ({cells: await decode(packed)})});
  if (data.picture) layers.push({name: "Picture", image: await load_image(data.picture), on: true});
  stage.set_exaggeration(data.exaggeration);
  stage.terrain.set_sun(data.sun.azimuth, data.sun.elevation);
  stage.show(grid, sides, layers);
  by_id("message").textContent = "";
}

show_data(JSON.parse(by_id("data").textContent)).catch(error => {
  by_id("message").textContent = `The terrain cannot be shown: ${error.message}.`;
  console.error(error);
});
