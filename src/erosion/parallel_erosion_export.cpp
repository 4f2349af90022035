#include "erosion/parallel_erosion.hpp"

#include <cmath>

#include "device/argument_check.hpp"
#include "device/call_frame.hpp"

namespace {

using namespace tarn;
using parallel_erosion::Parameters;

/// Rounds are counted in an int.
constexpr float most_iterations = 1073741824.0f;

bool check(SyclQueue* queue, const parallel_erosion::CallerGrids& grids, const Parameters* parameters,
           const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::parallel_erosion_simulation, callbacks);
    check.not_null("queue", queue)
        .not_null("height", grids.height)
        .not_null("flow", grids.flow)
        .not_null("sediment", grids.sediment)
        .not_null("wear", grids.wear)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    const auto width = static_cast<std::int32_t>(p.Resolution.width);
    const auto height = static_cast<std::int32_t>(p.Resolution.height);
    check.grid_size(width, height)
        .require(width <= parallel_erosion::longest_side, "width", width, "at most 16777216")
        .require(height <= parallel_erosion::longest_side, "height", height, "at most 16777216")
        .above_zero("terrain_size", p.terrain_size)
        .above_zero("terrain_height", p.terrain_height)
        .above_zero("feature_size", p.feature_size)
        .finite("iterations", p.iterations)
        .finite("erosion_strength", p.erosion_strength)
        .finite("shaping_strength", p.shaping_strength)
        .finite("shaping_sharpness", p.shaping_sharpness)
        .finite("shaping_detail", p.shaping_detail)
        .finite("fill_slope_scale", p.fill_slope_scale)
        .finite("fill_angle", p.fill_angle)
        .finite("plain_deposition", p.plain_deposition)
        .finite("plain_angle", p.plain_angle)
        .finite("terrace_deposition", p.terrace_deposition)
        .finite("terrace_angle", p.terrace_angle)
        .finite("constant_capacity", p.constant_capacity)
        .require(p.iterations <= most_iterations, "iterations", p.iterations, "at most 1073741824")
        .require(p.shaping_detail >= 0.0f, "shaping_detail", p.shaping_detail, "at least 0");
    if (!check.passed())
        return false;

    const bool has_usable_cells =
        is_usable_cell_width(parallel_erosion::cell_width(p, p.Resolution.width)) &&
        is_usable_cell_width(parallel_erosion::cell_width(p, 1)); // as wide as those of the coarsest level may be
    check.require(has_usable_cells, "terrain_height", p.terrain_height, "in proportion to terrain_size")
        .require(std::isfinite(parallel_erosion::count_levels(p)), "feature_size", p.feature_size,
                 "in proportion to terrain_size");
    return check.finite_grid("height", grids.height, p.Resolution.width, p.Resolution.height).passed();
}

} // namespace

extern "C" TARN_API uint32_t ParallelErosionSimulation(SyclQueue* handle, float* height, const float* spawn_map,
                                                       float* flow, float* sediment, const void*, float* wear,
                                                       const parallel_erosion_Parameters* parameters,
                                                       const HostCallbacks* callbacks) {
    // Hosts tell by this line that the call has come through, whatever becomes of it.
    if (callbacks != nullptr && callbacks->log_info != nullptr)
        callbacks->log_info("1");
    const parallel_erosion::CallerGrids grids{height, spawn_map, flow, sediment, wear};
    if (!check(handle, grids, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t cells =
        static_cast<std::uint64_t>(parameters->Resolution.width) * parameters->Resolution.height;
    const std::uint64_t need = frames::parallel_erosion_simulation.bytes_per_cell * cells;

    return call_frame(frames::parallel_erosion_simulation, queue, parallel_erosion::callbacks, callbacks, need, [&] {
        const parallel_erosion::Plan plan = parallel_erosion::plan_run(*parameters, spawn_map != nullptr && cells > 1);
        parallel_erosion::ParallelErosion erosion(*parameters, plan, queue, *callbacks, grids);
        erosion.erode();
        return erosion.cancelled();
    });
}
