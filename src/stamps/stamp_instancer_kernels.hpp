// What one instance does, and one cell of it.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "grid/atomic.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"
#include "stamps/stamp_instancer.hpp"

namespace tarn::stamp_instancer {

/// What a hole of a stamp adds to the base height, so that it loses against any terrain.
inline constexpr float hole = -99999.0f;

/// The cell of a coordinate, truncated toward zero; coordinates beyond the integers, and NaN, end up far off any grid.
inline int cell_of(float coordinate) {
    constexpr float last = 2147483520.0f; // the largest float that an int holds
    if (!(coordinate > -last))
        return static_cast<int>(-last);
    return static_cast<int>(minimum(coordinate, last));
}

/// The terrain's height at a position, bilinear between cell centres. The weights are not clamped: up to a cell off the
/// left and upper border the slope goes on, everywhere else off the grid the border cells do.
inline float base_height(const float* heights, int width, int height, const TarnFloat2& position) {
    const float fx = position.x - 0.5f;
    const float fy = position.y - 0.5f;
    const int ix = cell_of(fx);
    const int iy = cell_of(fy);
    const int x0 = clamp_index(ix, width), x1 = clamp_index(ix + 1, width);
    const int y0 = clamp_index(iy, height), y1 = clamp_index(iy + 1, height);
    const float tx = fx - static_cast<float>(x0);
    const float ty = fy - static_cast<float>(y0);
    const float* upper = heights + static_cast<std::ptrdiff_t>(y0) * width;
    const float* lower = heights + static_cast<std::ptrdiff_t>(y1) * width;
    return upper[x0] * (1.0f - tx) * (1.0f - ty) + upper[x1] * tx * (1.0f - ty) + lower[x0] * (1.0f - tx) * ty +
           lower[x1] * tx * ty;
}

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
