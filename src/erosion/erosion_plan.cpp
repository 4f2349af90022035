#include "erosion/erosion_plan.hpp"

#include <algorithm>
#include <cmath>

#include "grid/numeric.hpp"

namespace tarn::parallel_erosion {

namespace {

/// The share of a level's weight that its distance from the coarsest leaves: 1 up to x = 0, then a smooth bend into a
/// fall by the factor r a level.
struct Falloff {
    float a;
    float inverse_a;
    float ln_r;
    float ln_r_by_a;

    float operator()(float x) const { return std::exp((-inverse_a * std::exp(-a * x) - x) * ln_r + ln_r_by_a); }
};
constexpr Falloff rounds_falloff{0.75f, 1.33333337f, 0.693147182f, 0.924196243f};
constexpr Falloff capacity_falloff{1.2f, 0.833333313f, 0.510825574f, 0.425687969f};
constexpr Falloff shaping_falloff{10.0f, 0.100000001f, 0.9162907f, 0.091629073f};

/// The fraction of the level count, which the coarsest level stands for; a whole count stands for one whole level.
float top_fraction(const Plan& plan) {
    const float count = plan.level_float >= 1.0f ? plan.level_float : std::exp(plan.level_float - 1.0f);
    const float fraction = count - std::floor(count);
    return fraction == 0.0f ? 1.0f : fraction;
}

} // namespace

float softened_feature_size(float feature_size, float terrain_size) {
    float t = feature_size / terrain_size;
    if (t > 0.2f)
        t = 0.366666675f - 0.166666672f / (6.0f * t - 0.200000048f);
    return t * terrain_size;
}

float count_levels(const Parameters& p) {
    return std::log2(static_cast<float>(static_cast<std::int32_t>(p.Resolution.width)) * (1.0f / p.terrain_size) *
                     (softened_feature_size(p.feature_size, p.terrain_size) * 0.5f));
}

Plan plan_run(const Parameters& p, bool has_spawn_map) {
    constexpr float radians = 0.0174532942f;
    Plan plan{};
    plan.level_float = count_levels(p);
    // Features below the size of a cell leave a single level.
    plan.level_count = std::max(static_cast<std::int32_t>(std::ceil(plan.level_float)), 1);
    plan.shaping_level = p.shaping_detail == 0.0f ? 100.0f : std::log2(1.0f / p.shaping_detail);
    plan.fill_tangent = std::tan(p.fill_angle * radians);
    plan.plain_tangent = std::tan(p.plain_angle * radians);
    plan.terrace_tangent = std::tan(p.terrace_angle * radians);
    plan.has_spawn_map = has_spawn_map;
    return plan;
}

float cell_width(const Parameters& p, std::size_t columns) {
    return p.terrain_size / (static_cast<float>(columns) * p.terrain_height);
}

int rounds(const Parameters& p, const Plan& plan, int levels_done) {
    const float top = top_fraction(plan);
    const float x = maximum(0.0f, static_cast<float>(levels_done) - 3.5f + top);
    const float weight = levels_done > 0 ? 1.0f : top;
    return static_cast<int>(maximum(0.0f, std::ceil(weight * p.iterations * rounds_falloff(x))));
}

float capacity_scale(const Parameters& p, const Plan& plan, int levels_done) {
    const float x = maximum(0.0f, static_cast<float>(levels_done) - 1.0f + (top_fraction(plan) - 1.0f));
    return p.erosion_strength * capacity_falloff(x);
}

float shaping_amount(const Parameters& p, const Plan& plan, int levels_done) {
    const float x = maximum(0.0f, static_cast<float>(levels_done) - plan.shaping_level + (top_fraction(plan) - 1.0f));
    return p.shaping_strength * shaping_falloff(x);
}

float smoothing_amount(const Plan& plan, int levels_done) {
    const float x = maximum(0.0f, static_cast<float>(levels_done) + (top_fraction(plan) - 1.0f));
    return maximum(1.0f, std::exp((0.100000001f * std::exp(-10.0f * x) + x) * 0.693147182f - 0.0693147182f));
}

LevelPlan plan_level(const Parameters& p, const Plan& plan, int levels_done, std::size_t columns, std::size_t rows) {
    const float cell = cell_width(p, columns);
    LevelPlan level{};
    level.rounds = rounds(p, plan, levels_done);
    // One particle for each 256 cells.
    level.particle_count = static_cast<std::uint32_t>(std::max<std::size_t>((columns * rows) >> 8, 1));
    // A path of eleven cells a pass and many times as long as the sides of the level: nothing that runs downhill gets
    // there, but heights may change under a particle that goes around in circles.
    level.most_passes = 1024 + 8 * static_cast<int>(rows + columns);

    PathRule& path = level.path;
    path.columns = static_cast<int>(columns);
    path.rows = static_cast<int>(rows);
    path.half_inverse_cell = 1.0f / cell * 0.5f;
    path.drop_capacity = capacity_scale(p, plan, levels_done) * (1.0f - p.constant_capacity);
    path.constant_capacity = ((p.constant_capacity * p.erosion_strength) * cell) * 0.15f;
    path.fill_slope_scale = p.fill_slope_scale;
    path.fill_tangent = plan.fill_tangent;
    path.plain_tangent = plan.plain_tangent;
    path.plain_share = p.plain_deposition * 0.15f;
    path.terrace_tangent = plan.terrace_tangent;
    path.terrace_share = p.terrace_deposition * 0.25f;
    path.largest_change = 0x1p39f / static_cast<float>(level.particle_count * std::uint64_t{longest_path});

    ShapingRule& shaping = level.shaping;
    shaping.columns = path.columns;
    shaping.rows = path.rows;
    shaping.cell = cell;
    shaping.sharpness = p.shaping_sharpness;
    shaping.pull_share = p.shaping_sharpness * p.shaping_sharpness * 0.9f;
    shaping.smoothing = (0.02f - p.shaping_sharpness * 0.02f) * smoothing_amount(plan, levels_done);
    shaping.amount = shaping_amount(p, plan, levels_done);
    return level;
}

} // namespace tarn::parallel_erosion
