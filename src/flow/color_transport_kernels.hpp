// What one particle and one cell of the colour transport do. Particles walk as those of a flow map do in outline; each
// carries a colour, which it lays down in every cell it visits and takes up anew now and then.
#pragma once

#include "flow/color_transport.hpp"
#include "flow/flow_kernels.hpp"

namespace tarn::color_transport {

using flow::Terrain;

/// The grids of the image, from which particles take colours up.
struct Image {
    const float* red;
    const float* green;
    const float* blue;

    Color at(std::ptrdiff_t cell) const { return {red[cell], green[cell], blue[cell]}; }
};

/// How the particles of a launch walk.
struct Walk {
    /// Length of the trails, not necessarily whole.
    float steps;
    /// Where the next colour is taken up: up to so many steps on.
    float pick_distance;
    bool is_straight;
    std::uint32_t seed;
};

inline float draw_distance(std::uint32_t state, const Walk& walk) {
    return random_number(state) * unit_scale * walk.pick_distance;
}

/// Walks the particle that starts at `p`. The length map is null if there is none.
inline void carry_color(Point p, std::uint32_t index, const Walk& walk, const Terrain& terrain, const Image& image,
                        const Point* directions, const float* length_map, Load* loads) {
    constexpr float inertia = 0.9f;
    Point gradient;
    float height = flow::measure(terrain, p, gradient);
    const float first_steepness = flow::length(gradient);
    if (first_steepness == 0.0f)
        return;
    Point direction(-gradient.x() / first_steepness, -gradient.y() / first_steepness);

    std::ptrdiff_t cell = terrain.cell_at(p);
    Color carried = image.at(cell);
    std::uint32_t state = xorshift(xorshift(nonzero_state(walk.seed + index)));
    float next_pick = draw_distance(state, walk);
    const float last_step = (length_map != nullptr ? length_map[cell] : 1.0f) * walk.steps - 1.0f;
    const int most_uphill = maximum(4, static_cast<int>(walk.steps * 0.2f));
    int uphill = 0;
    for (float walked = 0.0f;; cell = terrain.cell_at(p)) {
        atomic_add(loads[cell].sum.red, carried.red);
        atomic_add(loads[cell].sum.green, carried.green);
        atomic_add(loads[cell].sum.blue, carried.blue);
        atomic_add(loads[cell].hits, 1.0f);
        if (walked >= next_pick) {
            carried = image.at(cell);
            state = xorshift(state);
            next_pick += draw_distance(state, walk);
        }
        const Point next(p.x() + direction.x(), p.y() + direction.y());
        walked += 1.0f;
        if (!terrain.holds(next) || walked >= last_step)
            return;
        state = xorshift(state);
        const float next_height = flow::measure(terrain, next, gradient);
        const float steepness = flow::length(gradient);
        if (steepness > 0.0f) {
            const Point kick = walk.is_straight ? Point(0.0f, 0.0f) : directions[flow::direction_index(state)];
            direction = flow::turned(direction, inertia, kick, gradient, steepness);
        }
        if (next_height >= height && ++uphill > most_uphill)
            return;
        height = next_height;
        p = next;
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
