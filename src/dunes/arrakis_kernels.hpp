// What one cell and one grain of the dune model do: the wind around the large shapes of the terrain, the shelter behind
// crests, saltation (sand carried by the wind in hops, after B. T. Werner's dune model of 1995), avalanches on slopes
// above the angle of repose, and streamlines of the wind.
//
// The grid is a torus for all that moves with the wind and a bounded plane for slopes. Where a function takes a count
// of cells, a GPU's work-item calls it for its one cell and a CPU's for pieces of a row, so that both run the same
// operations and the CPU runs them as vectors.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "grid/atomic.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::arrakis {

/// Steps of the search upwind for what shelters a cell, and hops of a grain in a round.
inline constexpr int search_steps = 16;
inline constexpr int most_hops = 16;

/// A grid at least this wide and high is longer than any hop: 20 times a wind of length 1 and a turn of 0.25.
inline constexpr int longer_than_hops = 32;

/// The constants of a run.
struct RunConstants {
    int columns;
    int rows;
    /// The same, as the torus of positions sees them.
    float width;
    float height;
    /// A cell's width in units of height, and its inverse.
    float cell;
    float inverse_cell;

    std::ptrdiff_t index(int x, int y) const { return static_cast<std::ptrdiff_t>(y) * columns + x; }
};

struct Wind {
    const float* x;
    const float* y;
};

/// The wind over flat ground blows along +x.
inline constexpr float base_wind_x = 1.0f;
inline constexpr float base_wind_y = 0.0f;

/// `a` divided by a length; a vector without length stays as it is.
inline float normalized(float a, float vector_length) {
    return vector_length > 0.0f ? a / vector_length : a;
}

/// fmod(position, size) for positions one period ahead, so that steps back stay positive. On a `wide` grid it takes two
/// subtractions at most, and both are exact. Elsewhere a hop may be longer than the grid, and a remainder below 0 is
/// brought back into it.
template <bool wide>
inline float wrapped(float position, float size) {
    if constexpr (wide) {
        const float rest = position >= size + size ? position - (size + size) : position;
        return rest >= size ? rest - size : rest;
    } else {
        const float rest = sycl::fmod(position, size);
        return rest < 0.0f ? rest + size : rest;
    }
}

/// The cell of a position. Rounding may put a position on the far edge, and NaN in a height makes NaN of positions:
/// both still give a cell of the grid.
inline int cell_at(float x, float y, const RunConstants& s) {
    const int column = minimum(static_cast<int>(x > 0.0f ? x : 0.0f), s.columns - 1);
    const int row = minimum(static_cast<int>(y > 0.0f ? y : 0.0f), s.rows - 1);
    return s.columns * row + column;
}

/// Spreads `value` over the four cells whose centres surround a position. In the outer half cell the weights go to the
/// last row or column: nothing is lost, and nothing wraps around.
inline void atomic_add_bilinear(float* grid, const RunConstants& s, float x, float y, float value) {
    const float u = x - 0.5f;
    const float v = y - 0.5f;
    const int i = clamp_index(static_cast<int>(u > 0.0f ? u : 0.0f), maximum(s.columns - 1, 1));
    const int j = clamp_index(static_cast<int>(v > 0.0f ? v : 0.0f), maximum(s.rows - 1, 1));
    const float fx = minimum(maximum(u - static_cast<float>(i), 0.0f), 1.0f);
    const float fy = minimum(maximum(v - static_cast<float>(j), 0.0f), 1.0f);
    // A grid of one row or column has no second one: both weights go to the first.
    const int right = minimum(i + 1, s.columns - 1);
    const int below = minimum(j + 1, s.rows - 1);
    atomic_add(grid[s.index(i, j)], ((1.0f - fx) * (1.0f - fy)) * value);
    atomic_add(grid[s.index(right, j)], (fx * (1.0f - fy)) * value);
    atomic_add(grid[s.index(i, below)], ((1.0f - fx) * fy) * value);
    atomic_add(grid[s.index(right, below)], (fx * fy) * value);
}

/// The unit wind at a cell, which bends around hills of the blurred terrain. Gradient by the 3-10-3 operator of H.
/// Scharr, normalised by 32, and limited to a slope of 6. With `interior` the columns need no clamp.
template <bool interior>
inline void wind_at(const float* blurred, int x, int y, const RunConstants& s, float& wind_x, float& wind_y) {
    const int left = interior ? x - 1 : maximum(x - 1, 0);
    const int right = interior ? x + 1 : minimum(x + 1, s.columns - 1);
    const float* north = blurred + s.index(0, maximum(y - 1, 0));
    const float* here = blurred + s.index(0, y);
    const float* south = blurred + s.index(0, minimum(y + 1, s.rows - 1));

    const float normalisation = s.inverse_cell * 0.03125f;
    float gx = normalisation * (((north[right] + south[right]) - (north[left] + south[left])) * 3.0f +
                                (here[right] - here[left]) * 10.0f);
    float gy = normalisation *
               -(((north[left] + north[right]) - (south[left] + south[right])) * 3.0f + (north[x] - south[x]) * 10.0f);
    const float bend = length(gx, gy) * 0.25f;
    gx = bend > 1.5f ? gx * 1.5f / bend : gx;
    gy = bend > 1.5f ? gy * 1.5f / bend : gy;

    const float wx = base_wind_x - gx;
    const float wy = base_wind_y - gy;
    const float wind_length = length(wx, wy);
    wind_x = normalized(wx, wind_length);
    wind_y = normalized(wy, wind_length);
}

/// Sand that the wind lifts off a cell: half a cell's width in height and never more than there is. Sand that rounding
/// has left a hair below 0 moves as such, which keeps the sum.
inline float lifted_sand(float sand, float shelter, float cell) {
    return minimum(sand, maximum((cell * 0.5f) * shelter, 0.0f));
}

/// Shelter of `count` cells of a row from `first` on, 1 in the open wind and 0 in full wind shadow: from the steepest
/// rise between a cell and the points that a search upwind passes. Takes the sand that the wind lifts out of the cells.
template <bool wide, int capacity>
inline void find_shelter(int first, int y, int count, const RunConstants& s, const Wind& wind, const float* height,
                         const float* sand, float* shelter, float* sand_change) {
    float px[capacity], py[capacity], rise[capacity];
    int cell[capacity];
    const int row = s.columns * y;
    for (int k = 0; k < count; ++k) {
        px[k] = static_cast<float>(first + k) + 0.5f;
        py[k] = static_cast<float>(y) + 0.5f;
        rise[k] = 0.0f;
        cell[k] = row + first + k;
    }
    for (int step = 1; step <= search_steps; ++step) {
        const auto distance = static_cast<float>(step);
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count; ++k) {
            px[k] = wrapped<wide>((px[k] - wind.x[cell[k]]) + s.width, s.width);
            py[k] = wrapped<wide>((py[k] - wind.y[cell[k]]) + s.height, s.height);
            cell[k] = cell_at(px[k], py[k], s);
            rise[k] = maximum(rise[k], (height[cell[k]] - height[row + first + k]) / distance);
        }
    }
    // A rise of up to a tenth shades nothing, one of 0.27 in full.
    const float low = s.cell * 0.1f;
    const float high = s.cell * 0.27f;
    const float span = s.cell * 0.17000002f;
    TARN_INDEPENDENT_ITERATIONS
    for (int k = 0; k < count; ++k) {
        const int here = row + first + k;
        const float open = 1.0f - (maximum(minimum(rise[k], high), low) - low) / span;
        shelter[here] = open;
        sand_change[here] -= lifted_sand(sand[here], open, s.cell);
    }
}

/// Carries the sand that `find_shelter` lifted off `count` cells of a row from `first` on, a grain for each cell. In
/// the open a grain hops on; the hop from a cell with any shelter is its last, and full shadow throws it far. All hops
/// of a grain have the same length and turn.
template <bool wide, int capacity>
inline void saltation(int first, int y, int count, int round, const RunConstants& s, const Wind& wind, const float* shelter,
                      const float* sand, float* sand_change) {
    float amount[capacity], px[capacity], py[capacity];
    int cell[capacity];
    const int row = s.columns * y;
    int grains = 0;
    for (int k = 0; k < count; ++k) {
        const int here = row + first + k;
        const float lifted = lifted_sand(sand[here], shelter[here], s.cell);
        amount[grains] = lifted;
        cell[grains] = here;
        grains += lifted != 0.0f ? 1 : 0;
    }
    if (grains == 0)
        return;

    float scale[capacity], turn_x[capacity], turn_y[capacity], far[capacity];
    int flying[capacity];
    const std::uint32_t round_seed =
        static_cast<std::uint32_t>(s.columns) * static_cast<std::uint32_t>(s.rows) * static_cast<std::uint32_t>(round);
    TARN_INDEPENDENT_ITERATIONS
    for (int k = 0; k < grains; ++k) {
        const std::uint32_t s1 = xorshift(nonzero_state(static_cast<std::uint32_t>(cell[k]) + round_seed));
        const std::uint32_t s2 = xorshift(s1);
        const std::uint32_t s3 = xorshift(s2);
        const std::uint32_t s4 = xorshift(s3);
        const std::uint32_t s5 = xorshift(s4);
        const std::uint32_t s6 = xorshift(s5);
        px[k] = static_cast<float>(cell[k] - row) + random_number(s4) * 2.3050234e-10f;
        py[k] = static_cast<float>(y) + random_number(s5) * 2.3050234e-10f;
        scale[k] = random_number(s1) * 1.3969839e-10f + 0.4f;
        const float tx = random_number(s2) * unit_scale - 0.5f;
        const float ty = random_number(s3) * unit_scale - 0.5f;
        const float turn_length = length(tx, ty);
        turn_x[k] = normalized(tx, turn_length) * 0.25f;
        turn_y[k] = normalized(ty, turn_length) * 0.25f;
        far[k] = random_number(s6) * 4.656613e-09f;
        flying[k] = 1;
    }
    for (int hop = 0; hop < most_hops; ++hop) {
        int still_flying = 0;
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < grains; ++k) {
            const float left_shelter = shelter[cell[k]];
            const float factor = left_shelter == 0.0f ? far[k] : 1.0f;
            const float step_x = wind.x[cell[k]] * scale[k] + turn_x[k];
            const float step_y = wind.y[cell[k]] * scale[k] + turn_y[k];
            const float next_x = wrapped<wide>((px[k] + step_x * factor) + s.width, s.width);
            const float next_y = wrapped<wide>((py[k] + step_y * factor) + s.height, s.height);
            const bool flies = flying[k] != 0;
            px[k] = flies ? next_x : px[k];
            py[k] = flies ? next_y : py[k];
            cell[k] = cell_at(px[k], py[k], s);
            flying[k] = left_shelter < 1.0f ? 0 : flying[k];
            still_flying |= flying[k];
        }
        if (still_flying == 0)
            break;
    }
    for (int k = 0; k < grains; ++k)
        atomic_add_bilinear(sand_change, s, px[k], py[k], amount[k]);
}

/// How much a fall to a neighbour above `threshold` weighs.
inline float slide_weight(float fall, float threshold) {
    const float steep = fall > threshold ? fall : 0.0f;
    return maximum(steep - threshold, 0.0f) * 0.4f + maximum(steep, 0.0f) * 0.6f;
}

/// Calls visit(offset, nearness) for each of the eight neighbours inside the grid, column by column: where it lies from
/// the cell, and the factor that brings a fall down to unit distance. With `interior` all of them lie inside.
template <bool interior, class Visit>
inline void for_each_neighbour(int x, int y, const RunConstants& s, Visit visit) {
    constexpr float straight = 1.0f;
    constexpr float diagonal = 0.7071f;
    const std::ptrdiff_t columns = s.columns;
    const bool left = interior || x > 0, right = interior || x < s.columns - 1;
    const bool up = interior || y > 0, down = interior || y < s.rows - 1;
    if (left && up)
        visit(-1 - columns, diagonal);
    if (left)
        visit(-1, straight);
    if (left && down)
        visit(-1 + columns, diagonal);
    if (up)
        visit(-columns, straight);
    if (down)
        visit(columns, straight);
    if (right && up)
        visit(1 - columns, diagonal);
    if (right)
        visit(1, straight);
    if (right && down)
        visit(1 + columns, diagonal);
}

/// What one pass of avalanches needs besides the grids. `strength` scales the slides.
struct Pass {
    float threshold;
    float strength;
};

/// The sand that slides off a cell, and the inverse sum of the weights of its neighbours' shares; both 0 where none
/// does.
struct Slide {
    float moved;
    float inverse_sum;
};

template <bool interior>
inline Slide avalanche(int x, int y, const RunConstants& s, const float* height, const float* sand, const Pass& pass) {
    const std::ptrdiff_t here = s.index(x, y);
    float sum = 0.0f;
    float top = 0.0f;
    for_each_neighbour<interior>(x, y, s, [&](std::ptrdiff_t offset, float nearness) {
        const float weight = slide_weight((height[here] - height[here + offset]) * nearness, pass.threshold);
        sum += weight;
        top = maximum(top, weight);
    });
    const float moved = minimum(top / ((top / sum) + 1.0f), sand[here]) * pass.strength;
    const float inverse_sum = 1.0f / sum;
    return {sum > 0.0f ? moved : 0.0f, sum > 0.0f ? inverse_sum : 0.0f};
}

/// What a cell gains and loses by the slides of a pass: its neighbours' weights are worked out once more, from where
/// they stand, so that nobody has to add to somebody else's cell.
template <bool interior>
inline float slid_sand(int x, int y, const RunConstants& s, const float* height, const float* moved,
                       const float* inverse_sum, float threshold) {
    const std::ptrdiff_t here = s.index(x, y);
    float change = 0.0f;
    for_each_neighbour<interior>(x, y, s, [&](std::ptrdiff_t offset, float nearness) {
        const std::ptrdiff_t there = here + offset;
        const float weight = slide_weight((height[there] - height[here]) * nearness, threshold);
        const float share = (weight * moved[there]) * inverse_sum[there];
        change += weight > 0.0f ? share : 0.0f;
    });
    return change - moved[here];
}

/// Draws streamline number `line`: from a random point as many steps along the wind as a sixteenth of the grid's width,
/// with a strength that rises and falls like a tent, from 0 at the ends to 0.7 in the middle.
template <bool wide>
inline void draw_streamline(std::uint32_t line, const RunConstants& s, const Wind& wind, float* wind_trace) {
    const int steps = s.columns >> 4;
    const float half = 0.5f * static_cast<float>(steps);
    const float scale = 2.0f / static_cast<float>(steps);
    const std::uint32_t s1 = xorshift(nonzero_state(line));
    const std::uint32_t s2 = xorshift(s1);
    float x = random_number(s1) * unit_scale * s.width;
    float y = random_number(s2) * unit_scale * s.height;
    int cell = cell_at(x, y, s);
    for (int t = 0; t < steps; ++t) {
        x = wrapped<wide>((x + wind.x[cell]) + s.width, s.width);
        y = wrapped<wide>((y + wind.y[cell]) + s.height, s.height);
        cell = cell_at(x, y, s);
        const float weight = half - sycl::fabs(half - static_cast<float>(t));
        atomic_add_bilinear(wind_trace, s, x, y, weight * (scale * 0.7f));
    }
}

} // namespace tarn::arrakis
