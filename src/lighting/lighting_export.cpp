#include "lighting/lighting.hpp"

#include <bit>
#include <cmath>

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using lighting::Parameters;

/// Sweeps wrap at the grid's edges with one period for both axes, and pyramids start with an even split.
ArgumentCheck& check_grid(ArgumentCheck& check, const lighting::Resolution& resolution) {
    check.grid_size(resolution.width, resolution.height);
    if (!check.passed())
        return check;
    return check.require(resolution.height == resolution.width, "height", resolution.height, "equal to width")
        .require(resolution.width % 2 == 0, "width", resolution.width, "even");
}

/// Cells must have a width in units of height, on every level of a pyramid.
ArgumentCheck& check_scale(ArgumentCheck& check, const Parameters& p) {
    const auto is_usable = [&](float width) {
        const float scale = p.terrain_size / (width * p.terrain_height);
        return scale > 0.0f && std::isfinite(scale);
    };
    return check.finite("terrain_size", p.terrain_size)
        .require(p.terrain_size > 0.0f, "terrain_size", p.terrain_size, "above 0")
        .finite("terrain_height", p.terrain_height)
        .require(p.terrain_height > 0.0f, "terrain_height", p.terrain_height, "above 0")
        .require(is_usable(static_cast<float>(p.resolution.width)) && is_usable(1.0f) &&
                     std::isfinite(p.terrain_size * 32.0f),
                 "terrain_height", p.terrain_height, "in proportion to terrain_size");
}

ArgumentCheck& check_sun_disc(ArgumentCheck& check, const Parameters& p) {
    const int rings = p.sun_rings;
    return check
        .require(rings == -8 || rings == -4 || (rings >= -1 && rings <= lighting::most_sun_rings), "sun_rings", rings,
                 "-8, -4 or from -1 to 17")
        .require(p.sun_diameter >= 0.0f && p.sun_diameter <= 180.0f, "sun_diameter", p.sun_diameter, "from 0 to 180");
}

ArgumentCheck& check_occlusion(ArgumentCheck& check, const Parameters& p) {
    const int subdivisions = lighting::ambient_subdivisions(p);
    check.require(subdivisions >= 0 && subdivisions <= lighting::most_subdivisions,
                  p.hybrid_ao != 0 ? "hybrid_ao_subdivisions" : "ao_subdivisions", subdivisions, "from 0 to 3");
    // Every level has at least one cell.
    const auto most_levels = static_cast<int>(std::bit_width(static_cast<unsigned>(p.resolution.width)));
    return check.require(p.hybrid_ao == 0 || p.hybrid_ao_levels <= most_levels, "hybrid_ao_levels", p.hybrid_ao_levels,
                         ("at most " + std::to_string(most_levels) + " for this width").c_str());
}

bool check_shade(SyclQueue* queue, const lighting::CallerGrids& grids, const Parameters* parameters,
                 const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::shade, callbacks);
    check.not_null("queue", queue)
        .not_null("heights", grids.heights)
        .not_null("red", grids.red)
        .not_null("green", grids.green)
        .not_null("blue", grids.blue)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    check_grid(check, p.resolution);
    check.require(p.resolution.width <= lighting::largest_side, "width", p.resolution.width, "at most 32766");
    if (!check.passed())
        return false;
    check_scale(check, p);
    for (const float element : p.sun_direction)
        check.finite("sun_direction", element);
    check.finite("sun_diameter", p.sun_diameter)
        .finite("exposure", p.exposure)
        .finite("sun_intensity", p.sun_intensity)
        .finite("ambient_intensity", p.ambient_intensity)
        .finite("albedo", p.albedo);
    for (const float element : p.sun_color)
        check.finite("sun_color", element);
    for (const float element : p.ambient_color)
        check.finite("ambient_color", element);

    // What a stage needs counts only if the stage runs.
    const lighting::Stages stages(p);
    if (stages.diffuse)
        check.not_null("diffuse", grids.diffuse);
    if (stages.shadows)
        check_sun_disc(check.not_null("shadow", grids.shadow), p);
    if (stages.reads_ao)
        check.not_null("ao", grids.ao);
    if (stages.traces_ao)
        check_occlusion(check, p);
    return check.passed();
}

/// Without callbacks of its own this export tells its refusals through those of the latest Shade.
bool check_sun_light_integral(SyclQueue* queue, const float* heights, const float* result,
                              const Parameters* parameters) {
    HostCallbacks latest{};
    latest.log_error = [](const char* text) {
        lighting::callbacks.log_error(text);
    };
    ArgumentCheck check(frames::sun_light_integral, &latest);
    check.not_null("queue", queue)
        .not_null("heights", heights)
        .not_null("result", result)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    if (!check_grid(check, p.resolution).passed())
        return false;
    return check_scale(check, p)
        .require(lighting::days_of(p) >= 1.0, "first_day", p.first_day, "at most 365 days after last_day")
        .finite("latitude", p.latitude)
        .finite("north_offset", p.north_offset)
        .finite("haze", p.haze)
        .require(p.haze >= 0.0f, "haze", p.haze, "at least 0")
        .passed();
}

std::uint64_t need_of(const ExportFrame& frame, const Parameters& p) {
    return frame.bytes_per_cell * static_cast<std::uint64_t>(p.resolution.width) *
           static_cast<std::uint64_t>(p.resolution.height);
}

} // namespace

extern "C" TARN_API uint32_t Shade(SyclQueue* handle, const float* heights, float* diffuse, float* shadow, float* ao,
                                   float* red, float* green, float* blue, const float* albedo_red,
                                   const float* albedo_green, const float* albedo_blue,
                                   const lighting_Parameters* parameters, const HostCallbacks* callbacks) {
    const lighting::CallerGrids grids{heights, diffuse, shadow,     ao,           red,
                                      green,   blue,    albedo_red, albedo_green, albedo_blue};
    if (!check_shade(handle, grids, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    return call_frame(frames::shade, queue, lighting::callbacks, callbacks, need_of(frames::shade, *parameters), [&] {
        lighting::LightingSYCL(*parameters, queue, *callbacks, grids).run();
        return false;
    });
}

extern "C" TARN_API uint32_t SunLightIntegral(SyclQueue* handle, const float* heights, float* result,
                                              const lighting_Parameters* parameters) {
    if (!check_sun_light_integral(handle, heights, result, parameters))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    return call_frame(frames::sun_light_integral, queue, lighting::callbacks, nullptr,
                      need_of(frames::sun_light_integral, *parameters), [&] {
                          lighting::sun_light_integral(*parameters, heights, result, queue);
                          return false;
                      });
}
