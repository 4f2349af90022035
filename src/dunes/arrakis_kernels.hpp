// What one cell and one grain of the dune model do: the wind around the large shapes of the terrain, the shelter behind
// crests, saltation (sand carried by the wind in hops, after B. T. Werner's dune model of 1995), and streamlines of the
// wind.
//
// The grid is a torus for all that moves with the wind. Where a function takes a count of cells, a GPU's work-item
// calls it for its one cell and a CPU's for parts of rows, so that both run the same operations and the CPU runs them
// as vectors. Its capacity, a constant, bounds the count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "grid/atomic.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/neighbourhood.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::arrakis {

/// Steps of the search upwind for what shelters a cell, and hops of a grain in a round.
inline constexpr int search_steps = 16;
inline constexpr int most_hops = 16;

/// A grid at least this wide and high is longer than any hop: 20 times a wind of length 1 and a turn of 0.25.
inline constexpr int longer_than_hops = 32;

/// More cells than a grain's hops together: 15 of up to 1.25, a last one 20 times as far, and the cell it starts in.
inline constexpr int longer_than_flights = 46;

/// Cells that a CPU takes at a time: few enough that all that is known of them stays in the nearest cache.
inline constexpr int cells_at_a_time = 256;

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

/// The row or column of a coordinate among `size` of them. Rounding may put a position on the far edge, and heights
/// beyond all floats make NaN of it: both still give one of them.
inline int index_of(float coordinate, int size) {
    constexpr float last = 2147483520.0f; // the largest float that an int holds
    return minimum(static_cast<int>(minimum(maximum(0.0f, coordinate), last)), size - 1);
}

inline int cell_at(float x, float y, const RunConstants& s) {
    return s.columns * index_of(y, s.rows) + index_of(x, s.columns);
}

/// The cell whose centre lies above and to the left of a position, and how far the position lies from there towards the
/// next row and column. In the outer half cell it counts as on the last row or column.
struct Corners {
    Corners(float x, float y, const RunConstants& s)
        : column(index_of(x - 0.5f, maximum(s.columns - 1, 1))), row(index_of(y - 0.5f, maximum(s.rows - 1, 1))),
          fx(minimum(maximum((x - 0.5f) - static_cast<float>(column), 0.0f), 1.0f)),
          fy(minimum(maximum((y - 0.5f) - static_cast<float>(row), 0.0f), 1.0f)) {}

    /// What the four cells around the position take of a value: nothing is lost.
    void share(float value, float& upper_left, float& upper_right, float& lower_left, float& lower_right) const {
        upper_left = ((1.0f - fx) * (1.0f - fy)) * value;
        upper_right = (fx * (1.0f - fy)) * value;
        lower_left = ((1.0f - fx) * fy) * value;
        lower_right = (fx * fy) * value;
    }

    int column, row;
    float fx, fy;
};

/// Spreads `value` over the four cells around a position; nothing wraps around. A grid of one row or column has no
/// second one: both shares go to the first.
inline void atomic_add_bilinear(float* grid, const RunConstants& s, float x, float y, float value) {
    const Corners at(x, y, s);
    const int right = minimum(at.column + 1, s.columns - 1), below = minimum(at.row + 1, s.rows - 1);
    float upper_left, upper_right, lower_left, lower_right;
    at.share(value, upper_left, upper_right, lower_left, lower_right);
    atomic_add(grid[s.index(at.column, at.row)], upper_left);
    atomic_add(grid[s.index(right, at.row)], upper_right);
    atomic_add(grid[s.index(at.column, below)], lower_left);
    atomic_add(grid[s.index(right, below)], lower_right);
}

/// The unit wind at a cell, which bends around hills of the blurred terrain. Gradient by the 3-10-3 operator of H.
/// Scharr, normalised by 32, and limited to a slope of 6. With `interior` the columns need no clamp.
template <bool interior>
inline void wind_at(const float* blurred, int x, int y, const RunConstants& s, float& wind_x, float& wind_y) {
    const Neighbourhood n = neighbourhood<interior>(neighbour_rows(blurred, s.columns, s.rows, y), s.columns, x);
    const float normalisation = s.inverse_cell * 0.03125f;
    float gx = normalisation * (((n.c + n.i) - (n.a + n.g)) * 3.0f + (n.f - n.d) * 10.0f);
    float gy = normalisation * -(((n.a + n.c) - (n.g + n.i)) * 3.0f + (n.b - n.h) * 10.0f);
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

/// Calls visit(x, y, count) for the parts of rows that the cells from number `first` to before `last` make up.
template <class Visit>
inline void for_row_parts(int first, int last, const RunConstants& s, Visit visit) {
    while (first < last) {
        const int y = first / s.columns;
        const int x = first - y * s.columns;
        const int count = minimum(last - first, s.columns - x);
        visit(x, y, count);
        first += count;
    }
}

/// Fetches the wind and the height at each `cell`. The wind hardly differs from cell to cell, so that neighbours mostly
/// look at neighbours: their values are fetched together.
template <int capacity>
inline void look(const int* cell, int count, const Wind& wind, const float* height, float* wind_x, float* wind_y,
                 float* seen) {
    const auto look_one_by_one = [&](int first, int end) {
        for (int k = first; k < end; ++k) {
            const int at = one_by_one(cell[k]);
            wind_x[k] = wind.x[at];
            wind_y[k] = wind.y[at];
            seen[k] = height[at];
        }
    };
    if constexpr (capacity < cpu_lanes) {
        look_one_by_one(0, count);
    } else {
        std::uint8_t is_break[capacity];
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count - 1; ++k)
            // The caller has set all cells. NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult)
            is_break[k] = cell[k + 1] - cell[k] != 1;
        constexpr std::uint8_t no_break[cpu_lanes - 1] = {};
        constexpr std::size_t bytes = cpu_lanes * sizeof(float);
        int first = 0;
        for (; first + cpu_lanes <= count; first += cpu_lanes) {
            if (std::memcmp(is_break + first, no_break, sizeof(no_break)) != 0) {
                look_one_by_one(first, first + cpu_lanes);
                continue;
            }
            std::memcpy(wind_x + first, wind.x + cell[first], bytes);
            std::memcpy(wind_y + first, wind.y + cell[first], bytes);
            std::memcpy(seen + first, height + cell[first], bytes);
        }
        look_one_by_one(first, count);
    }
}

/// Shelter of up to `capacity` cells of a row, 1 in the open wind and 0 in full wind shadow: from the steepest rise
/// between a cell and the points that a search upwind passes. `sand_change` becomes what the wind takes away.
template <bool wide, int capacity>
inline void find_shelter(int x, int y, int count, const RunConstants& s, const Wind& wind, const float* height,
                         const float* sand, float* shelter, float* sand_change) {
    float px[capacity], py[capacity], rise[capacity], wx[capacity], wy[capacity], seen[capacity];
    int cell[capacity];
    const int first = s.columns * y + x;
    for (int k = 0; k < count; ++k) {
        px[k] = static_cast<float>(x + k) + 0.5f;
        py[k] = static_cast<float>(y) + 0.5f;
        rise[k] = 0.0f;
        cell[k] = first + k;
    }
    look<capacity>(cell, count, wind, height, wx, wy, seen);
    for (int step = 1; step <= search_steps; ++step) {
        const auto distance = static_cast<float>(step);
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count; ++k) {
            px[k] = wrapped<wide>((px[k] - wx[k]) + s.width, s.width);
            py[k] = wrapped<wide>((py[k] - wy[k]) + s.height, s.height);
            cell[k] = cell_at(px[k], py[k], s);
        }
        look<capacity>(cell, count, wind, height, wx, wy, seen);
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count; ++k)
            rise[k] = maximum(rise[k], (seen[k] - height[first + k]) / distance);
    }
    // A rise of up to a tenth shades nothing, one of 0.27 in full.
    const float low = s.cell * 0.1f;
    const float high = s.cell * 0.27f;
    const float span = s.cell * 0.17000002f;
    TARN_INDEPENDENT_ITERATIONS
    for (int k = 0; k < count; ++k) {
        const float open = 1.0f - (maximum(minimum(rise[k], high), low) - low) / span;
        shelter[first + k] = open;
        sand_change[first + k] = 0.0f - lifted_sand(sand[first + k], open, s.cell);
    }
}

/// Carries the sand that the wind has lifted off up to `capacity` cells of a row, a grain for each cell. In the open a
/// grain hops on; the hop from a cell with any shelter is its last, and full shadow throws it far. All hops of a grain
/// have the same length and turn. Calls land(cell, x, y, amount) with the cell that a grain comes from.
template <bool wide, int capacity, class Land>
inline void saltation(int x, int y, int count, int round, const RunConstants& s, const Wind& wind, const float* shelter,
                      const float* sand, Land land) {
    int source[capacity], cell[capacity];
    const int row = s.columns * y;
    int grains = 0;
    for (int k = 0; k < count; ++k) {
        const int here = row + x + k;
        source[grains] = here;
        cell[grains] = here;
        grains += lifted_sand(sand[here], shelter[here], s.cell) != 0.0f ? 1 : 0;
    }
    if (grains == 0)
        return;

    float px[capacity], py[capacity], scale[capacity], turn_x[capacity], turn_y[capacity], far[capacity];
    float open[capacity], wx[capacity], wy[capacity];
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
    for (int hop = 0; hop < most_hops && grains > 0; ++hop) {
        for (int k = 0; k < grains; ++k) {
            const int at = one_by_one(cell[k]);
            open[k] = shelter[at];
            wx[k] = wind.x[at];
            wy[k] = wind.y[at];
        }
        int still_flying = 0;
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < grains; ++k) {
            const float factor = open[k] == 0.0f ? far[k] : 1.0f;
            const float step_x = wx[k] * scale[k] + turn_x[k];
            const float step_y = wy[k] * scale[k] + turn_y[k];
            const float next_x = wrapped<wide>((px[k] + step_x * factor) + s.width, s.width);
            const float next_y = wrapped<wide>((py[k] + step_y * factor) + s.height, s.height);
            const bool flies = flying[k] != 0;
            px[k] = flies ? next_x : px[k];
            py[k] = flies ? next_y : py[k];
            cell[k] = cell_at(px[k], py[k], s);
            flying[k] = open[k] < 1.0f ? 0 : flying[k];
            still_flying += flying[k];
        }
        const bool is_last = hop + 1 == most_hops;
        if (4 * still_flying > 3 * grains && !is_last)
            continue;
        // Those that have landed make room.
        int kept = 0;
        for (int k = 0; k < grains; ++k) {
            if (flying[k] == 0 || is_last) {
                land(source[k], px[k], py[k], lifted_sand(sand[source[k]], shelter[source[k]], s.cell));
                continue;
            }
            source[kept] = source[k];
            cell[kept] = cell[k];
            px[kept] = px[k];
            py[kept] = py[k];
            scale[kept] = scale[k];
            turn_x[kept] = turn_x[k];
            turn_y[kept] = turn_y[k];
            far[kept] = far[k];
            flying[kept] = 1;
            ++kept;
        }
        grains = kept;
    }
}

/// Where the grains from each cell have landed.
struct Landings {
    const float* x;
    const float* y;
};

/// Lays down what has landed in the rows from `first` to before `last`, in the order of the cells that it comes from:
/// whoever shares the work, the sums are the same.
inline void lay_down(int first, int last, const RunConstants& s, const Landings& landings, const float* shelter,
                     const float* sand, float* sand_change) {
    const auto add = [&](int row, int column, float share) {
        if (row >= first && row < last)
            sand_change[s.index(column, row)] += share;
    };
    for (int y = 0; y < s.rows; ++y) {
        // How far the row lies behind the first one from which grains come as far as here, around the torus.
        const int ahead = y - (first - longer_than_flights);
        const int distance = ahead < 0 ? ahead + s.rows : ahead >= s.rows ? ahead - s.rows : ahead;
        if (distance >= (last - first) + 2 * longer_than_flights)
            continue;
        for (int x = 0; x < s.columns; x += cells_at_a_time) {
            const std::ptrdiff_t cells = s.index(x, y);
            const int count = minimum(cells_at_a_time, s.columns - x);
            float amount[cells_at_a_time], px[cells_at_a_time], py[cells_at_a_time];
            int lands_here[cells_at_a_time];
            TARN_INDEPENDENT_ITERATIONS
            for (int k = 0; k < count; ++k) {
                amount[k] = lifted_sand(sand[cells + k], shelter[cells + k], s.cell);
                const int row = index_of(landings.y[cells + k] - 0.5f, maximum(s.rows - 1, 1));
                lands_here[k] = (amount[k] != 0.0f) & (row >= first - 1) & (row < last);
            }
            int grains = 0;
            for (int k = 0; k < count; ++k) {
                amount[grains] = amount[k];
                px[grains] = landings.x[cells + k];
                py[grains] = landings.y[cells + k];
                grains += lands_here[k];
            }
            int column[cells_at_a_time], row[cells_at_a_time];
            float shares[4][cells_at_a_time];
            TARN_INDEPENDENT_ITERATIONS
            for (int k = 0; k < grains; ++k) {
                // Grains are set by the loop above. NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage)
                const Corners at(px[k], py[k], s);
                column[k] = at.column;
                row[k] = at.row;
                at.share(amount[k], shares[0][k], shares[1][k], shares[2][k], shares[3][k]);
            }
            for (int k = 0; k < grains; ++k) {
                const int right = minimum(column[k] + 1, s.columns - 1), below = minimum(row[k] + 1, s.rows - 1);
                add(row[k], column[k], shares[0][k]);
                add(row[k], right, shares[1][k]);
                add(below, column[k], shares[2][k]);
                add(below, right, shares[3][k]);
            }
        }
    }
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
