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

#include "grid/atomic.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::parallel_erosion {

using Vector = sycl::vec<float, 2>;

/// Points of one piece of a path.
inline constexpr int longest_path = 12;
inline constexpr std::uint32_t direction_count = 32;

/// A water particle.
struct Particle {
    /// The piece of the path that the last walk went. A rising step stands at the height that it rises to.
    float heights[longest_path];
    float rises[longest_path];
    Vector positions[longest_path];
    Vector position;
    std::uint32_t id;
    std::uint32_t path_length;
    /// Over its whole life, as `uphill_steps`.
    std::uint32_t total_steps;
    std::uint32_t uphill_steps;
    /// Ended by the terrain: the last piece moves ground only where it rises.
    std::uint8_t dead;
    /// Takes no part in the next pass.
    std::uint8_t stopped;
    /// Height of the carved bed at the last point and at the one before.
    float surface;
    float previous_surface;
    float sediment;
    /// Sum of what it has scoured off the bed.
    float scoured;
    std::uint32_t direction_index;
};

/// `surface` before the first walk, and the height above which it has been set.
inline constexpr float no_surface = -999999.9f;
inline constexpr float least_surface = -999999.0f;

/// The constants of a level.
struct Setting {
    int columns;
    int rows;
    /// Width of a cell in units of height, and its inverse.
    float cell;
    float inverse_cell;
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
    bool is_inside(float x, float y) const {
        return 0.5f <= x && x < static_cast<float>(columns) - 1.5f && 0.5f <= y && y < static_cast<float>(rows) - 1.5f;
    }
};

inline float length(float x, float y) {
    return sycl::sqrt(x * x + y * y);
}

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
    const float* row = height + s.index(i, j);
    const float* below = row + s.columns;
    const float a = row[0], b = row[1], c = below[0], d = below[1];
    return {(a * (1.0f - fx) + b * fx) * (1.0f - fy) + (c * (1.0f - fx) + d * fx) * fy,
            (b - a) * (1.0f - fy) + (d - c) * fy, (c - a) * (1.0f - fx) + (d - b) * fx};
}

/// Walks a particle on by one piece of its path. True if it goes on after that.
inline bool walk(Particle& p, const float* height, const Vector* directions, const Setting& s) {
    float x = p.position.x(), y = p.position.y();
    p.path_length = 0;
    p.stopped = 1;
    if (!s.is_inside(x, y))
        return false;

    Sample here = sample(height, x, y, s);
    float h = here.height;
    float steepness = length(here.gradient_x, here.gradient_y);
    bool stop = !(steepness > 0.0f);
    bool goes_on = !stop;
    float direction_x = stop ? 0.0f : -here.gradient_x / steepness;
    float direction_y = stop ? 0.0f : -here.gradient_y / steepness;
    if (!(p.surface > least_surface))
        p.surface = h;
    p.previous_surface = h;

    std::uint32_t i = 0;
    bool rose = false, left = false, dead = false;
    float last_x = x, last_y = y;
    while (!stop) {
        last_x = x;
        last_y = y;
        p.positions[i] = Vector(x, y);
        float recorded = h, rise = 0.0f;
        const float next_x = x + direction_x;
        const float next_y = y + direction_y;
        if (!s.is_inside(next_x, next_y)) {
            left = stop = true;
            goes_on = false;
        } else {
            const Sample there = sample(height, next_x, next_y, s);
            goes_on = true;
            p.direction_index = (p.direction_index + 1) % direction_count;
            steepness = length(there.gradient_x, there.gradient_y);
            // Water that has just climbed runs straight on.
            const float inertia = rose ? 15.0f : 0.5f;
            const Vector random = directions[p.direction_index];
            const float dx = inertia * direction_x + 0.25f * random.x() - there.gradient_x / steepness;
            const float dy = inertia * direction_y + 0.25f * random.y() - there.gradient_y / steepness;
            const float norm = length(dx, dy);
            const bool flat = !(steepness > 0.0f);
            direction_x = flat ? 0.0f : dx / norm;
            direction_y = flat ? 0.0f : dy / norm;
            stop = flat;
            rose = there.height >= h;
            if (rose) {
                recorded = there.height;
                rise = there.height - h;
                // The fifth climb ends a particle, and so does one within its first three steps.
                if (p.uphill_steps >= 4 || p.total_steps + i <= 2)
                    dead = stop = true;
                ++p.uphill_steps;
            }
            h = there.height;
        }
        p.heights[i] = recorded;
        p.rises[i] = rise;
        x = next_x;
        y = next_y;
        ++i;
        if (i == longest_path - 1)
            stop = true;
    }
    dead = dead || rose;
    if (!dead && !left) {
        p.positions[i] = Vector(x, y);
        p.heights[i] = h;
        p.rises[i] = 0.0f;
        ++i;
        p.position = Vector(x, y);
    } else {
        p.position = Vector(last_x, last_y);
    }
    p.path_length = i;
    p.total_steps += i;
    goes_on = goes_on && !dead;
    p.dead = dead ? 1 : 0;
    p.stopped = goes_on ? 0 : 1;
    return goes_on;
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

/// Counts of a cell: the sum of the weights in the lower half, the number of visits in the upper one.
inline constexpr std::uint64_t one_visit = std::uint64_t{1} << 32;

/// A cell that nobody else settles, or none.
inline constexpr std::uint32_t no_cell = 0xFFFFFFFFu;

/// Goes along the last piece of a particle's path and adds the changes that it wants to the cells' sums. Each cell that
/// it is the first to come to it puts down in `changed`, where a piece has `longest_path` entries.
inline void carve(Particle& p, const Setting& s, std::int64_t* delta_sum, std::uint64_t* delta_count,
                  std::uint32_t* changed) {
    const int count = static_cast<int>(p.path_length);
    const int end = count - 1;
    const float* H = p.heights;
    const float half_inverse_cell = s.inverse_cell * 0.5f;
    for (int i = 0; i < count; ++i) {
        const float h = H[i];
        const float prev = H[maximum(i - 1, 0)];
        const float next = H[minimum(i + 1, end)];
        const float next2 = H[minimum(i + 2, end)];
        const float prev2 = H[maximum(i - 2, 0)];

        const float raw_slope = (prev - next) * half_inverse_cell;
        const float slope = maximum(raw_slope, 0.0f);
        const float keep = s.fill_slope_scale * slope < s.fill_tangent ? 1.0f : 0.5f / (4.0f * slope + 1.0f);
        const float sum3 = (prev + h) + next;
        const float mean5 = ((prev2 + sum3) + next2) * 0.2f;
        const float mean3 = sum3 * 0.33333334f;
        const float d3 = mean3 - h;
        const float d5 = mean5 - h;
        const float fill = maximum(maximum(d3, d5), 0.0f);
        const float bed = minimum(d3 < 0.0f && d5 < 0.0f ? mean5 : mean3, h);

        const float ahead = H[end] * 0.05f + next2 * 0.95f;
        const float capacity = s.drop_capacity * (bed - ahead) + s.constant_capacity;
        float deposit = fill * keep;
        if (p.sediment > capacity + fill) {
            if (raw_slope > s.terrace_tangent * 0.8f && raw_slope < s.terrace_tangent * 1.25f)
                deposit += minimum(capacity, p.sediment * s.terrace_share);
            if (raw_slope < s.plain_tangent) {
                const float level = slope < s.plain_tangent * 0.1f ? 100.0f : 1.0f;
                deposit += minimum(capacity, (p.sediment * s.plain_share) * level);
            }
        }
        const float target = bed - capacity;
        const float old = p.surface;
        // The bed comes at least a tenth of the way down to where it should lie.
        const float dropped = minimum(p.sediment, minimum(deposit, (old - target) * 0.9f));
        const float scour = minimum(0.0f, (p.previous_surface - (target + dropped)) * 0.95f);
        p.previous_surface = old;
        p.scoured -= scour;
        p.surface = target + (dropped + scour);
        const float d = p.surface - h;
        // Raising the bed costs more than it gives.
        p.sediment = maximum(p.sediment - (d < 0.0f ? d : d * 1.05f), 0.0f);

        // The point that ends a piece begins the next one: it counts half in each.
        const bool is_end = i == 0 || i == end;
        const bool alive = p.dead == 0;
        float change = d * (!alive ? 0.0f : is_end ? 0.5f : 2.0f);
        if (p.rises[i] > 0.0f)
            change = maximum(change, p.rises[i]);
        const std::uint32_t cell = s.cell_at(p.positions[i].x(), p.positions[i].y());
        atomic_add(delta_sum[cell], fixed(change, s));
        const std::uint64_t before =
            atomic_add(delta_count[cell], one_visit + std::uint64_t{is_end || !alive ? 1u : 2u});
        changed[i] = before == 0 ? cell : no_cell;
    }
    for (int i = count; i < longest_path; ++i)
        changed[i] = no_cell;
}

struct Layers {
    float* height;
    float* flow;
    float* sediment;
    float* wear;
};

/// Changes a cell by the mean of what the particles want of it.
inline void settle(std::uint32_t cell, std::int64_t* delta_sum, std::uint64_t* delta_count, const Layers& layers) {
    const std::uint64_t counts = delta_count[cell];
    const float mean = (static_cast<float>(delta_sum[cell]) * fixed_point_unit) /
                       static_cast<float>(static_cast<std::uint32_t>(counts));
    layers.height[cell] += mean;
    layers.flow[cell] += static_cast<float>(static_cast<std::uint32_t>(counts >> 32));
    layers.sediment[cell] = maximum(0.0f, layers.sediment[cell] + (mean > 0.0f ? mean : mean * 0.95f));
    layers.wear[cell] -= minimum(mean, 0.0f);
    delta_sum[cell] = 0;
    delta_count[cell] = 0;
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
