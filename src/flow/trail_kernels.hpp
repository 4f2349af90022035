// How the particles of flow maps and of colour transport walk: downhill in steps of one cell, with inertia and a random
// kick at each step. Particles walk in lanes, all in step, and the next one takes the lane of one that has ended.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "flow/particles.hpp"
#include "grid/atomic.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::flow {

inline constexpr std::uint32_t direction_count = 32;

/// The visits of a cell as a float that has been counted up one by one, which ends at 2^24.
inline float counted(std::uint32_t visits) {
    return static_cast<float>(minimum(visits, 1u << 24));
}

struct Sample {
    float height;
    /// Change of the height per cell.
    float gradient_x;
    float gradient_y;
};

/// The heights that particles walk over.
struct Terrain {
    const float* heights;
    int columns;
    int rows;

    /// Cells are numbered in 32 bits, for vectors of indices.
    int index(int x, int y) const { return y * columns + x; }
    /// The cell of a point inside the grid.
    int cell_at(float x, float y) const { return index(static_cast<int>(x), static_cast<int>(y)); }
    /// Whether a particle may go on to a point: trails end one column and one row before the far edges. NaN is outside.
    Mask holds(float x, float y) const {
        return mask_of(0.0f <= x) & mask_of(x < static_cast<float>(columns) - 1.0f) & mask_of(0.0f <= y) &
               mask_of(y < static_cast<float>(rows) - 1.0f);
    }
};

/// The terrain at a point inside the grid, bilinear between the centres of cells. Before the first centre of a row or a
/// column it takes the first two cells, with the weights that a cell beyond the border and the first one would have.
inline Sample measure(const Terrain& terrain, float x, float y) {
    const float px = x - 0.5f, py = y - 0.5f;
    const int ix = static_cast<int>(px), iy = static_cast<int>(py);
    const int x0 = maximum(ix, 0), x1 = minimum(ix + 1, terrain.columns - 1);
    const int y0 = maximum(iy, 0), y1 = minimum(iy + 1, terrain.rows - 1);
    const float a = terrain.heights[terrain.index(x0, y0)], b = terrain.heights[terrain.index(x1, y0)];
    const float c = terrain.heights[terrain.index(x0, y1)], d = terrain.heights[terrain.index(x1, y1)];
    const float fx = px - sycl::floor(px), fy = py - sycl::floor(py);
    return {(a * (1.0f - fx) + b * fx) * (1.0f - fy) + (c * (1.0f - fx) + d * fx) * fy,
            (b - a) * (1.0f - fy) + (d - c) * fy, (c - a) * (1.0f - fx) + (d - b) * fx};
}

/// Particles on their way.
template <int lanes>
struct Walkers {
    float x[lanes];
    float y[lanes];
    float direction_x[lanes];
    float direction_y[lanes];
    float height[lanes];
    float previous_height[lanes];
    std::uint32_t state[lanes];
    Mask is_new[lanes];
    Mask is_walking[lanes];

    /// Puts a particle in a lane.
    void start(int k, float start_x, float start_y, std::uint32_t random_state) {
        x[k] = start_x;
        y[k] = start_y;
        direction_x[k] = direction_y[k] = height[k] = 0.0f;
        state[k] = random_state;
        is_new[k] = is_walking[k] = mask_of(true);
    }

    /// A lane without a particle looks at a corner, and at nothing of what it finds there.
    void clear(int k) {
        start(k, 0.0f, 0.0f, 1u);
        is_walking[k] = 0;
    }

    /// The particle of a lane measures the terrain and turns: the next direction is what is left of the last one plus a
    /// random kick plus a unit vector down the slope. Without a slope, on level ground or where a height is no number,
    /// particles go straight on. New ones end there; but with `starts_without_number` one among heights that are no
    /// numbers ends a step later.
    template <bool starts_without_number>
    void look(int k, const Terrain& terrain, const float* directions, float inertia) {
        const Mask fresh = is_new[k];
        const std::uint32_t next_state = blend(fresh, state[k], xorshift(state[k]));
        const Sample here = measure(terrain, x[k], y[k]);
        const float steepness = length(here.gradient_x, here.gradient_y);
        const float up_x = here.gradient_x / steepness, up_y = here.gradient_y / steepness;
        const int entry = static_cast<int>((next_state * 0x2545F381u - 1u) % direction_count);
        const float dx = inertia * direction_x[k] + 0.7f * directions[2 * entry] - up_x;
        const float dy = inertia * direction_y[k] + 0.7f * directions[2 * entry + 1] - up_y;
        const float norm = length(dx, dy);
        const Mask slopes = mask_of(steepness > 0.0f);
        const Mask starts = starts_without_number ? ~mask_of(steepness == 0.0f) : slopes;
        state[k] = next_state;
        direction_x[k] = blend(fresh, -up_x, blend(slopes, dx / norm, direction_x[k]));
        direction_y[k] = blend(fresh, -up_y, blend(slopes, dy / norm, direction_y[k]));
        previous_height[k] = height[k];
        height[k] = here.height;
        is_walking[k] &= starts | ~fresh;
    }
};

} // namespace tarn::flow
