// GeoTIFFs of one band of numbers: reads them in strips or tiles, plain, deflated or LZW, with predictors, and writes plain
// ones of floats (TIFF 6.0, and Adobe's technical note 3 for the predictor of floats).

const tiff_sizes = {1: 1, 2: 1, 3: 2, 4: 4, 5: 8, 12: 8, 16: 8};

function tiff_tags(view, little) {
  if (view.getUint16(2, little) !== 42) throw new Error("it is no TIFF, or a BIGTIFF");
  const tags = {};
  const start = view.getUint32(4, little);
  for (let k = 0; k < view.getUint16(start, little); ++k) {
    const entry = start + 2 + 12 * k;
    const type = view.getUint16(entry + 2, little), count = view.getUint32(entry + 4, little);
    const size = tiff_sizes[type];
    if (!size) continue;
    const at = size * count <= 4 ? entry + 8 : view.getUint32(entry + 8, little);
    tags[view.getUint16(entry, little)] = Array.from({length: count}, (_, i) => {
      if (type === 12) return view.getFloat64(at + 8 * i, little);
      if (type === 3) return view.getUint16(at + 2 * i, little);
      return size === 1 ? view.getUint8(at + i) : view.getUint32(at + size * i, little);
    });
  }
  return tags;
}

/// Section 13 of TIFF 6.0. A code stands for bytes that have been written before: its place and length are known.
function undo_lzw(bytes, size) {
  const result = new Uint8Array(size), starts = new Uint32Array(4096), lengths = new Uint32Array(4096);
  let at = 0, known = 258, length = 0;
  for (let bit = 0, width = 9; bit + width <= 8 * bytes.length && at < size;) {
    const first = bit >> 3, three = bytes[first] << 16 | bytes[first + 1] << 8 | bytes[first + 2];
    const code = three >> 24 - width - bit % 8 & (1 << width) - 1;
    bit += width;
    if (code === 257) break;
    if (code === 256) {
      [known, length, width] = [258, 0, 9];
      continue;
    }
    if (length > 0 && known < 4096) {
      starts[known] = at - length;
      lengths[known++] = length + 1;
    }
    if (code >= known) throw new Error("its compressed numbers are damaged");
    length = code < 256 ? 1 : lengths[code];
    if (code < 256) result[at++] = code;
    else for (let i = 0; i < length; ++i) result[at++] = result[starts[code] + i];
    if (known + 1 >= 1 << width && width < 12) ++width;
  }
  return result;
}

async function tiff_block(bytes, compression, size) {
  if (compression === 1) return bytes.slice();
  if (compression === 5) return undo_lzw(bytes, size);
  if (compression !== 8 && compression !== 32946) throw new Error(`compression ${compression} cannot be read here`);
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("deflate"));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

/// Undoes the differences between neighbours of a row.
function undo_predictor(bytes, predictor, width, sample, little) {
  const stride = width * sample, view = new DataView(bytes.buffer, bytes.byteOffset);
  for (let row = 0; row + stride <= bytes.length; row += stride) {
    if (predictor === 2) {
      for (let x = 1; x < width; ++x) {
        const at = row + x * sample;
        if (sample === 1) bytes[at] += bytes[at - 1];
        else if (sample === 2) view.setUint16(at, view.getUint16(at, little) + view.getUint16(at - 2, little), little);
        else view.setUint32(at, view.getUint32(at, little) + view.getUint32(at - 4, little), little);
      }
    } else if (predictor === 3) {
      // The highest bytes of all floats come first, then the second ones, ...
      for (let i = 1; i < stride; ++i) bytes[row + i] += bytes[row + i - 1];
      const planes = bytes.slice(row, row + stride);
      for (let x = 0; x < width; ++x)
        for (let b = 0; b < sample; ++b) bytes[row + x * sample + (little ? sample - 1 - b : b)] = planes[b * width + x];
    }
  }
}

/// {width, height, cells, cell: [metres], origin, step, keys}
async function read_tiff(buffer) {
  const view = new DataView(buffer), little = view.getUint16(0) === 0x4949;
  const tags = tiff_tags(view, little), first = (tag, otherwise) => (tags[tag] ?? [otherwise])[0];
  const width = first(256), height = first(257), bits = first(258, 1), format = first(339, 1);
  if (first(277, 1) !== 1) throw new Error("it has more than one band");
  const sample = bits / 8, compression = first(259, 1), predictor = first(317, 1);
  const read = {"1:8": "getUint8", "2:8": "getInt8", "1:16": "getUint16", "2:16": "getInt16", "1:32": "getUint32",
                "2:32": "getInt32", "3:32": "getFloat32", "3:64": "getFloat64"}[`${format}:${bits}`];
  if (!read) throw new Error("its numbers are of a kind that cannot be read here");
  const tiled = Boolean(tags[324]);
  const [block_width, block_height] = tiled ? [first(322), first(323)] : [width, Math.min(first(278, height), height)];
  const offsets = tiled ? tags[324] : tags[273], sizes = tiled ? tags[325] : tags[279];
  const across = Math.ceil(width / block_width);
  const no_value = tags[42113] ? parseFloat(String.fromCharCode(...tags[42113])) : NaN;
  const cells = new Float32Array(width * height);
  for (let k = 0; k < offsets.length; ++k) {
    const block = await tiff_block(new Uint8Array(buffer, offsets[k], sizes[k]), compression,
                                   block_width * block_height * sample);
    undo_predictor(block, predictor, block_width, sample, little);
    const numbers = new DataView(block.buffer, block.byteOffset);
    const left = k % across * block_width, top = Math.floor(k / across) * block_height;
    for (let y = 0; y < block_height && top + y < height; ++y)
      for (let x = 0; x < block_width && left + x < width; ++x) {
        const value = numbers[read]((y * block_width + x) * sample, little);
        cells[(top + y) * width + left + x] = value === no_value ? NaN : value;
      }
  }
  const grid = {width, height, cells, cell: [1, 1], keys: tags[34735]};
  const scale = tags[33550], tie = tags[33922];
  if (scale && tie) {
    grid.origin = [tie[3] - tie[0] * scale[0], tie[4] + tie[1] * scale[1]];
    grid.step = [scale[0], -scale[1]];
    grid.cell = [scale[0], scale[1]];
    // GTModelTypeGeoKey 2: degrees. A degree on the ellipsoid of WGS 84, at the middle of the grid.
    const keys = tags[34735] ?? [];
    const model = keys.findIndex((key, i) => i % 4 === 0 && i > 0 && key === 1024);
    if (model > 0 && keys[model + 3] === 2) {
      const latitude = (grid.origin[1] - scale[1] * height / 2) * Math.PI / 180;
      grid.cell = [
        scale[0] * (111412.84 * Math.cos(latitude) - 93.5 * Math.cos(3 * latitude)),
        scale[1] * (111132.92 - 559.82 * Math.cos(2 * latitude) + 1.175 * Math.cos(4 * latitude))];
    }
  }
  return grid;
}

function write_tiff(grid, cells) {
  const tags = [[256, 3, [grid.width]], [257, 3, [grid.height]], [258, 3, [32]], [259, 3, [1]], [262, 3, [1]],
    [273, 4, [0]], [277, 3, [1]], [278, 4, [grid.height]], [279, 4, [cells.byteLength]], [339, 3, [3]]];
  if (grid.origin) {
    tags.push([33550, 12, [grid.step[0], -grid.step[1], 0]], [33922, 12, [0, 0, 0, ...grid.origin, 0]]);
    // Only a plain list of keys: names and numbers that stand in other tags are left out.
    const keys = (grid.keys ?? []).slice(4), kept = [];
    for (let k = 0; k < keys.length; k += 4) if (keys[k + 1] === 0) kept.push(...keys.slice(k, k + 4));
    if (kept.length > 0) tags.push([34735, 3, [1, 1, 0, kept.length / 4, ...kept]]);
  }
  let more = 8 + 2 + 12 * tags.length + 4;
  const total = more + tags.reduce((sum, [, type, values]) => sum + tiff_sizes[type] * values.length, 0);
  const data = (total + 7) & ~7;
  const view = new DataView(new ArrayBuffer(data + cells.byteLength));
  view.setUint16(0, 0x4949);
  view.setUint16(2, 42, true);
  view.setUint32(4, 8, true);
  view.setUint16(8, tags.length, true);
  tags.forEach(([tag, type, values], k) => {
    const entry = 10 + 12 * k, size = tiff_sizes[type] * values.length;
    view.setUint16(entry, tag, true);
    view.setUint16(entry + 2, type, true);
    view.setUint32(entry + 4, values.length, true);
    let at = entry + 8;
    if (size > 4) {
      view.setUint32(entry + 8, more, true);
      at = more;
      more += size;
    }
    for (const value of tag === 273 ? [data] : values) {
      if (type === 12) view.setFloat64(at, value, true);
      else if (type === 3) view.setUint16(at, value, true);
      else view.setUint32(at, value, true);
      at += tiff_sizes[type];
    }
  });
  cells.forEach((value, i) => view.setFloat32(data + 4 * i, value, true));
  return view.buffer;
}
