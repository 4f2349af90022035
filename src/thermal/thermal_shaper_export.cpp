#include "thermal/thermal_shaper.hpp"

#include <cmath>

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using thermal_shaper::Parameters;

/// Whether heights have a usable scale at a level `width` cells wide. Unlike a cell's width it may be negative.
bool is_scale_usable(const Parameters& parameters, float width) {
    const float scale = parameters.scale_numerator / (width * parameters.level_divisor);
    return std::isfinite(scale) && std::isfinite(1.0f / scale);
}

bool check(const float* heights, const float* mask, const Parameters* parameters, const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::thermal_shaper_process, callbacks);
    if (!check.not_null("parameters", parameters).passed())
        return false;
    const Parameters& p = *parameters;
    check.grid_size(p.width, p.height)
        .finite("level_divisor", p.level_divisor)
        .require(p.level_divisor != 0.0f, "level_divisor", p.level_divisor, "other than 0")
        .finite("scale_numerator", p.scale_numerator)
        .finite("level_multiplier", p.level_multiplier)
        .finite("blend", p.blend)
        .finite("rate", p.rate)
        .finite("detail_gain", p.detail_gain);
    if (!check.passed())
        return false;
    const float width = static_cast<float>(p.width);
    const float ratio = width * p.level_multiplier / p.level_divisor;
    check
        .require(std::isfinite(ratio) && ratio > 0.0f, "width * level_multiplier / level_divisor", ratio,
                 "above 0 and finite")
        .require(is_scale_usable(p, width) && is_scale_usable(p, 1.0f), "scale_numerator", p.scale_numerator,
                 "other than 0, and in proportion to width * level_divisor")
        .finite_grid("heights", heights, static_cast<std::size_t>(p.width), static_cast<std::size_t>(p.height));
    if (mask != nullptr)
        check.finite_grid("mask", mask, static_cast<std::size_t>(p.width), static_cast<std::size_t>(p.height));
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t ThermalShaper_Process(SyclQueue* handle, float* heights, const float* mask,
                                                   const thermal_shaper_Parameters* parameters,
                                                   const HostCallbacks* callbacks) {
    if (handle == nullptr || heights == nullptr)
        return status_failed;
    if (!check(heights, mask, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t cells =
        static_cast<std::uint64_t>(parameters->width) * static_cast<std::uint64_t>(parameters->height);
    const std::uint64_t need = (mask != nullptr ? 64u : 48u) * cells / 3u;

    return call_frame(frames::thermal_shaper_process, queue, thermal_shaper::callbacks, callbacks, need, [&] {
        thermal_shaper::ThermalShaper shaper(*parameters, queue, *callbacks, heights, mask);
        shaper.process();
        return shaper.cancelled();
    });
}
