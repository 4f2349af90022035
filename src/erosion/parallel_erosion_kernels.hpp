// What one particle and one cell of the hydraulic erosion do. A particle walks downhill in pieces of at most twelve
// points and notes the heights on its way. Then it goes along the piece again and decides how deep the bed should lie
// at each point: it knows the heights ahead by then. Cells take the mean of what all particles want of them. Shaping
// works on all cells: it wears steep faces back, pulls each cell towards its lower neighbours and smooths.
//
// Positions are in cells, with cell centres at +0.5. Heights are in the units of the grid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "erosion/parallel_erosion.hpp"
#include "grid/atomic.hpp"
#include "grid/neighbourhood.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::parallel_erosion {

inline constexpr std::uint32_t direction_count = 32;

/// `surface` before the first walk, and the height above which it has been set.
inline constexpr float no_surface = -999999.9f;
inline constexpr float least_surface = -999999.0f;

/// A particle that begins its life at a random place.
inline Particle newborn(std::uint32_t seed, std::uint32_t id, const PathRule& rule) {
    const std::uint32_t s1 = xorshift(nonzero_state(seed * 111143u + id));
    const std::uint32_t s2 = xorshift(s1);
    Particle p{};
    p.x = random_number(s1) * unit_scale * static_cast<float>(rule.columns);
    p.y = random_number(s2) * unit_scale * static_cast<float>(rule.rows);
    p.surface = no_surface;
    p.direction_index = id % direction_count;
    return p;
}

/// Whether particle number `id` is born on a map of probabilities.
inline bool is_born(const Particle& p, std::uint32_t seed, std::uint32_t id, const float* spawn_map,
                    const PathRule& rule) {
    // A random number may be 1: its place is the far edge, one past the last cell.
    const float x = minimum(p.x, static_cast<float>(rule.columns - 1));
    const float y = minimum(p.y, static_cast<float>(rule.rows - 1));
    return spawn_map[rule.cell_at(x, y)] > random_number(xorshift(nonzero_state(seed * 111187u + id))) * unit_scale;
}

struct Sample {
    float height;
    /// Change of the height per cell.
    float gradient_x;
    float gradient_y;
};

/// Height and gradient at a position inside the margins, bilinear between cell centres.
inline Sample sample(const float* height, float x, float y, const PathRule& rule) {
    const float u = x - 0.5f;
    const float v = y - 0.5f;
    const int i = static_cast<int>(u);
    const int j = static_cast<int>(v);
    const float fx = u - static_cast<float>(i);
    const float fy = v - static_cast<float>(j);
    const int at = j * rule.columns + i; // 32 bits, for vectors of indices
    const float a = height[at], b = height[at + 1];
    const float c = height[at + rule.columns], d = height[at + rule.columns + 1];
    return {(a * (1.0f - fx) + b * fx) * (1.0f - fy) + (c * (1.0f - fx) + d * fx) * fy,
            (b - a) * (1.0f - fy) + (d - c) * fy, (c - a) * (1.0f - fx) + (d - b) * fx};
}

/// The heights around a point of a path, in the order in which the particle comes to them, and the last one.
struct PathHeights {
    float before2;
    float before;
    float here;
    float after;
    float after2;
    float last;
};

/// Where the bed should lie at a point of a path.
struct Bed {
    float height;
    /// How much higher that is than the ground.
    float change;
};

/// The bed that a particle leaves at a point: the smoothed path less what the water can carry, plus what it drops.
/// `load` is the sediment that it brings, `surface` and `previous_surface` are the beds that it left at the two points
/// before.
inline Bed carved_bed(const PathHeights& path, float load, float surface, float previous_surface,
                      const PathRule& rule) {
    const float raw_slope = (path.before - path.after) * rule.half_inverse_cell;
    const float slope = maximum(raw_slope, 0.0f);
    const float sum3 = (path.before + path.here) + path.after;
    const float mean5 = ((path.before2 + sum3) + path.after2) * 0.2f;
    const float mean3 = sum3 * 0.33333334f;
    const float d3 = mean3 - path.here;
    const float d5 = mean5 - path.here;
    const float fill = maximum(maximum(d3, d5), 0.0f);
    const float keep =
        blend(mask_of(rule.fill_slope_scale * slope < rule.fill_tangent), 1.0f, 0.5f / (4.0f * slope + 1.0f));
    const float smooth = minimum(blend(mask_of(d3 < 0.0f) & mask_of(d5 < 0.0f), mean5, mean3), path.here);

    const float ahead = path.last * 0.05f + path.after2 * 0.95f;
    const float capacity = rule.drop_capacity * (smooth - ahead) + rule.constant_capacity;
    const Mask overloaded = mask_of(load > capacity + fill);
    const Mask on_terrace = overloaded & mask_of(raw_slope > rule.terrace_tangent * 0.8f) &
                            mask_of(raw_slope < rule.terrace_tangent * 1.25f);
    const Mask on_plain = overloaded & mask_of(raw_slope < rule.plain_tangent);
    // Level ground takes as much as there is.
    const float on_level = blend(mask_of(slope < rule.plain_tangent * 0.1f), 100.0f, 1.0f);
    float deposit = fill * keep;
    deposit = blend(on_terrace, deposit + minimum(capacity, load * rule.terrace_share), deposit);
    deposit = blend(on_plain, deposit + minimum(capacity, (load * rule.plain_share) * on_level), deposit);

    const float target = smooth - capacity;
    // The bed comes at least a tenth of the way down from the last one to where it should lie.
    const float dropped = minimum(load, minimum(deposit, (surface - target) * 0.9f));
    const float scour = minimum(0.0f, (previous_surface - (target + dropped)) * 0.95f);
    const float height = target + (dropped + scour);
    return {height, height - path.here};
}

/// Sums of changes are in fixed point, so that they do not depend on the order of the adds.
inline constexpr float fixed_point = 8388608.0f;
inline constexpr float fixed_point_unit = 1.1920929e-07f;

/// A change as a term of a fixed-point sum. What is no number changes nothing.
inline std::int64_t fixed(float change, const PathRule& rule) {
    const float least = change > -rule.largest_change ? change : -rule.largest_change;
    const float bounded = minimum(least, rule.largest_change);
    return change == change ? static_cast<std::int64_t>(bounded * fixed_point) : 0;
}

/// Ends a list of cells that is not full.
inline constexpr std::uint32_t no_cell = 0xFFFFFFFFu;

/// A visit in the counts of a wish, besides its weight.
inline constexpr std::uint32_t one_visit = 1u << 16;

/// The rows of a grid in bands. On a CPU particles do not add to the cells, which takes atomic operations: they only
/// note what they want, and one work-item a band collects it.
struct Bands {
    static constexpr int most = 64;

    int count;
    int last_row;
    float rows_per_cell;

    Bands(const PathRule& rule, std::size_t blocks)
        : count(static_cast<int>(minimum(blocks, std::size_t{most}))), last_row(rule.rows - 1),
          rows_per_cell(1.0f / static_cast<float>(rule.columns)) {}

    /// Where each band begins in a list sorted by bands, and where the last one ends.
    std::size_t starts() const { return static_cast<std::size_t>(count) + 1; }

    /// `of_row` has the band of each row. A cell next to the border of a row may count among the next row's.
    std::uint32_t of(std::uint32_t cell, const std::uint32_t* of_row) const {
        return of_row[minimum(static_cast<int>(static_cast<float>(static_cast<int>(cell)) * rows_per_cell), last_row)];
    }
};

inline std::int64_t sum_of(const CellState& state) {
    return static_cast<std::int64_t>(std::uint64_t{state.change_high} << 32 | state.change_low);
}

/// Adds to the sums of a cell that no other work-item changes.
inline void add_wish(CellState& state, const Wish& wish) {
    const auto sum = static_cast<std::uint64_t>(sum_of(state) + wish.change);
    state.change_low = static_cast<std::uint32_t>(sum);
    state.change_high = static_cast<std::uint32_t>(sum >> 32);
    state.weight += wish.counts % one_visit;
    state.visits += wish.counts / one_visit;
}

/// Adds to the sums of a cell that other work-items change as well. Whether it is the first of this pass. Not all GPUs
/// add 64 bits at once, but halves do as well: whoever makes the lower one overflow carries over.
inline bool atomic_add_wish(CellState& state, const Wish& wish) {
    const auto change = static_cast<std::uint64_t>(wish.change);
    const auto low = static_cast<std::uint32_t>(change);
    const bool carries = atomic_add(state.change_low, low) > ~low;
    if (const std::uint32_t high = static_cast<std::uint32_t>(change >> 32) + (carries ? 1u : 0u); high != 0)
        atomic_add(state.change_high, high);
    atomic_add(state.visits, wish.counts / one_visit);
    return atomic_add(state.weight, wish.counts % one_visit) == 0;
}

/// Particles on one piece of their paths, all in step, each in a lane of its own: `load`, then `step` point by point,
/// `finish`, `carve` point by point, `sort_wishes` or `put_down`, and `store`.
template <int lanes>
struct Walkers {
    // What a particle is, as in its record.
    float x[lanes];
    float y[lanes];
    std::uint32_t total_steps[lanes];
    std::uint32_t uphill_steps[lanes];
    std::uint32_t direction_index[lanes];
    float surface[lanes];
    float sediment[lanes];

    // What it is during the piece.
    float height[lanes];
    float direction_x[lanes];
    float direction_y[lanes];
    float previous_surface[lanes];
    Mask is_inside[lanes];
    Mask is_walking[lanes];
    /// The last step was a rise.
    Mask has_risen[lanes];
    Mask has_left[lanes];
    /// Ended by the terrain: it moves ground only where the path rises.
    Mask is_dead[lanes];
    /// Takes part in the next pass.
    Mask goes_on[lanes];
    /// The last point of the piece; -1 for none.
    int end[lanes];
    /// What it wants of the cell that it is in, since it came there: changes in fixed point, weights and visits.
    std::int64_t sum[lanes];
    std::uint32_t tally[lanes];

    // The points. A rising step stands at the height that it rises to; behind the end the last height goes on.
    std::uint32_t cell[longest_path][lanes];
    float heights[longest_path + 2][lanes];
    float rises[longest_path][lanes];
    /// `sum` and `tally` up to a point.
    std::int64_t changes[longest_path][lanes];
    std::uint32_t counts[longest_path][lanes];
    /// The point is the last one in its cell.
    Mask leaves[longest_path][lanes];
    /// How many steps the longest of the pieces has.
    int steps;

    /// Takes up `count` particles. Lanes without one, and those of particles in the margins, do not walk: they look at
    /// a corner, and at nothing of what they find there.
    void load(const Particle* particles, int count, const float* ground, const PathRule& rule) {
        for (int k = 0; k < lanes; ++k) {
            const Particle& p = particles[minimum(k, count - 1)];
            x[k] = p.x;
            y[k] = p.y;
            total_steps[k] = p.total_steps;
            uphill_steps[k] = p.uphill_steps;
            direction_index[k] = p.direction_index;
            surface[k] = p.surface;
            sediment[k] = p.sediment;
        }
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            const Mask in = rule.is_inside(x[k], y[k]) & mask_of(k < count);
            x[k] = blend(in, x[k], 0.5f);
            y[k] = blend(in, y[k], 0.5f);
            const Sample here = sample(ground, x[k], y[k], rule);
            const float steepness = length(here.gradient_x, here.gradient_y);
            height[k] = here.height;
            direction_x[k] = -here.gradient_x / steepness;
            direction_y[k] = -here.gradient_y / steepness;
            surface[k] = blend(mask_of(surface[k] > least_surface), surface[k], here.height);
            previous_surface[k] = here.height;
            is_inside[k] = in;
            is_walking[k] = goes_on[k] = in & mask_of(steepness > 0.0f);
            has_risen[k] = has_left[k] = is_dead[k] = 0;
            end[k] = 0;
            sum[k] = 0;
            tally[k] = 0;
        }
    }

    /// Notes point `i` and goes on to the next one. Whether any particle still walks.
    bool step(int i, const float* ground, const float* directions, const PathRule& rule) {
        Mask any = 0;
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            const float next_x = x[k] + direction_x[k];
            const float next_y = y[k] + direction_y[k];
            const Mask moves = is_walking[k];
            const Mask in = moves & rule.is_inside(next_x, next_y);
            const Sample there = sample(ground, blend(in, next_x, 0.5f), blend(in, next_y, 0.5f), rule);
            const float steepness = length(there.gradient_x, there.gradient_y);
            const std::uint32_t next_index = (direction_index[k] + 1) % direction_count;
            // Water that has just climbed runs straight on.
            const float inertia = blend(has_risen[k], 15.0f, 0.5f);
            const float dx =
                inertia * direction_x[k] + 0.25f * directions[2 * next_index] - there.gradient_x / steepness;
            const float dy =
                inertia * direction_y[k] + 0.25f * directions[2 * next_index + 1] - there.gradient_y / steepness;
            const float norm = length(dx, dy);
            const Mask climbs = in & mask_of(there.height >= height[k]);
            // The fifth climb ends a particle, and so does one within its first three steps.
            const Mask fatal =
                climbs & (mask_of(uphill_steps[k] >= 4) | mask_of(total_steps[k] + static_cast<std::uint32_t>(i) <= 2));

            cell[i][k] = rule.cell_at(x[k], y[k]);
            heights[i][k] = blend(climbs, there.height, height[k]);
            rises[i][k] = blend(climbs, there.height - height[k], 0.0f);
            x[k] = blend(in, next_x, x[k]);
            y[k] = blend(in, next_y, y[k]);
            height[k] = blend(in, there.height, height[k]);
            direction_x[k] = dx / norm;
            direction_y[k] = dy / norm;
            direction_index[k] = blend(in, next_index, direction_index[k]);
            uphill_steps[k] += climbs & 1u;
            end[k] += static_cast<int>(moves & 1u);
            has_risen[k] = blend(in, climbs, has_risen[k]);
            is_dead[k] |= fatal;
            has_left[k] |= moves & ~in;
            goes_on[k] = blend(moves, in, goes_on[k]);
            is_walking[k] = in & ~fatal & mask_of(steepness > 0.0f);
            any |= is_walking[k];
        }
        return any != 0;
    }

    /// Ends the piece. A particle that has neither died nor left stands on one more point, where its next piece begins.
    void finish(const PathRule& rule) {
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            is_dead[k] |= has_risen[k];
            goes_on[k] &= ~is_dead[k];
            const Mask stands = is_inside[k] & ~is_dead[k] & ~has_left[k];
            end[k] = end[k] - 1 + static_cast<int>(stands & 1u);
            total_steps[k] += static_cast<std::uint32_t>(end[k] + 1);
            cell[steps][k] = rule.cell_at(x[k], y[k]);
            rises[steps][k] = 0.0f;
        }
        for (int i = steps; i < longest_path + 2; ++i)
            for (int k = 0; k < lanes; ++k)
                heights[i][k] = height[k];
    }

    /// Works out the change that the particles want at point `i`, and adds it up as long as they stay in a cell.
    void carve(int i, const PathRule& rule) {
        float change[lanes];
        Mask has_stayed[lanes];
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            const PathHeights path{heights[maximum(i - 2, 0)][k],
                                   heights[maximum(i - 1, 0)][k],
                                   heights[i][k],
                                   heights[i + 1][k],
                                   heights[i + 2][k],
                                   heights[longest_path + 1][k]};
            const Bed bed = carved_bed(path, sediment[k], surface[k], previous_surface[k], rule);
            // Raising the bed costs more than it gives.
            const float used = blend(mask_of(bed.change < 0.0f), bed.change, bed.change * 1.05f);
            const Mask is_point = mask_of(i <= end[k]);
            previous_surface[k] = blend(is_point, surface[k], previous_surface[k]);
            surface[k] = blend(is_point, bed.height, surface[k]);
            sediment[k] = blend(is_point, maximum(sediment[k] - used, 0.0f), sediment[k]);

            // The point that ends a piece begins the next one: it counts half in each.
            const Mask is_end = mask_of(i == 0) | mask_of(i == end[k]);
            const float weighted = bed.change * blend(is_dead[k], 0.0f, blend(is_end, 0.5f, 2.0f));
            change[k] = blend(mask_of(rises[i][k] > 0.0f), maximum(weighted, rises[i][k]), weighted);

            const Mask stayed = mask_of(i > 0) & mask_of(cell[i][k] == cell[maximum(i - 1, 0)][k]);
            tally[k] = one_visit + blend(is_end | is_dead[k], 1u, 2u) + (tally[k] & stayed);
            counts[i][k] = tally[k];
            has_stayed[k] = stayed;
            leaves[i][k] = is_point & (mask_of(i == end[k]) | mask_of(cell[i][k] != cell[minimum(i + 1, steps)][k]));
        }
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k) {
            sum[k] = fixed(change[k], rule) + (sum[k] & -static_cast<std::int64_t>(has_stayed[k] & 1u));
            changes[i][k] = sum[k];
        }
    }

    /// Adds what the particles want to the sums of the cells. `changed` has room for `longest_path` cells a lane and
    /// gets those that nobody has come to before in this pass.
    void put_down(CellState* cells, std::uint32_t* changed) const {
        int listed = 0;
        for (int i = 0; i <= steps; ++i) {
            for (int k = 0; k < lanes; ++k) {
                if (leaves[i][k] != 0 && atomic_add_wish(cells[cell[i][k]], {changes[i][k], counts[i][k], cell[i][k]}))
                    changed[listed++] = cell[i][k];
            }
        }
        if (listed < lanes * longest_path)
            changed[listed] = no_cell;
    }

    /// Writes what the first `count` lanes want to `wishes`, which has room for `longest_path` of them a lane, sorted
    /// by the bands of the cells. `starts` gets where each band begins, and where the last one ends.
    void sort_wishes(int count, const Bands& bands, const std::uint32_t* band_of_row, Wish* wishes,
                     std::uint16_t* starts) const {
        // Behind the last band comes what is not wanted yet, since the particle stays in the cell.
        std::uint8_t band[longest_path][lanes];
        const auto stays = static_cast<std::uint32_t>(bands.count);
        std::uint32_t places[Bands::most + 1] = {};
        for (int i = 0; i <= steps; ++i) {
            TARN_INDEPENDENT_ITERATIONS
            for (int k = 0; k < lanes; ++k)
                band[i][k] = static_cast<std::uint8_t>(blend(leaves[i][k], bands.of(cell[i][k], band_of_row), stays));
            for (int k = 0; k < count; ++k)
                ++places[band[i][k]];
        }
        std::uint32_t before = 0;
        for (std::uint32_t b = 0; b <= stays; ++b) {
            starts[b] = static_cast<std::uint16_t>(before);
            before += std::exchange(places[b], before);
        }
        for (int i = 0; i <= steps; ++i)
            for (int k = 0; k < count; ++k)
                wishes[places[band[i][k]]++] = {changes[i][k], counts[i][k], cell[i][k]};
    }

    /// How many of the particles take part in the next pass.
    std::uint32_t count_survivors() const {
        std::uint32_t count = 0;
        for (int k = 0; k < lanes; ++k)
            count += goes_on[k] & 1u;
        return count;
    }

    /// Writes those that take part in the next pass to `particles`, side by side.
    void store(Particle* particles) const {
        for (int k = 0; k < lanes; ++k)
            if (goes_on[k] != 0)
                *particles++ = {x[k],       y[k],       total_steps[k], uphill_steps[k], direction_index[k],
                                surface[k], sediment[k]};
    }

    /// The whole piece up to the changes.
    void walk_and_carve(const Particle* particles, int count, const float* ground, const float* directions,
                        const PathRule& rule) {
        load(particles, count, ground, rule);
        steps = 0;
        for (bool any = true; any && steps < longest_path - 1; ++steps)
            any = step(steps, ground, directions, rule);
        finish(rule);
        for (int i = 0; i <= steps; ++i)
            carve(i, rule);
    }
};

/// The grids that the settling of a cell changes.
struct Layers {
    float* height;
    float* sediment;
    float* wear;
};

/// The cells that are settled together, none of them twice.
template <int lanes>
struct Settling {
    std::uint32_t cell[lanes];
    std::int64_t change[lanes];
    std::uint32_t weight[lanes];

    /// Takes the sums of a cell off it, for lane `k`.
    void take(std::uint32_t at, CellState& state, int k) {
        constexpr std::uint32_t most_visits = 1u << 30; // leaves room for those of another pass
        cell[k] = at;
        change[k] = sum_of(state);
        weight[k] = state.weight;
        state = {0, 0, 0, minimum(state.visits, most_visits)};
    }

    /// Changes each cell by the mean of what is wanted of it.
    void settle(const Layers& layers) const {
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < lanes; ++k)
            settle(k, layers);
    }

    void settle(int k, const Layers& layers) const {
        const int at = static_cast<int>(cell[k]);
        const float mean = (static_cast<float>(change[k]) * fixed_point_unit) / static_cast<float>(weight[k]);
        layers.height[at] += mean;
        layers.sediment[at] = maximum(0.0f, layers.sediment[at] + blend(mask_of(mean > 0.0f), mean, mean * 0.95f));
        layers.wear[at] -= minimum(mean, 0.0f);
    }
};

/// Settles the cells of a list that has room for `room` of them.
inline void settle_listed(const std::uint32_t* changed, int room, CellState* cells, const Layers& layers) {
    for (int i = 0; i < room && changed[i] != no_cell; ++i) {
        Settling<1> settling;
        settling.take(changed[i], cells[changed[i]], 0);
        settling.settle(layers);
    }
}

/// Settles the cells of a band from the wishes of all blocks of particles, `room` of them a block, sorted by bands.
template <int lanes>
inline void settle_band(int band, const Bands& bands, std::size_t blocks, std::size_t room, const Wish* wishes,
                        const std::uint16_t* starts, CellState* cells, const Layers& layers) {
    const auto for_wishes = [&](auto&& work) {
        for (std::size_t block = 0; block < blocks; ++block) {
            const std::uint16_t* const range = starts + block * bands.starts() + band;
            for (const Wish* wish = wishes + block * room + range[0]; wish != wishes + block * room + range[1]; ++wish)
                work(*wish);
        }
    };
    for_wishes([&](const Wish& wish) { add_wish(cells[wish.cell], wish); });
    Settling<lanes> settling;
    int count = 0;
    for_wishes([&](const Wish& wish) {
        CellState& state = cells[wish.cell];
        const int is_first = state.weight != 0 ? 1 : 0;
        settling.take(wish.cell, state, count);
        count += is_first;
        if (count == lanes) {
            settling.settle(layers);
            count = 0;
        }
    });
    for (int k = 0; k < count; ++k)
        settling.settle(k, layers);
}

/// How far the flow has reached into a cell: four visits reach it in full.
inline float reached(float reach, float visits) {
    return maximum(reach, minimum(visits * 0.25f, 1.0f));
}

/// The change that shaping makes of a cell. With `spreading` it acts only where the flow has reached, and `spread`
/// receives the reach of the cell after it has climbed up steep banks. With `interior` the columns need no clamp.
template <bool spreading, bool interior>
inline float shaped(const float* height, const float* reach, int x, int y, const ShapingRule& rule, float& spread) {
    const NeighbourRows rows = neighbour_rows(height, rule.columns, rule.rows, y);
    const Neighbourhood at = neighbourhood<interior>(rows, rule.columns, x);
    const float here = at.e;

    if constexpr (spreading) {
        const NeighbourRows reach_rows = neighbour_rows(reach, rule.columns, rule.rows, y);
        const Neighbourhood reached = neighbourhood<interior>(reach_rows, rule.columns, x);
        const float diagonal = here - rule.cell * 0.50591373f;
        const float straight = here - rule.cell * 0.35773504f;
        float r = reached.e;
        const auto climb = [&](float neighbour, float limit, float from) {
            r = maximum(r, kept_if(neighbour < limit, from));
        };
        climb(at.a, diagonal, reached.a);
        climb(at.b, straight, reached.b);
        climb(at.c, diagonal, reached.c);
        climb(at.d, straight, reached.d);
        climb(at.f, straight, reached.f);
        climb(at.g, diagonal, reached.g);
        climb(at.h, straight, reached.h);
        climb(at.i, diagonal, reached.i);
        spread = r;
    }

    // The mean drop to the lower neighbours, weighted by their slopes.
    float weights = 0.0f, drops = 0.0f;
    const auto add = [&](float neighbour) {
        const float drop = maximum(0.0f, here - neighbour);
        const float weight = drop / rule.cell;
        weights += weight;
        drops -= weight * drop;
    };
    add(at.a);
    add(at.b);
    add(at.c);
    add(at.d);
    add(at.f);
    add(at.g);
    add(at.h);
    add(at.i);
    const float pull = drops / (weights > 0.0f ? weights : 1.0f);

    // I. Sobel's gradient, normalised by 8.
    const float gx = ((at.c + at.f + at.f) + at.i) - ((at.a + at.d + at.d) + at.g);
    const float gy = ((at.g + at.h + at.h) + at.i) - ((at.a + at.b + at.b) + at.c);
    const float steepness = length(gx * 0.125f, gy * 0.125f);
    const float slope = rule.sharpness * ((1.0f - rule.pull_share) * steepness - rule.pull_share * pull);
    const float mean = ((at.b + at.d + at.f + at.h) + (at.a + at.c + at.g + at.i) * 0.7071f) * 0.1464472f;
    // True slopes: above 0.3 faces wear back, above 1 much faster.
    const float force = maximum(slope - rule.cell * 0.3f, 0.0f) * 0.7f + maximum(slope - rule.cell, 0.0f) * 30.0f +
                        rule.smoothing * (here - mean);
    const float change = maximum(-force, pull) * rule.amount;
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
