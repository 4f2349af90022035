#include "thermal/thermal.hpp"

#include <cmath>

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using thermal::Parameters;

/// Iterations are counted in a float, which holds whole numbers up to 2^24: 2560 for each 1.0.
constexpr float longest_duration = 6553.0f;

bool check(SyclQueue* queue, const thermal::CallerGrids& grids, const Parameters* parameters,
           const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::thermal_simulation, callbacks);
    check.not_null("queue", queue)
        .not_null("heights", grids.heights)
        .not_null("depth", grids.depth)
        .not_null("wear", grids.wear)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    check.grid_size(p.width, p.height)
        .finite("duration", p.duration)
        .require(p.duration >= 0.0f, "duration", p.duration, "at least 0")
        .require(p.duration <= longest_duration, "duration", p.duration, "at most 6553")
        .finite("erosion_rate", p.erosion_rate)
        .finite("curvature_bias", p.curvature_bias)
        .finite("repose_angle", p.repose_angle)
        .require(p.repose_angle >= 0.0f, "repose_angle", p.repose_angle, "at least 0")
        .above_zero("feature_size", p.feature_size)
        .above_zero("terrain_size", p.terrain_size)
        .above_zero("terrain_height", p.terrain_height)
        .finite("absorption", p.absorption);
    if (!check.passed())
        return false;
    const auto width = static_cast<std::size_t>(p.width), height = static_cast<std::size_t>(p.height);
    check
        .require(std::isfinite(thermal::Schedule::level_count(p)), "feature_size", p.feature_size,
                 "in proportion to terrain_size")
        .require(is_usable_cell_width(thermal::cell_width(p, width)) && is_usable_cell_width(thermal::cell_width(p, 1)),
                 "terrain_height", p.terrain_height, "in proportion to terrain_size")
        .finite_grid("heights", grids.heights, width, height);
    if (p.use_erosion_mask != 0 && grids.erosion_mask != nullptr)
        check.finite_grid("erosion_mask", grids.erosion_mask, width, height);
    if (p.use_absorption_mask != 0 && grids.absorption_mask != nullptr)
        check.finite_grid("absorption_mask", grids.absorption_mask, width, height);
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t ThermalSimulation(SyclQueue* handle, float* heights, float* depth, float* wear,
                                               const float* erosion_mask, const float* absorption_mask,
                                               const thermal_Parameters* parameters, const HostCallbacks* callbacks) {
    const thermal::CallerGrids grids{heights, depth, wear, erosion_mask, absorption_mask};
    if (!check(handle, grids, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t cells =
        static_cast<std::uint64_t>(parameters->width) * static_cast<std::uint64_t>(parameters->height);
    const std::uint64_t need = frames::thermal_simulation.bytes_per_cell * cells;

    return call_frame(frames::thermal_simulation, queue, thermal::callbacks, callbacks, need, [&] {
        thermal::Thermal weathering(*parameters, queue, *callbacks, grids);
        weathering.run();
        return weathering.cancelled();
    });
}
