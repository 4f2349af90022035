// Grids as `tarn view` packs them: 16 bits a cell between the least and the greatest value (65535: no value), each as
// the difference from its neighbour on the left, all low bytes before all high bytes, deflated, as base64.

async function inflate(base64) {
  const packed = await fetch(`data:;base64,${base64}`);
  const stream = packed.body.pipeThrough(new DecompressionStream("deflate"));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

async function decode_grid(packed, width, height) {
  const bytes = await inflate(packed.cells);
  const count = width * height;
  const cells = new Float32Array(count);
  const step = (packed.greatest - packed.least) / 65534;
  for (let y = 0, i = 0; y < height; ++y)
    for (let x = 0, code = 0; x < width; ++x, ++i) {
      code = (code + bytes[i] + 256 * bytes[count + i]) & 65535;
      cells[i] = code === 65535 ? NaN : packed.least + code * step;
    }
  return cells;
}
