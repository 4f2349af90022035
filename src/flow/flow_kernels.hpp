// What the particles and the cells of a flow map do.
#pragma once

#include <cstdint>

#include "flow/trail_kernels.hpp"

namespace tarn::flow {

/// Counts visits where all work-items count them. Particles that are not on their way are at `nowhere`, the number
/// after the last cell's.
struct SharedCounter {
    std::uint32_t* hits;
    int nowhere;

    void count(int cell) const {
        if (cell != nowhere)
            atomic_add(hits[cell], 1u);
    }
};

/// Counts visits in a plane, which has 8 bits for each cell and for `nowhere`. What does not fit is carried over to the
/// shared counts.
struct PlaneCounter {
    std::uint8_t* plane;
    SharedCounter shared;

    void count(int cell) const {
        if (++plane[cell] == 0 && cell != shared.nowhere)
            atomic_add(shared.hits[cell], 1u << 8);
    }
};

/// Walks the particles `first` to `last` and counts their visits.
template <int lanes, class Counter>
inline void trace(const Start* particles, std::uint32_t first, std::uint32_t last, std::uint32_t seed,
                  std::uint32_t steps, const Terrain& terrain, const float* directions, const Counter& counter) {
    constexpr float inertia = 1.2f;
    const float last_step = static_cast<float>(steps - 1u);
    const float most_uphill = maximum(static_cast<float>(steps) * 0.08f, 4.0f);
    const int nowhere = terrain.columns * terrain.rows;
    // Short trails end nearly all at once, so their lanes wait for one another before new ones enter.
    const std::uint32_t least_walking = steps <= 16u ? lanes / 2 + 1 : lanes;

    Walkers<lanes> walkers;
    float steps_done[lanes], uphill[lanes];
    int cell[lanes];
    const auto enter = [&](int k) {
        if (first < last) {
            const Start& p = particles[first++];
            walkers.start(k, p.x, p.y, xorshift(nonzero_state(p.number + seed)));
        } else {
            walkers.clear(k);
        }
        // The height before the first one counts as 0.
        steps_done[k] = uphill[k] = 0.0f;
    };
    Mask any = mask_of(first < last);
    for (int k = 0; k < lanes; ++k)
        enter(k);

    while (any != 0) {
        std::uint32_t walking = 0;
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            walkers.template look<false>(k, terrain, directions, inertia);
            const float x = walkers.x[k] + walkers.direction_x[k], y = walkers.y[k] + walkers.direction_y[k];
            const float climbs =
                uphill[k] + blend(mask_of(walkers.height[k] >= walkers.previous_height[k]), 1.0f, 0.0f);
            const float done = steps_done[k] + 1.0f;
            const Mask counts = walkers.is_walking[k];
            const Mask goes_on =
                counts & terrain.holds(x, y) & ~mask_of(done == last_step) & ~mask_of(climbs > most_uphill);
            cell[k] = blend(counts, terrain.cell_at(walkers.x[k], walkers.y[k]), nowhere);
            uphill[k] = climbs;
            steps_done[k] = done;
            walkers.x[k] = blend(goes_on, x, walkers.x[k]);
            walkers.y[k] = blend(goes_on, y, walkers.y[k]);
            walkers.is_new[k] = 0;
            walkers.is_walking[k] = goes_on;
            walking += goes_on & 1u;
        }
        for (int k = 0; k < lanes; ++k)
            counter.count(cell[k]);
        if (walking >= least_walking)
            continue;
        any = 0;
        for (int k = 0; k < lanes; ++k) {
            if (walkers.is_walking[k] == 0)
                enter(k);
            any |= walkers.is_walking[k];
        }
    }
}

/// What a batch's visits of a cell add to the flow map: less the more there are, and less than 1/32.
inline float saturated(float count) {
    return (count * 0.03125f) / (count + 8.0f);
}

} // namespace tarn::flow
