// What is settled before particles run: how many levels and rounds there are, and the constants of each level.
#pragma once

#include <cstddef>
#include <cstdint>

#include <tarn/oneapi.h>

#include "grid/launch_lanes.hpp"

namespace tarn::parallel_erosion {

using Parameters = parallel_erosion_Parameters;

/// Positions are floats, which hold whole cells up to here.
inline constexpr std::int32_t longest_side = 1 << 24;

/// Points of one piece of a path.
inline constexpr int longest_path = 12;

/// The constants of a run.
struct Plan {
    /// The number of levels before it is rounded up.
    float level_float;
    std::int32_t level_count;
    /// How many levels are done when shaping starts to fade.
    float shaping_level;
    float fill_tangent;
    float plain_tangent;
    float terrace_tangent;
    bool has_spawn_map;
};

/// What particles go by at a level.
struct PathRule {
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

    /// The cell of a position on the grid. Cells are numbered in 32 bits, for vectors of indices.
    std::uint32_t cell_at(float x, float y) const {
        return static_cast<std::uint32_t>(static_cast<int>(y) * columns + static_cast<int>(x));
    }
    /// Particles keep off the border, so that samples need no clamp. NaN is outside.
    Mask is_inside(float x, float y) const {
        return mask_of(0.5f <= x) & mask_of(x < static_cast<float>(columns) - 1.5f) & mask_of(0.5f <= y) &
               mask_of(y < static_cast<float>(rows) - 1.5f);
    }
};

/// What cells go by when a level is shaped.
struct ShapingRule {
    int columns;
    int rows;
    float cell;
    float sharpness;
    /// Share of the pull in the slope.
    float pull_share;
    float smoothing;
    float amount;
};

/// The constants of a level.
struct LevelPlan {
    /// None at 0.
    int rounds;
    /// Particles of a round.
    std::uint32_t particle_count;
    /// Particles that are on their way after so many passes are given up.
    int most_passes;
    PathRule path;
    ShapingRule shaping;
};

/// The feature size that a run works with: above a fifth of the terrain it levels off.
float softened_feature_size(float feature_size, float terrain_size);

/// How often a cell of the terrain has to be doubled to be half a feature wide; the number of levels, not yet rounded.
float count_levels(const Parameters& parameters);

/// Plans a run. `count_levels` must be finite.
Plan plan_run(const Parameters& parameters, bool has_spawn_map);

/// Width of a cell of a level with `columns` columns, in units of height.
float cell_width(const Parameters& parameters, std::size_t columns);

/// What a level is run with, `levels_done` levels above the coarsest. Rounds keep the part that the fraction of the
/// level count asks for at the coarsest level, and halve per level from about the fourth on. Capacity and shaping fade
/// by 0.6 and 0.4 a level, shaping from `shaping_level` on. Smoothing doubles.
int rounds(const Parameters& parameters, const Plan& plan, int levels_done);
float capacity_scale(const Parameters& parameters, const Plan& plan, int levels_done);
float shaping_amount(const Parameters& parameters, const Plan& plan, int levels_done);
float smoothing_amount(const Plan& plan, int levels_done);

LevelPlan plan_level(const Parameters& parameters, const Plan& plan, int levels_done, std::size_t columns,
                     std::size_t rows);

} // namespace tarn::parallel_erosion
