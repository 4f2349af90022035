// What one particle and one cell of the hydraulic erosion do. A particle walks downhill in pieces of at most twelve
// points and notes the heights on its way; then it goes along the whole piece again and decides how deep the bed should
// lie at each point, with the heights ahead in view. Cells take the mean of what all particles want of them. Shaping
// works on all cells: it wears steep faces back, pulls each cell towards its lower neighbours and smooths.
//
// Positions are in cells, with cell centres at +0.5. Heights are in the units of the grid.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "erosion/parallel_erosion.hpp"
#include "grid/atomic.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::parallel_erosion {

inline constexpr std::uint32_t direction_count = 32;

/// `surface` before the first walk, and the height above which it has been set.
inline constexpr float no_surface = -999999.9f;
inline constexpr float least_surface = -999999.0f;

/// The constants of a level.
struct Setting {
    int columns;
    int rows;
    /// Turns the fall over two steps into a true slope.
    float half_inverse_cell;
    /// Capacity per unit of drop along the path, and apart from it.
    float drop_capacity;
    float constant_capacity;
    float fill_slope_scale;
    float fill_tangent;
    float plain_tangent;
    float plain_share;
    float terrace_tangent;
    float terrace_share;
    /// The largest change, in units of height, of which the points of all paths together do not overflow a sum.
    float largest_change;

    std::ptrdiff_t index(int x, int y) const { return static_cast<std::ptrdiff_t>(y) * columns + x; }
    /// The cell of a position inside the margins.
    std::uint32_t cell_at(float x, float y) const {
        return static_cast<std::uint32_t>(index(static_cast<int>(x), static_cast<int>(y)));
    }
    /// Particles keep off the border, so that samples need no clamp. NaN is outside.
    Mask is_inside(float x, float y) const {
        return mask_of(0.5f <= x) & mask_of(x < static_cast<float>(columns) - 1.5f) & mask_of(0.5f <= y) &
               mask_of(y < static_cast<float>(rows) - 1.5f);
    }
};

/// A particle that begins its life at a random place.
inline Particle newborn(std::uint32_t seed, std::uint32_t id, const Setting& s) {
    const std::uint32_t s1 = xorshift(nonzero_state(seed * 111143u + id));
    const std::uint32_t s2 = xorshift(s1);
    Particle p{};
    p.position = Vector(random_number(s1) * unit_scale * static_cast<float>(s.columns),
                        random_number(s2) * unit_scale * static_cast<float>(s.rows));
    p.id = id;
    p.surface = no_surface;
    p.direction_index = id % direction_count;
    return p;
}

/// Whether a particle is born on a map of probabilities.
inline bool is_born(const Particle& p, std::uint32_t seed, const float* spawn_map, const Setting& s) {
    // A random number may be 1: its place is the far edge, one past the last cell.
    const int x = minimum(static_cast<int>(p.position.x()), s.columns - 1);
    const int y = minimum(static_cast<int>(p.position.y()), s.rows - 1);
    return spawn_map[s.index(x, y)] > random_number(xorshift(nonzero_state(seed * 111187u + p.id))) * unit_scale;
}

struct Sample {
    float height;
    /// Change of the height per cell.
    float gradient_x;
    float gradient_y;
};

/// Height and gradient at a position inside the margins, bilinear between cell centres.
inline Sample sample(const float* height, float x, float y, const Setting& s) {
    const float u = x - 0.5f;
    const float v = y - 0.5f;
    const int i = static_cast<int>(u);
    const int j = static_cast<int>(v);
    const float fx = u - static_cast<float>(i);
    const float fy = v - static_cast<float>(j);
    const int at = j * s.columns + i; // 32 bits, for vectors of indices
    const float a = height[at], b = height[at + 1];
    const float c = height[at + s.columns], d = height[at + s.columns + 1];
    return {(a * (1.0f - fx) + b * fx) * (1.0f - fy) + (c * (1.0f - fx) + d * fx) * fy,
            (b - a) * (1.0f - fy) + (d - c) * fy, (c - a) * (1.0f - fx) + (d - b) * fx};
}

/// Walks up to `lanes` particles on by one piece of their paths, in step: first one move of all of them, then the next.
/// A GPU's work-item walks one particle and a CPU's as many as make whole vectors. Sets `goes_on` of those that take
/// part in the next pass.
template <int lanes>
inline void walk(Particle* particles, const std::uint32_t* active, int count, const float* height,
                 const float* directions, const Setting& s, bool* goes_on) {
    float path_x[longest_path][lanes], path_y[longest_path][lanes];
    float heights[longest_path][lanes], rises[longest_path][lanes];
    float x[lanes], y[lanes], start[lanes], h[lanes], direction_x[lanes], direction_y[lanes];
    std::uint32_t direction_index[lanes], uphill_steps[lanes], total_steps[lanes], length_of[lanes];
    Mask walking[lanes], entered[lanes], rose[lanes], left[lanes], dead[lanes], stays[lanes];
    for (int k = 0; k < lanes; ++k) {
        const Particle& p = particles[active[minimum(k, count - 1)]];
        x[k] = p.position.x();
        y[k] = p.position.y();
        direction_index[k] = p.direction_index;
        uphill_steps[k] = p.uphill_steps;
        total_steps[k] = p.total_steps;
        length_of[k] = 0;
        rose[k] = left[k] = dead[k] = 0;
    }
    TARN_INDEPENDENT_ITERATIONS
    for (int k = 0; k < lanes; ++k) {
        // Lanes that do not walk look at a corner, and at nothing of what they find there.
        const Mask in = s.is_inside(x[k], y[k]) & mask_of(k < count);
        const Sample here = sample(height, blend(in, x[k], 0.5f), blend(in, y[k], 0.5f), s);
        const float steepness = length(here.gradient_x, here.gradient_y);
        start[k] = h[k] = here.height;
        direction_x[k] = -here.gradient_x / steepness;
        direction_y[k] = -here.gradient_y / steepness;
        entered[k] = in;
        walking[k] = in & mask_of(steepness > 0.0f);
        stays[k] = walking[k];
    }

    for (int i = 0; i < longest_path - 1; ++i) {
        Mask any = 0;
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            const float next_x = x[k] + direction_x[k];
            const float next_y = y[k] + direction_y[k];
            const Mask moves = walking[k];
            const Mask in = moves & s.is_inside(next_x, next_y);
            const Sample there = sample(height, blend(in, next_x, 0.5f), blend(in, next_y, 0.5f), s);
            const float steepness = length(there.gradient_x, there.gradient_y);
            const std::uint32_t next_index = (direction_index[k] + 1) % direction_count;
            // Water that has just climbed runs straight on.
            const float inertia = blend(rose[k], 15.0f, 0.5f);
            const float dx =
                inertia * direction_x[k] + 0.25f * directions[2 * next_index] - there.gradient_x / steepness;
            const float dy =
                inertia * direction_y[k] + 0.25f * directions[2 * next_index + 1] - there.gradient_y / steepness;
            const float norm = length(dx, dy);
            const Mask climbs = in & mask_of(there.height >= h[k]);
            // The fifth climb ends a particle, and so does one within its first three steps.
            const Mask fatal =
                climbs & (mask_of(uphill_steps[k] >= 4) | mask_of(total_steps[k] + static_cast<std::uint32_t>(i) <= 2));

            path_x[i][k] = x[k];
            path_y[i][k] = y[k];
            heights[i][k] = blend(climbs, there.height, h[k]);
            rises[i][k] = blend(climbs, there.height - h[k], 0.0f);
            x[k] = blend(moves, next_x, x[k]);
            y[k] = blend(moves, next_y, y[k]);
            h[k] = blend(in, there.height, h[k]);
            direction_x[k] = dx / norm;
            direction_y[k] = dy / norm;
            direction_index[k] = blend(in, next_index, direction_index[k]);
            uphill_steps[k] += climbs & 1u;
            length_of[k] += moves & 1u;
            rose[k] = blend(in, climbs, rose[k]);
            dead[k] |= fatal;
            left[k] |= moves & ~in;
            stays[k] = blend(moves, in, stays[k]);
            walking[k] = in & ~fatal & mask_of(steepness > 0.0f);
            any |= walking[k];
        }
        if (any == 0)
            break;
    }

    for (int k = 0; k < count; ++k) {
        Particle& p = particles[active[k]];
        std::uint32_t points = length_of[k];
        for (std::uint32_t i = 0; i < points; ++i) {
            p.positions[i] = Vector(path_x[i][k], path_y[i][k]);
            p.heights[i] = heights[i][k];
            p.rises[i] = rises[i][k];
        }
        const bool died = (dead[k] | rose[k]) != 0;
        if (entered[k] != 0 && !died && left[k] == 0) {
            // The next piece begins where this one ends.
            p.position = Vector(x[k], y[k]);
            p.positions[points] = p.position;
            p.heights[points] = h[k];
            p.rises[points] = 0.0f;
            ++points;
        } else if (points > 0) {
            p.position = p.positions[points - 1];
        }
        if (points > 0) {
            if (!(p.surface > least_surface))
                p.surface = start[k];
            p.previous_surface = start[k];
        }
        goes_on[k] = stays[k] != 0 && !died;
        p.dead = died ? 1 : 0;
        p.stopped = goes_on[k] ? 0 : 1;
        p.path_length = points;
        p.total_steps += points;
        p.uphill_steps = uphill_steps[k];
        p.direction_index = direction_index[k];
    }
}

/// Sums of changes are in fixed point, so that they do not depend on the order of the adds.
inline constexpr float fixed_point = 8388608.0f;
inline constexpr float fixed_point_unit = 1.1920929e-07f;

/// A change as a term of a fixed-point sum. What is no number changes nothing.
inline std::int64_t fixed(float change, const Setting& s) {
    const float least = change > -s.largest_change ? change : -s.largest_change;
    const float bounded = minimum(least, s.largest_change);
    return change == change ? static_cast<std::int64_t>(bounded * fixed_point) : 0;
}

/// What a visit adds to the counts of a cell, besides its weight.
inline constexpr std::uint64_t one_visit = std::uint64_t{1} << 32;

/// A cell that nobody else settles, or none.
inline constexpr std::uint32_t no_cell = 0xFFFFFFFFu;

/// Goes along the last piece of the paths of up to `lanes` particles, as `walk` does, and adds the changes that they
/// want to the sums of the cells. Each cell that a point is the first to come to it puts down in `changed`, where a
/// piece has `longest_path` entries.
template <int lanes>
inline void carve(Particle* particles, const std::uint32_t* active, int count, const Setting& s, DeltaSum* delta_sum,
                  std::uint32_t* changed) {
    // The last height goes on behind the end.
    float heights[longest_path + 2][lanes], rises[longest_path][lanes], changes[longest_path][lanes];
    float surface[lanes], previous_surface[lanes], sediment[lanes], scoured[lanes];
    Mask alive[lanes];
    int end[lanes];
    int last = 0;
    for (int k = 0; k < lanes; ++k) {
        const Particle& p = particles[active[minimum(k, count - 1)]];
        end[k] = static_cast<int>(p.path_length) - 1;
        last = maximum(last, end[k]);
        for (int i = 0; i < longest_path + 2; ++i)
            heights[i][k] = p.heights[maximum(minimum(i, end[k]), 0)];
        for (int i = 0; i < longest_path; ++i)
            rises[i][k] = p.rises[i];
        surface[k] = p.surface;
        previous_surface[k] = p.previous_surface;
        sediment[k] = p.sediment;
        scoured[k] = p.scoured;
        alive[k] = mask_of(p.dead == 0);
    }

    for (int i = 0; i <= last; ++i) {
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            const float h = heights[i][k];
            const float prev = heights[maximum(i - 1, 0)][k];
            const float next = heights[i + 1][k];
            const float next2 = heights[i + 2][k];
            const float prev2 = heights[maximum(i - 2, 0)][k];

            const float raw_slope = (prev - next) * s.half_inverse_cell;
            const float slope = maximum(raw_slope, 0.0f);
            const float keep =
                blend(mask_of(s.fill_slope_scale * slope < s.fill_tangent), 1.0f, 0.5f / (4.0f * slope + 1.0f));
            const float sum3 = (prev + h) + next;
            const float mean5 = ((prev2 + sum3) + next2) * 0.2f;
            const float mean3 = sum3 * 0.33333334f;
            const float d3 = mean3 - h;
            const float d5 = mean5 - h;
            const float fill = maximum(maximum(d3, d5), 0.0f);
            const float bed = minimum(blend(mask_of(d3 < 0.0f) & mask_of(d5 < 0.0f), mean5, mean3), h);

            const float ahead = heights[longest_path + 1][k] * 0.05f + next2 * 0.95f;
            const float capacity = s.drop_capacity * (bed - ahead) + s.constant_capacity;
            const float load = sediment[k];
            const Mask overloaded = mask_of(load > capacity + fill);
            const Mask on_terrace = overloaded & mask_of(raw_slope > s.terrace_tangent * 0.8f) &
                                    mask_of(raw_slope < s.terrace_tangent * 1.25f);
            const Mask on_plain = overloaded & mask_of(raw_slope < s.plain_tangent);
            // Level ground takes as much as there is.
            const float on_level = blend(mask_of(slope < s.plain_tangent * 0.1f), 100.0f, 1.0f);
            float deposit = fill * keep;
            deposit = blend(on_terrace, deposit + minimum(capacity, load * s.terrace_share), deposit);
            deposit = blend(on_plain, deposit + minimum(capacity, (load * s.plain_share) * on_level), deposit);

            const float target = bed - capacity;
            const float old = surface[k];
            // The bed comes at least a tenth of the way down to where it should lie.
            const float dropped = minimum(load, minimum(deposit, (old - target) * 0.9f));
            const float scour = minimum(0.0f, (previous_surface[k] - (target + dropped)) * 0.95f);
            const float carved = target + (dropped + scour);
            const float d = carved - h;
            const Mask counts = mask_of(i <= end[k]);
            previous_surface[k] = blend(counts, old, previous_surface[k]);
            surface[k] = blend(counts, carved, surface[k]);
            scoured[k] = blend(counts, scoured[k] - scour, scoured[k]);
            // Raising the bed costs more than it gives.
            const float used = blend(mask_of(d < 0.0f), d, d * 1.05f);
            sediment[k] = blend(counts, maximum(load - used, 0.0f), load);

            // The point that ends a piece begins the next one: it counts half in each.
            const Mask is_end = mask_of(i == 0) | mask_of(i == end[k]);
            const float change = d * blend(alive[k], blend(is_end, 0.5f, 2.0f), 0.0f);
            const float rise = rises[i][k];
            changes[i][k] = blend(mask_of(rise > 0.0f), maximum(change, rise), change);
        }
    }

    for (int k = 0; k < count; ++k) {
        Particle& p = particles[active[k]];
        p.surface = surface[k];
        p.previous_surface = previous_surface[k];
        p.sediment = sediment[k];
        p.scoured = scoured[k];
        for (int i = 0; i < longest_path; ++i, ++changed) {
            *changed = no_cell;
            if (i > end[k])
                continue;
            const bool is_inner = i > 0 && i < end[k] && p.dead == 0;
            const std::uint32_t cell = s.cell_at(p.positions[i].x(), p.positions[i].y());
            atomic_add(delta_sum[cell].changes, fixed(changes[i][k], s));
            if (atomic_add(delta_sum[cell].counts, one_visit + std::uint64_t{is_inner ? 2u : 1u}) == 0)
                *changed = cell;
        }
    }
}

struct Layers {
    float* height;
    float* flow;
    float* sediment;
    float* wear;
};

/// Changes a cell by the mean of what the particles want of it.
inline void settle(std::uint32_t cell, DeltaSum& wanted, const Layers& layers) {
    const float mean = (static_cast<float>(wanted.changes) * fixed_point_unit) /
                       static_cast<float>(static_cast<std::uint32_t>(wanted.counts));
    layers.height[cell] += mean;
    layers.flow[cell] += static_cast<float>(static_cast<std::uint32_t>(wanted.counts >> 32));
    layers.sediment[cell] = maximum(0.0f, layers.sediment[cell] + (mean > 0.0f ? mean : mean * 0.95f));
    layers.wear[cell] -= minimum(mean, 0.0f);
    wanted = {};
}

/// The constants of a level's shaping.
struct ShapeSetting {
    int columns;
    int rows;
    float cell;
    float sharpness;
    /// Share of the pull in the slope.
    float pull_share;
    float smoothing;
    float amount;

    std::ptrdiff_t index(int x, int y) const { return static_cast<std::ptrdiff_t>(y) * columns + x; }
};

/// How far the flow has reached into a cell: four visits reach it in full.
inline float reached(float reach, float flow) {
    return maximum(reach, minimum(flow * 0.25f, 1.0f));
}

/// The change that shaping makes of a cell. With `spreading` it acts only where the flow has reached, and `spread`
/// receives the reach of the cell after it has climbed up steep banks. With `interior` the columns need no clamp.
template <bool spreading, bool interior>
inline float shaped(const float* height, const float* reach, int x, int y, const ShapeSetting& s, float& spread) {
    const int x0 = interior ? x - 1 : maximum(x - 1, 0);
    const int x1 = interior ? x + 1 : minimum(x + 1, s.columns - 1);
    const std::ptrdiff_t up = s.index(0, maximum(y - 1, 0));
    const std::ptrdiff_t here = s.index(0, y);
    const std::ptrdiff_t down = s.index(0, minimum(y + 1, s.rows - 1));
    const float nw = height[up + x0], n = height[up + x], ne = height[up + x1];
    const float w = height[here + x0], c = height[here + x], e = height[here + x1];
    const float sw = height[down + x0], so = height[down + x], se = height[down + x1];

    if constexpr (spreading) {
        const float diagonal = c - s.cell * 0.50591373f;
        const float straight = c - s.cell * 0.35773504f;
        float r = reach[here + x];
        const auto climb = [&](float neighbour, float limit, float from) {
            r = maximum(r, kept_if(neighbour < limit, from));
        };
        climb(nw, diagonal, reach[up + x0]);
        climb(n, straight, reach[up + x]);
        climb(ne, diagonal, reach[up + x1]);
        climb(w, straight, reach[here + x0]);
        climb(e, straight, reach[here + x1]);
        climb(sw, diagonal, reach[down + x0]);
        climb(so, straight, reach[down + x]);
        climb(se, diagonal, reach[down + x1]);
        spread = r;
    }

    // The mean drop to the lower neighbours, weighted by their slopes.
    float weights = 0.0f, drops = 0.0f;
    const auto add = [&](float neighbour) {
        const float drop = maximum(0.0f, c - neighbour);
        const float weight = drop / s.cell;
        weights += weight;
        drops -= weight * drop;
    };
    add(nw);
    add(n);
    add(ne);
    add(w);
    add(e);
    add(sw);
    add(so);
    add(se);
    const float pull = drops / (weights > 0.0f ? weights : 1.0f);

    // I. Sobel's gradient, normalised by 8.
    const float gx = ((ne + e + e) + se) - ((nw + w + w) + sw);
    const float gy = ((sw + so + so) + se) - ((nw + n + n) + ne);
    const float steepness = length(gx * 0.125f, gy * 0.125f);
    const float slope = s.sharpness * ((1.0f - s.pull_share) * steepness - s.pull_share * pull);
    const float mean = ((n + w + e + so) + (nw + ne + sw + se) * 0.7071f) * 0.1464472f;
    // True slopes: above 0.3 faces wear back, above 1 much faster.
    const float force =
        maximum(slope - s.cell * 0.3f, 0.0f) * 0.7f + maximum(slope - s.cell, 0.0f) * 30.0f + s.smoothing * (c - mean);
    const float change = maximum(-force, pull) * s.amount;
    return spreading ? change * spread : change;
}

struct FoldedCell {
    float height;
    float sediment;
    float wear;
};

/// A cell of the finer level from the upsampled coarse values and its own detail. Detail lies buried under sediment but
/// for a share; where it stands out, worn ground keeps less of it. `cell` is the width of a coarse cell.
inline FoldedCell fold_back(float base, float sediment, float wear, float detail, float cell) {
    const bool covered = sediment > 0.0f;
    const bool buried = !(sediment - detail <= 0.0f);
    const float shown = detail > 0.0f ? detail * minimum(1.0f, 2.0f * cell / sediment - 0.25f) : 0.0f;
    const float kept = maximum(minimum(cell / wear, 1.0f), 0.1f);
    const float height_of_buried = detail > 0.0f ? base + shown : base;
    const float height_of_exposed = base + (detail - sediment) * kept;
    return {covered ? (buried ? height_of_buried : height_of_exposed) : base + detail,
            covered ? (buried ? sediment - shown : 0.0f) : sediment, maximum(wear - detail, 0.0f)};
}

} // namespace tarn::parallel_erosion
