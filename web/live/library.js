// The library's boundary for JavaScript: records and grids go into the module's memory, results come back.

/// Fields in their order: i and u are whole numbers of 32 bits, f a float, b a flag of one byte; f3 is three floats.
const record_fields = {
  thermal_shaper: "i width i height f level_divisor f scale_numerator f level_multiplier f blend f rate f detail_gain",
  thermal: "i width i height f duration f erosion_rate f curvature_bias f repose_angle f feature_size f terrain_size "
    + "f terrain_height f absorption b use_erosion_mask b use_absorption_mask",
  parallel_erosion: "u width u height f terrain_size f terrain_height f feature_size f reserved_1 f iterations "
    + "f reserved_2 u seed f erosion_strength f reserved_3 f shaping_strength f shaping_sharpness f shaping_detail "
    + "f fill_slope_scale f fill_angle f plain_deposition f plain_angle f terrace_deposition f terrace_angle "
    + "f constant_capacity",
  arrakis: "i width i height f duration f reserved_1 f reserved_2 f repose_angle f feature_size f terrain_size "
    + "f terrain_height",
  debris: "u resolution f terrain_size f terrain_height u count f max_size f min_size f friction f restitution "
    + "f reserved b draw_unmoved u favour_small u seed",
  flow: "i width i height f flow_length f spread u seed",
  lighting: "i width i height f terrain_size f terrain_height f3 sun_direction i sun_rings f sun_diameter u hybrid_ao "
    + "i ao_subdivisions i hybrid_ao_subdivisions i hybrid_ao_levels f exposure f sun_intensity f ambient_intensity "
    + "f3 sun_color f3 ambient_color f albedo i first_day i last_day f latitude f north_offset f haze b direct_light "
    + "b ambient_light b shadows b ambient_occlusion b ao_supplied",
};

/// The bytes of a record; fields that `values` does not name are 0.
function record_bytes(name, values) {
  const words = record_fields[name].split(" ");
  const view = new DataView(new ArrayBuffer(128));
  const left = new Set(Object.keys(values));
  let at = 0;
  for (let k = 0; k < words.length; k += 2) {
    const [type, field] = [words[k], words[k + 1]];
    const value = values[field] ?? (type === "f3" ? [0, 0, 0] : 0);
    left.delete(field);
    if (type === "b") {
      view.setUint8(at++, value);
      continue;
    }
    at = (at + 3) & ~3;
    for (const one of type === "f3" ? value : [value]) {
      if (type[0] === "f") view.setFloat32(at, one, true);
      else if (type === "i") view.setInt32(at, one, true);
      else view.setUint32(at, one, true);
      at += 4;
    }
  }
  if (left.size > 0) throw new Error(`${name} has no field ${[...left][0]}`);
  return new Uint8Array(view.buffer, 0, (at + 3) & ~3);
}

class Library {
  /// `folder` is the address of the build with threads, empty for the one in this script. `report(percent)` hears of the
  /// progress.
  static async load(folder, report) {
    const library = new Library();
    library.module = await load_tarn(
      folder ? {mainScriptUrlOrBlob: `${folder}tarn.js`, locateFile: name => folder + name} : {});
    const {module} = library;
    library.errors = [];
    const add = (call, signature) => module.addFunction(call, signature);
    const nothing = add(() => {}, "vi");
    const log_error = add(text => library.errors.push(module.UTF8ToString(text)), "vi");
    // progress, is_cancelled, log_info, reserved, log_error, acquire_memory, release_memory, reserved
    const callbacks = [add(report, "vd"), add(() => 0, "i"), nothing, 0, log_error, nothing, nothing, 0];
    library.callbacks = library.put(new Uint32Array(callbacks));
    const device = library.put(new TextEncoder().encode("cpu\0"));
    library.queue = module._CreateSyclQueue(device, library.callbacks);
    if (!library.queue) throw new Error("the library has found no device");
    return library;
  }

  /// The module's memory as it is now: what asks for more of it may be a thread, which does not tell the module.
  get memory() {
    return (this.module.wasmMemory ?? this.module.HEAPU8).buffer;
  }

  /// The threads that have run kernels; tasks beside them have ended or are about to.
  get threads() {
    return this.module.PThread ? Math.min(1 + this.module.PThread.runningWorkers.length, navigator.hardwareConcurrency) : 1;
  }

  put(cells) {
    const address = this.module._malloc(cells.byteLength);
    if (!address) throw new Error("out of memory");
    new Uint8Array(this.memory).set(new Uint8Array(cells.buffer, cells.byteOffset, cells.byteLength), address);
    return address;
  }

  /// Calls an export with its grids in their order, null for none, and its record. What it writes is in the grids.
  call(name, grids, record, values) {
    const addresses = grids.map(grid => grid ? this.put(grid) : 0);
    const parameters = this.put(record_bytes(record, values));
    this.errors.length = 0;
    try {
      const status = this.module[`_${name}`](this.queue, ...addresses, parameters,
                                             ...(name === "SunLightIntegral" ? [] : [this.callbacks]));
      if (status !== 0 || this.errors.length > 0) throw new Error(this.errors[0] ?? `status ${status}`);
      grids.forEach((grid, k) => {
        if (grid) grid.set(new Float32Array(this.memory, addresses[k], grid.length));
      });
    } finally {
      for (const address of [...addresses, parameters]) if (address) this.module._free(address);
    }
  }
}
