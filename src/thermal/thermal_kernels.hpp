// What one cell of the thermal simulation does: loosen ground on slopes that are too steep, work out how much loose
// cover it sheds, and take in what its neighbours grids. Plain functions serve most iterations; directional ones, which
// bias the slide by a vector field drawn from the slope, finish the finest level.
#pragma once

#include <cstddef>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "grid/launch_cells.hpp"
#include "grid/neighbourhood.hpp"
#include "grid/numeric.hpp"

namespace tarn::thermal {

/// The constants of a level's iterations. Slopes are in units of height per cell unless they say otherwise.
struct LevelConstants {
    int columns;
    int rows;
    /// A cell's width in units of height, and its inverse, which turns a fall per cell into a true slope.
    float scale;
    float inverse_scale;
    /// The true slope above which ground is loosened, and the same as a fall per cell.
    float talus;
    float talus_step;
    /// How far loosening follows slope and convex curvature.
    float bias_a;
    float bias_b;
    float erosion_rate;
    float absorption;

    std::ptrdiff_t index(int x, int y) const { return static_cast<std::ptrdiff_t>(y) * columns + x; }
    bool is_border(int x, int y) const { return x == 0 || x >= columns - 1 || y == 0 || y >= rows - 1; }
};

inline constexpr float plain_loosening = 0.0044f;
inline constexpr float directional_loosening = 0.0026399998f;
/// Share of the possible move that an iteration makes.
inline constexpr float plain_move = 0.2f;
inline constexpr float directional_move = 0.14f;

struct Slope {
    float slope;
    /// How far the cell stands above the mean of its neighbours, sides counting twice as much as corners.
    float curvature;
    /// The gradient, which points up the slope.
    float x;
    float y;
};

/// Slope and curvature by the 3-10-3 operator of H. Scharr, normalised by 32. On a peak or ridge, where central
/// differences cancel, the fall to the lowest neighbour gives a slope all the same.
inline Slope find_slope_and_curvature(const Neighbourhood& n) {
    Slope result;
    result.curvature = n.e - (((n.d + n.b) + n.h + n.f) * 0.16666667f + (((n.a + n.c) + n.g) + n.i) * 0.083333336f);
    result.x = (((n.c + n.i) - (n.a + n.g)) * 3.0f + (n.f - n.d) * 10.0f) * 0.03125f;
    result.y = -(((n.a + n.c) - (n.g + n.i)) * 3.0f + (n.b - n.h) * 10.0f) * 0.03125f;
    const float drop = maximum(maximum(maximum(maximum(n.e - n.a, n.e - n.c), maximum(n.e - n.g, n.e - n.i)) * 0.7071f,
                                       maximum(maximum(n.e - n.b, n.e - n.d), maximum(n.e - n.f, n.e - n.h))),
                               0.0f);
    result.slope = maximum(length(result.x, result.y), drop * 0.7f);
    return result;
}

/// How much ground turns into cover at a cell under `depth` of it. Cover shields the ground, and no more is loosened
/// than the slope's own fall. `rate` is one of the loosening constants.
inline float loosened(const Slope& slope, float depth, float rate, float mask, const LevelConstants& s) {
    const float steepness = slope.slope * s.inverse_scale;
    const float curvature = slope.curvature * s.inverse_scale;
    const float a = 1.0f - s.bias_a;
    const float convex = (a + s.bias_a * 1.6f) * ((curvature * s.bias_a) * (s.bias_a * 13.0f + 7.0f) + 1.0f);
    const float v = curvature > 0.0f ? convex : a;
    const float r = steepness > s.talus ? a + s.bias_b * (v * steepness - a) : 0.0f;
    return minimum(((r * s.scale) * (s.erosion_rate * rate)) * maximum(0.0f, 1.0f - (depth * 0.15f) * s.inverse_scale),
                   steepness * s.scale) *
           mask;
}

struct Bias {
    float x;
    float y;
};

/// The field that biases the slide: it takes a tilt of just the talus off a slope, so that a surface at the talus
/// rests, and fades on steeper and on gentler ground.
inline Bias direction_of(const Slope& slope, const LevelConstants& s) {
    const float steepness = slope.slope * s.inverse_scale;
    const float q = s.talus / steepness;
    const float p = steepness > s.talus ? q * q * q : q;
    const bool active = steepness > s.talus * 0.5f;
    return {active ? slope.x * p : 0.0f, active ? slope.y * p : 0.0f};
}

/// Nearness of the neighbour at (dx, dy): brings a fall down to unit distance.
constexpr float nearness(int dx, int dy) {
    return dx == 0 || dy == 0 ? 1.0f : 0.7071f;
}

/// On which sides of a cell the grid goes on.
struct Sides {
    bool left;
    bool right;
    bool up;
    bool down;
};

template <bool interior>
inline Sides sides_of(int x, int y, const LevelConstants& s) {
    return {interior || x > 0, interior || x < s.columns - 1, interior || y > 0, interior || y < s.rows - 1};
}

/// The sum of the falls from a cell to its lower neighbours inside the grid, row by row.
inline float sum_of_falls(const Neighbourhood& n, const Sides& inside) {
    float sum = 0.0f;
    const auto add = [&](float neighbour, float near, bool is_inside) {
        sum += kept_if(is_inside, maximum((n.e - neighbour) * near, 0.0f));
    };
    add(n.a, nearness(-1, -1), inside.up && inside.left);
    add(n.b, nearness(0, -1), inside.up);
    add(n.c, nearness(1, -1), inside.up && inside.right);
    add(n.d, nearness(-1, 0), inside.left);
    add(n.f, nearness(1, 0), inside.right);
    add(n.g, nearness(-1, 1), inside.down && inside.left);
    add(n.h, nearness(0, 1), inside.down);
    add(n.i, nearness(1, 1), inside.down && inside.right);
    return sum;
}

/// The same with the directional bias, for a cell off the border, and column by column: the order shows in the last
/// bits of a sum.
inline float sum_of_biased_falls(const Neighbourhood& n, const Bias& bias) {
    float sum = 0.0f;
    const auto add = [&](float neighbour, int dx, int dy) {
        const float fall = (n.e - neighbour) + (static_cast<float>(dx) * bias.x + static_cast<float>(dy) * bias.y);
        sum += maximum(fall * nearness(dx, dy), 0.0f);
    };
    add(n.a, -1, -1);
    add(n.d, -1, 0);
    add(n.g, -1, 1);
    add(n.b, 0, -1);
    add(n.h, 0, 1);
    add(n.c, 1, -1);
    add(n.f, 1, 0);
    add(n.i, 1, 1);
    return sum;
}

/// The grids of a level that loosening works on.
struct LoosenGrids {
    const float* heights;
    float* depth;
    float* wear;
    float* drop_sum;
    /// The directional bias; null in plain iterations.
    float* direction_x;
    float* direction_y;
    /// Null without an erosion mask.
    const float* mask;
};

/// What loosening finds out about a cell.
struct Loosened {
    float loose;
    float drop_sum;
    Bias bias;
};

template <bool directional, bool masked, bool interior>
inline Loosened loosen_cell(const LoosenGrids& grids, int x, int y, const LevelConstants& s) {
    const std::ptrdiff_t i = s.index(x, y);
    const Neighbourhood n = neighbourhood<interior>(grids.heights, s.columns, s.rows, x, y);
    const Slope slope = find_slope_and_curvature(n);
    Loosened result{};
    result.loose = loosened(slope, grids.depth[i], directional ? directional_loosening : plain_loosening,
                            masked ? grids.mask[i] : 1.0f, s);
    if constexpr (directional) {
        result.bias = direction_of(slope, s);
        result.drop_sum = kept_if(interior || !s.is_border(x, y), sum_of_biased_falls(n, result.bias));
    } else {
        result.drop_sum = kept_if(slope.slope > s.talus_step, sum_of_falls(n, sides_of<interior>(x, y, s)));
    }
    return result;
}

/// Loosens ground at the cells from `first` to before `last` of a row, and works out what each of them sheds. Shedding
/// looks at no cell's cover but its own, so one pass does both.
template <bool directional, bool masked, bool interior>
inline void loosen_row(const LoosenGrids& grids, int first, int last, int y, const LevelConstants& s) {
    constexpr int piece = interior ? 256 : 1;
    float loose[piece], sum[piece];
    for (int start = first; start < last; start += piece) {
        const int count = minimum(piece, last - start);
        const std::ptrdiff_t row = s.index(start, y);
        for_overlapping(count, [&](int k) {
            const Loosened cell = loosen_cell<directional, masked, interior>(grids, start + k, y, s);
            loose[k] = cell.loose;
            sum[k] = cell.drop_sum;
            if constexpr (directional) {
                grids.direction_x[row + k] = cell.bias.x;
                grids.direction_y[row + k] = cell.bias.y;
            }
        });
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count; ++k) {
            // The loop above has set all that is read here. NOLINTNEXTLINE(clang-analyzer-core.uninitialized.Assign)
            grids.depth[row + k] += loose[k];
            grids.wear[row + k] += loose[k];
            grids.drop_sum[row + k] = sum[k];
        }
    }
}

/// The grids of a level that the move works on.
struct MoveGrids {
    const float* heights;
    const float* depth;
    /// Sum of the falls of each cell; 0 where nothing is grids.
    const float* drop_sum;
    /// The directional bias; null in plain iterations.
    const float* direction_x;
    const float* direction_y;
    /// Null without an absorption mask.
    const float* mask;
    float* next_heights;
    float* next_depth;
};

/// What a cell off the border takes in: each neighbour's shed cover is divided among that one's lower neighbours in
/// proportion to the falls.
template <bool directional>
inline float inflow(const MoveGrids& grids, int x, int y, const LevelConstants& s) {
    const std::ptrdiff_t here = s.index(x, y);
    const float c = grids.heights[here];
    float sum = 0.0f;
    const auto add = [&](int dx, int dy) {
        const std::ptrdiff_t there = here + static_cast<std::ptrdiff_t>(dy) * s.columns + dx;
        float rest = c;
        if constexpr (directional)
            rest = c + (static_cast<float>(dx) * grids.direction_x[there] +
                        static_cast<float>(dy) * grids.direction_y[there]);
        const float drop_sum = grids.drop_sum[there];
        const float share =
            (maximum((grids.heights[there] - rest) * nearness(dx, dy), 0.0f) * minimum(grids.depth[there], drop_sum)) /
            drop_sum;
        sum += kept_if(drop_sum > 0.0f, share);
    };
    // Written out: a loop that a compiler does not unroll keeps the row from being vectorised.
    add(-1, -1);
    add(-1, 0);
    add(-1, 1);
    add(0, -1);
    add(0, 1);
    add(1, -1);
    add(1, 0);
    add(1, 1);
    return sum;
}

/// The change of a cell's surface and cover. `outflow` is what it sheds, as a negative number.
inline float change(float inflow, float outflow, float mask, float move, const LevelConstants& s) {
    return (inflow * (1.0f - mask * s.absorption) + outflow) * move;
}

/// Moves what the cells shed, for the cells from `first` to before `last` of a row.
template <bool directional, bool masked, bool interior>
inline void move_row(const MoveGrids& grids, int first, int last, int y, const LevelConstants& s) {
    for_overlapping(last - first, [&](int k) {
        const int x = first + k;
        const std::ptrdiff_t i = s.index(x, y);
        float arriving = 0.0f;
        if (interior || !s.is_border(x, y))
            arriving = inflow<directional>(grids, x, y, s);
        const float outflow = -minimum(grids.depth[i], grids.drop_sum[i]);
        const float v =
            change(arriving, outflow, masked ? grids.mask[i] : 1.0f, directional ? directional_move : plain_move, s);
        grids.next_heights[i] = grids.heights[i] + v;
        grids.next_depth[i] = grids.depth[i] + v;
    });
}

/// The constants of a fold-back.
struct FoldBack {
    /// Width of a coarse cell in units of height.
    float scale;
    float absorption;
};

/// The fine cell's new surface and cover from the upsampled coarse `surface` and `cover`, sixteen times the upsampled
/// wear and the fine cell's own detail. Detail lies buried in thick cover; where it stands out, worn ground keeps less
/// of it.
inline void fold_back(float surface, float cover, float wear_sum, float detail, const FoldBack& f, float& heights,
                      float& depth) {
    const float kept = minimum(f.scale / maximum(wear_sum * 0.125f, f.scale), 1.0f);
    const float rest = cover - detail;
    const bool covered = cover > 0.0f;
    const bool buried = rest > 0.0f;
    const float exposed = surface + (detail - cover) * kept;
    heights = covered ? (buried ? surface : exposed) : surface + detail;
    depth = covered ? (buried ? rest : 0.0f) : cover;
}

/// The cover that is absorbed where the fine absorption mask stands above the coarse one by `excess`.
inline float absorbed(float depth, float excess, const FoldBack& f) {
    const float share = minimum(maximum(excess, 0.0f) * 2.0f, 1.0f) * f.absorption;
    return share > 0.0f && depth > 0.0f ? depth * share : 0.0f;
}

} // namespace tarn::thermal
