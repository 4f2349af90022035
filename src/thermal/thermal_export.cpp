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
        .finite("feature_size", p.feature_size)
        .finite("terrain_size", p.terrain_size)
        .finite("terrain_height", p.terrain_height)
        .finite("absorption", p.absorption);
    if (!check.passed())
        return false;
    const auto scale_is_usable = [&](float width) {
        const float scale = p.terrain_size / (width * p.terrain_height);
        return scale > 0.0f && std::isfinite(scale) && std::isfinite(1.0f / scale);
    };
    return check.require(p.terrain_size > 0.0f, "terrain_size", p.terrain_size, "above 0")
        .require(p.terrain_height > 0.0f, "terrain_height", p.terrain_height, "above 0")
        .require(p.feature_size > 0.0f && std::isfinite(thermal::Schedule::level_count(p)), "feature_size",
                 p.feature_size, "above 0, and in proportion to terrain_size")
        .require(scale_is_usable(static_cast<float>(p.width)) && scale_is_usable(1.0f), "terrain_height",
                 p.terrain_height, "in proportion to terrain_size")
        .passed();
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
