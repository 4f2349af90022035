// Many copies of small height patches, the stamps, merged into a terrain by a maximum.
#pragma once

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"

namespace tarn::stamp_instancer {

using Parameters = stamp_instancer_Parameters;
using Instance = stamp_instancer_Instance;

inline ModuleCallbacks callbacks;

/// Places the instances. `heights` and `ids` are written back when this returns; the instances' base heights reach the
/// caller on a CPU alone.
void place(sycl::queue& queue, float* heights, float* ids, const float* stamps, Instance* instances,
           const Parameters& parameters);

} // namespace tarn::stamp_instancer
