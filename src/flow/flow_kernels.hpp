// What one particle and one cell of a flow map do. A particle walks downhill in steps of one cell, with inertia and a
// random kick at each step, and counts its visits.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "flow/particles.hpp"
#include "grid/atomic.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::flow {

inline constexpr std::uint32_t direction_count = 32;

/// The heights that particles walk over.
struct Terrain {
    const float* heights;
    int columns;
    int rows;

    std::ptrdiff_t index(int x, int y) const { return static_cast<std::ptrdiff_t>(y) * columns + x; }
    /// The cell of a point inside the grid.
    std::ptrdiff_t cell_at(const Point& p) const { return index(static_cast<int>(p.x()), static_cast<int>(p.y())); }
    /// Whether a particle may go on to `p`: trails end one column and one row before the far edges. NaN is outside.
    bool holds(const Point& p) const {
        return 0.0f <= p.x() && p.x() < static_cast<float>(columns) - 1.0f && 0.0f <= p.y() &&
               p.y() < static_cast<float>(rows) - 1.0f;
    }
};

inline float length(const Point& v) {
    return sycl::sqrt(v.x() * v.x() + v.y() * v.y());
}

/// The height at a point, bilinear between the centres of cells, and its gradient per cell. In the half cell before the
/// first centres the weights are those of the cell before, the heights are not.
inline float measure(const Terrain& terrain, const Point& p, Point& gradient) {
    const float px = p.x() - 0.5f, py = p.y() - 0.5f;
    const int ix = static_cast<int>(px), iy = static_cast<int>(py);
    const int x0 = maximum(ix, 0), x1 = minimum(ix + 1, terrain.columns - 1);
    const float* upper = terrain.heights + terrain.index(0, maximum(iy, 0));
    const float* lower = terrain.heights + terrain.index(0, minimum(iy + 1, terrain.rows - 1));
    const float a = upper[x0], b = upper[x1], c = lower[x0], d = lower[x1];
    const float fx = px - sycl::floor(px), fy = py - sycl::floor(py);
    gradient = Point((b - a) * (1.0f - fy) + (d - c) * fy, (c - a) * (1.0f - fx) + (d - b) * fx);
    return (a * (1.0f - fx) + b * fx) * (1.0f - fy) + (c * (1.0f - fx) + d * fx) * fy;
}

/// The entry of the table of directions that a random state stands for.
inline std::uint32_t direction_index(std::uint32_t state) {
    return (state * 0x2545F381u - 1u) & 0x7FFFFFFFu & (direction_count - 1u);
}

/// The direction of the next step: what is left of the last one, a random kick, and down the slope, a unit vector.
inline Point turned(const Point& direction, float inertia, const Point& kick, const Point& gradient, float steepness) {
    const Point sum(inertia * direction.x() + 0.7f * kick.x() - gradient.x() / steepness,
                    inertia * direction.y() + 0.7f * kick.y() - gradient.y() / steepness);
    const float norm = length(sum);
    return Point(sum.x() / norm, sum.y() / norm);
}

/// Walks the particle that starts at `p` and counts its visits in `hits`.
inline void trace(Point p, std::uint32_t index, std::uint32_t seed, std::uint32_t steps, const Terrain& terrain,
                  const Point* directions, float* hits) {
    constexpr float inertia = 1.2f;
    std::uint32_t state = xorshift(nonzero_state(index + seed));
    Point gradient;
    float height = measure(terrain, p, gradient);
    const float first_steepness = length(gradient);
    if (!(first_steepness > 0.0f))
        return;
    Point direction(-gradient.x() / first_steepness, -gradient.y() / first_steepness);

    const float last_step = static_cast<float>(steps - 1u);
    const float most_uphill = maximum(static_cast<float>(steps) * 0.08f, 4.0f);
    float previous_height = 0.0f; // ground above the zero of heights counts as climbed onto
    float uphill = 0.0f;
    for (float steps_done = 1.0f;; steps_done += 1.0f) {
        atomic_add(hits[terrain.cell_at(p)], 1.0f);
        const Point next(p.x() + direction.x(), p.y() + direction.y());
        if (!terrain.holds(next))
            return;
        if (height >= previous_height)
            uphill += 1.0f;
        if (steps_done == last_step || uphill > most_uphill)
            return;
        state = xorshift(state);
        previous_height = height;
        height = measure(terrain, next, gradient);
        const float steepness = length(gradient);
        if (steepness > 0.0f)
            direction = turned(direction, inertia, directions[direction_index(state)], gradient, steepness);
        p = next;
    }
}

/// What a batch's visits of a cell add to the flow map: less the more there are, and less than 1/32.
inline float saturated(float count) {
    return (count * 0.03125f) / (count + 8.0f);
}

} // namespace tarn::flow
