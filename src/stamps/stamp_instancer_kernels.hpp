// What one instance does, and one cell of it.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "grid/atomic.hpp"
#include "grid/bilinear.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"
#include "stamps/stamp_instancer.hpp"

namespace tarn::stamp_instancer {

/// What a hole of a stamp adds to the base height, so that it loses against any terrain.
inline constexpr float hole = -99999.0f;

/// The id of an instance: a random number above 0, since 0 stands for no instance.
inline float instance_id(std::uint32_t instance) {
    const float id = random_number(xorshift(nonzero_state(instance))) * unit_scale;
    return id == 0.0f ? 1.0f : id;
}

/// How high one cell of a stamp lies.
inline float stamped_height(float stamp, float base) {
    return (stamp == 0.0f ? hole : stamp) + base;
}

/// Raises a cell that other work-items raise too.
inline void raise_cell(float& height, float& id, float value, float instance) {
    // Not tied to the raise: where two instances raise a cell at the same moment, the id of either may stand.
    if (atomic_raise(height, value))
        SharedCell<float>(id).store(instance);
}

/// Raises cells of a row that nobody else raises.
inline void raise_cells(float* heights, float* ids, const float* stamp, int count, float base, float instance) {
    TARN_INDEPENDENT_ITERATIONS
    for (int n = 0; n < count; ++n) {
        const float value = stamped_height(stamp[n], base);
        const Mask is_higher = mask_of(value > heights[n]);
        heights[n] = blend(is_higher, value, heights[n]);
        ids[n] = blend(is_higher, instance, ids[n]);
    }
}

/// The row or column of the grid under cell 0 of a stamp whose centre lies in the cell of `coordinate`.
inline std::int64_t stamp_start(float coordinate, int stamp_size) {
    return std::int64_t{cell_of(coordinate)} - stamp_size / 2;
}

} // namespace tarn::stamp_instancer
