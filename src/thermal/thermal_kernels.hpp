// What one cell of the thermal simulation does: loosen ground on slopes that are too steep, work out how much loose
// cover it sheds, and take in what its neighbours shed. Plain functions serve most iterations; directional ones, which
// bias the slide by a vector field drawn from the slope, finish the finest level.
#pragma once

#include <cstddef>

#include <sycl/sycl.hpp>

#include "grid/numeric.hpp"

namespace tarn::thermal {

/// The constants of a level's iterations. Slopes are in units of height per cell unless they say otherwise.
struct Setting {
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

/// Slope and curvature by the 3-10-3 operator of H. Scharr, normalised by 32; the edge cells are repeated beyond the
/// border. On a peak or ridge, where central differences cancel, the fall to the lowest neighbour gives a slope all the
/// same. With `interior` the columns need no clamp.
template <bool interior>
inline Slope find_slope_and_curvature(const float* heights, int x, int y, const Setting& s) {
    const int l = interior ? x - 1 : maximum(x - 1, 0);
    const int r = interior ? x + 1 : minimum(x + 1, s.columns - 1);
    const float* up = heights + s.index(0, maximum(y - 1, 0));
    const float* here = heights + s.index(0, y);
    const float* down = heights + s.index(0, minimum(y + 1, s.rows - 1));
    const float a = up[l], b = up[x], c = up[r];
    const float d = here[l], e = here[x], f = here[r];
    const float g = down[l], h = down[x], i = down[r];

    Slope result;
    result.curvature = e - (((d + b) + h + f) * 0.16666667f + (((a + c) + g) + i) * 0.083333336f);
    result.x = (((c + i) - (a + g)) * 3.0f + (f - d) * 10.0f) * 0.03125f;
    result.y = -(((a + c) - (g + i)) * 3.0f + (b - h) * 10.0f) * 0.03125f;
    const float drop = maximum(maximum(maximum(maximum(e - a, e - c), maximum(e - g, e - i)) * 0.7071f,
                                       maximum(maximum(e - b, e - d), maximum(e - f, e - h))),
                               0.0f);
    result.slope = maximum(sycl::sqrt(result.x * result.x + result.y * result.y), drop * 0.7f);
    return result;
}

/// How much ground turns into cover at a cell under `depth` of it. Cover shields the ground, and no more is loosened
/// than the slope's own fall. `rate` is one of the loosening constants.
inline float loosened(const Slope& slope, float depth, float rate, float mask, const Setting& s) {
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

/// The field that biases the slide: it takes a tilt of just the talus off a slope, so that a surface at the talus
/// rests, and fades on steeper and on gentler ground.
inline void direction_of(const Slope& slope, const Setting& s, float& direction_x, float& direction_y) {
    const float steepness = slope.slope * s.inverse_scale;
    const float q = s.talus / steepness;
    const float p = steepness > s.talus ? q * q * q : q;
    const bool active = steepness > s.talus * 0.5f;
    direction_x = active ? slope.x * p : 0.0f;
    direction_y = active ? slope.y * p : 0.0f;
}

/// Nearness of the neighbour at (dx, dy): brings a fall down to unit distance.
constexpr float nearness(int dx, int dy) {
    return dx == 0 || dy == 0 ? 1.0f : 0.7071f;
}

/// The sum of the falls from a cell to its lower neighbours inside the grid. With `interior` all of them are.
template <bool interior>
inline float sum_of_falls(const float* heights, int x, int y, const Setting& s) {
    const std::ptrdiff_t here = s.index(x, y);
    float sum = 0.0f;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            if (dx == 0 && dy == 0)
                continue;
            if (!interior && (x + dx < 0 || x + dx >= s.columns || y + dy < 0 || y + dy >= s.rows))
                continue;
            const std::ptrdiff_t there = here + static_cast<std::ptrdiff_t>(dy) * s.columns + dx;
            sum += maximum((heights[here] - heights[there]) * nearness(dx, dy), 0.0f);
        }
    return sum;
}

/// The same with the directional bias, for a cell off the border.
inline float sum_of_biased_falls(const float* heights, int x, int y, float direction_x, float direction_y,
                                 const Setting& s) {
    const std::ptrdiff_t here = s.index(x, y);
    float sum = 0.0f;
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy) {
            if (dx == 0 && dy == 0)
                continue;
            const std::ptrdiff_t there = here + static_cast<std::ptrdiff_t>(dy) * s.columns + dx;
            const float fall = (heights[here] - heights[there]) +
                               (static_cast<float>(dx) * direction_x + static_cast<float>(dy) * direction_y);
            sum += maximum(fall * nearness(dx, dy), 0.0f);
        }
    return sum;
}

/// The grids that a cell's inflow is worked out from.
struct Shed {
    const float* heights;
    const float* depth;
    /// Sum of the falls of each cell; 0 where nothing is shed.
    const float* drop_sum;
    /// The directional bias; not read in plain iterations.
    const float* direction_x;
    const float* direction_y;
};

/// What a cell off the border takes in: each neighbour's shed cover is divided among that one's lower neighbours in
/// proportion to the falls.
template <bool directional>
inline float inflow(const Shed& shed, int x, int y, const Setting& s) {
    const std::ptrdiff_t here = s.index(x, y);
    const float c = shed.heights[here];
    float sum = 0.0f;
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy) {
            if (dx == 0 && dy == 0)
                continue;
            const std::ptrdiff_t there = here + static_cast<std::ptrdiff_t>(dy) * s.columns + dx;
            float rest = c;
            if constexpr (directional)
                rest = c + (static_cast<float>(dx) * shed.direction_x[there] +
                            static_cast<float>(dy) * shed.direction_y[there]);
            const float drop_sum = shed.drop_sum[there];
            const float share = (maximum((shed.heights[there] - rest) * nearness(dx, dy), 0.0f) *
                                 minimum(shed.depth[there], drop_sum)) /
                                drop_sum;
            sum = drop_sum > 0.0f ? sum + share : sum;
        }
    return sum;
}

/// The change of a cell's surface and cover. `outflow` is what it sheds, as a negative number.
inline float change(float inflow, float outflow, float mask, float move, const Setting& s) {
    return (inflow * (1.0f - mask * s.absorption) + outflow) * move;
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
