// The record that both exports of the namespace share.
#pragma once

#include <cstddef>

#include <tarn/oneapi.h>

#include "device/callbacks.hpp"

namespace tarn::lighting {

using Resolution = lighting_Resolution;
static_assert(sizeof(Resolution) == 8);

using Parameters = lighting_Parameters;
static_assert(sizeof(Parameters) == 120);
static_assert(offsetof(Parameters, terrain_size) == 8 && offsetof(Parameters, terrain_height) == 12);
static_assert(offsetof(Parameters, sun_direction) == 16 && offsetof(Parameters, sun_rings) == 28);
static_assert(offsetof(Parameters, sun_diameter) == 32 && offsetof(Parameters, hybrid_ao) == 36);
static_assert(offsetof(Parameters, ao_subdivisions) == 40 && offsetof(Parameters, hybrid_ao_subdivisions) == 44);
static_assert(offsetof(Parameters, hybrid_ao_levels) == 48 && offsetof(Parameters, exposure) == 52);
static_assert(offsetof(Parameters, sun_intensity) == 56 && offsetof(Parameters, ambient_intensity) == 60);
static_assert(offsetof(Parameters, sun_color) == 64 && offsetof(Parameters, ambient_color) == 76);
static_assert(offsetof(Parameters, albedo) == 88 && offsetof(Parameters, first_day) == 92);
static_assert(offsetof(Parameters, last_day) == 96 && offsetof(Parameters, latitude) == 100);
static_assert(offsetof(Parameters, north_offset) == 104 && offsetof(Parameters, haze) == 108);
static_assert(offsetof(Parameters, direct_light) == 112 && offsetof(Parameters, ambient_light) == 113);
static_assert(offsetof(Parameters, shadows) == 114 && offsetof(Parameters, ambient_occlusion) == 115);
static_assert(offsetof(Parameters, ao_supplied) == 116);

/// The module's copy of the host's callbacks, written by Shade alone.
inline ModuleCallbacks callbacks;

} // namespace tarn::lighting
