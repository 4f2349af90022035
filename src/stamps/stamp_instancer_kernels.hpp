// What one instance does, and one cell of it.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "grid/atomic.hpp"
#include "grid/bilinear.hpp"
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

/// Merges one cell of a stamp into the cell of the grid under it.
inline void stamp_cell(float& height, float& id, float stamp, float base, float instance) {
    const float value = (stamp == 0.0f ? hole : stamp) + base;
    // Not tied to the raise: where two instances raise a cell at the same moment, the id of either may stand.
    if (atomic_raise(height, value))
        id = instance;
}

/// The row or column of the grid under cell 0 of a stamp whose centre lies in the cell of `coordinate`.
inline std::int64_t stamp_start(float coordinate, int stamp_size) {
    return std::int64_t{cell_of(coordinate)} - stamp_size / 2;
}

} // namespace tarn::stamp_instancer
