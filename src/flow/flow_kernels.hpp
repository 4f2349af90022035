// What the particles and the cells of a flow map do.
#pragma once

#include <cstdint>

#include "flow/trail_kernels.hpp"

namespace tarn::flow {

/// Walks the particles `first` to `last` and counts their visits in `hits`, which other work-items count in as well if
/// it is `shared`.
template <int lanes, bool shared>
inline void trace(const Start* particles, std::uint32_t first, std::uint32_t last, std::uint32_t seed,
                  std::uint32_t steps, const Terrain& terrain, const float* directions, std::uint32_t* hits) {
    constexpr float inertia = 1.2f;
    const float last_step = static_cast<float>(steps - 1u);
    const float most_uphill = maximum(static_cast<float>(steps) * 0.08f, 4.0f);

    Walkers<lanes> walkers;
    float steps_done[lanes], uphill[lanes];
    int cell[lanes];
    Mask counts[lanes];
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
        walkers.template look<false>(terrain, directions, inertia);
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            const float x = walkers.x[k] + walkers.direction_x[k], y = walkers.y[k] + walkers.direction_y[k];
            const float climbs =
                uphill[k] + blend(mask_of(walkers.height[k] >= walkers.previous_height[k]), 1.0f, 0.0f);
            const float done = steps_done[k] + 1.0f;
            const Mask goes_on = terrain.holds(x, y) & ~mask_of(done == last_step) & ~mask_of(climbs > most_uphill);
            cell[k] = terrain.cell_at(walkers.x[k], walkers.y[k]);
            counts[k] = walkers.is_walking[k];
            uphill[k] = climbs;
            steps_done[k] = done;
            walkers.x[k] = x;
            walkers.y[k] = y;
            walkers.is_new[k] = 0;
            walkers.is_walking[k] &= goes_on;
        }
        any = 0;
        for (int k = 0; k < lanes; ++k) {
            if constexpr (!shared)
                hits[cell[k]] += counts[k] & 1u;
            else if (counts[k] != 0)
                atomic_add(hits[cell[k]], 1u);
            if (walkers.is_walking[k] == 0)
                enter(k);
            if constexpr (lanes > 1)
                prefetch_for_write(&hits[terrain.cell_at(walkers.x[k], walkers.y[k])]);
            any |= walkers.is_walking[k];
        }
    }
}

/// What a batch's visits of a cell add to the flow map: less the more there are, and less than 1/32.
inline float saturated(float count) {
    return (count * 0.03125f) / (count + 8.0f);
}

} // namespace tarn::flow
