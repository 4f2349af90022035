// What the particles and the cells of the colour transport do. A particle carries a colour, which it lays down in every
// cell that it visits and takes up anew now and then.
#pragma once

#include <cstdint>

#include "flow/color_transport.hpp"
#include "flow/trail_kernels.hpp"

namespace tarn::color_transport {

/// The grids of the image, from which particles take colours up.
struct Image {
    const float* red;
    const float* green;
    const float* blue;

    Color at(int cell) const { return {red[cell], green[cell], blue[cell]}; }
};

inline void add_load(Load& load, const Load& other) {
    load.sum.red += other.sum.red;
    load.sum.green += other.sum.green;
    load.sum.blue += other.sum.blue;
    load.hits += other.hits;
}

/// How the particles of a launch walk.
struct Walk {
    /// Length of the trails, not necessarily whole.
    float steps;
    /// A colour is carried up to so many steps.
    float pick_distance;
    std::uint32_t seed;
};

inline float draw_distance(std::uint32_t state, const Walk& walk) {
    return random_number(state) * unit_scale * walk.pick_distance;
}

/// Lays colours down where all work-items lay them down; CPUs have no atomic additions of floats.
template <bool on_cpu>
struct SharedLoads {
    Load* loads;

    void add(int cell, const Color& color) const {
        Load& load = loads[cell];
        if constexpr (on_cpu) {
            atomic_add_two(load.sum.red, color.red, load.sum.green, color.green);
            atomic_add_two(load.sum.blue, color.blue, load.hits, 1u);
        } else {
            atomic_add(load.sum.red, color.red);
            atomic_add(load.sum.green, color.green);
            atomic_add(load.sum.blue, color.blue);
            atomic_add(load.hits, 1u);
        }
    }
};

/// Lays colours down in a plane.
struct PlaneLoads {
    Load* loads;

    void add(int cell, const Color& color) const { add_load(loads[cell], {color, 1u}); }
};

/// Walks the particles from `first` to `last`. The length map is null if there is none.
template <int lanes, class Loads>
inline void carry_colors(const Point* particles, std::uint32_t first, std::uint32_t last, const Walk& walk,
                         const flow::Terrain& terrain, const Image& image, const float* directions,
                         const float* length_map, const Loads& loads) {
    constexpr float inertia = 0.9f;
    const int most_uphill = maximum(4, static_cast<int>(walk.steps * 0.2f));

    flow::Walkers<lanes> walkers;
    float walked[lanes], next_pick[lanes], last_step[lanes];
    int uphill[lanes], cell[lanes];
    Mask lays_down[lanes], takes_up[lanes];
    Color carried[lanes];
    const auto enter = [&](int k) {
        if (first < last) {
            const std::uint32_t state = xorshift(xorshift(nonzero_state(walk.seed + first)));
            walkers.start(k, particles[first].x(), particles[first].y(), state);
            const int start = terrain.cell_at(walkers.x[k], walkers.y[k]);
            carried[k] = image.at(start);
            next_pick[k] = draw_distance(state, walk);
            last_step[k] = (length_map != nullptr ? length_map[start] : 1.0f) * walk.steps - 1.0f;
            ++first;
        } else {
            walkers.clear(k);
            carried[k] = {};
            next_pick[k] = last_step[k] = 0.0f;
        }
        walked[k] = 0.0f;
        uphill[k] = 0;
    };
    for (int k = 0; k < lanes; ++k)
        enter(k);

    for (Mask any = mask_of(true); any != 0;) {
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            walkers.template look<true>(k, terrain, directions, inertia);
            const Mask climbs = mask_of(walkers.height[k] >= walkers.previous_height[k]) & ~walkers.is_new[k];
            const int climbed = uphill[k] + static_cast<int>(climbs & 1u);
            const Mask arrives = walkers.is_walking[k] & mask_of(climbed <= most_uphill);
            const float x = walkers.x[k] + walkers.direction_x[k], y = walkers.y[k] + walkers.direction_y[k];
            const float done = walked[k] + 1.0f;
            cell[k] = terrain.cell_at(walkers.x[k], walkers.y[k]);
            lays_down[k] = arrives;
            takes_up[k] = arrives & mask_of(walked[k] >= next_pick[k]);
            uphill[k] = climbed;
            walked[k] = done;
            walkers.x[k] = x;
            walkers.y[k] = y;
            walkers.is_new[k] = 0;
            walkers.is_walking[k] = arrives & terrain.holds(x, y) & ~mask_of(done >= last_step[k]);
        }
        any = 0;
        for (int k = 0; k < lanes; ++k) {
            if (lays_down[k] != 0)
                loads.add(cell[k], carried[k]);
            if (takes_up[k] != 0) {
                carried[k] = image.at(cell[k]);
                walkers.state[k] = xorshift(walkers.state[k]);
                next_pick[k] += draw_distance(walkers.state[k], walk);
            }
            if (walkers.is_walking[k] == 0)
                enter(k);
            if constexpr (lanes > 1)
                prefetch_for_write(&loads.loads[terrain.cell_at(walkers.x[k], walkers.y[k])]);
            any |= walkers.is_walking[k];
        }
    }
}

/// How a batch changes the image.
struct Mix {
    /// Turns visits into weight.
    float norm;
    /// Weight of the colour that a cell has.
    float prior;
    float blend;
};

/// A channel of a cell after `share`, the inverse of its weight, and `sum` of what has been laid down in it.
inline float mixed(float color, float sum, float share, const Mix& mix) {
    return color * (1.0f - mix.blend) + ((color * mix.prior + sum * mix.norm) * share) * mix.blend;
}

} // namespace tarn::color_transport
