#include "lighting/lighting.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using lighting::Parameters;

/// Both sides from `least` to `most` cells, which `rule` says in words.
void check_sides(ArgumentCheck& check, const lighting::Resolution& resolution, int least, int most, const char* rule) {
    for (const auto& [field, side] : {std::pair{"width", resolution.width}, std::pair{"height", resolution.height}})
        check.require(side >= least && side <= most, field, side, rule);
}

/// Cells must have a width in units of height, on every level of a pyramid.
ArgumentCheck& check_scale(ArgumentCheck& check, const Parameters& p) {
    const auto is_usable = [&](float width) {
        return is_usable_cell_width(p.terrain_size / (width * p.terrain_height));
    };
    return check.above_zero("terrain_size", p.terrain_size)
        .above_zero("terrain_height", p.terrain_height)
        .require(is_usable(static_cast<float>(p.resolution.width)) && is_usable(1.0f) &&
                     std::isfinite(p.terrain_size * 32.0f),
                 "terrain_height", p.terrain_height, "in proportion to terrain_size");
}

ArgumentCheck& check_sun_disc(ArgumentCheck& check, const Parameters& p) {
    const int rings = p.sun_rings;
    return check
        .require(rings == -8 || rings == -4 || (rings >= -1 && rings <= lighting::most_sun_rings), "sun_rings", rings,
                 "-8, -4 or from -1 to 17")
        .require(rings <= 0 || (p.sun_diameter >= 0.0f && p.sun_diameter <= 180.0f), "sun_diameter", p.sun_diameter,
                 "from 0 to 180");
}

ArgumentCheck& check_occlusion(ArgumentCheck& check, const Parameters& p) {
    const int subdivisions = lighting::ambient_subdivisions(p);
    check.require(subdivisions >= 0 && subdivisions <= lighting::most_subdivisions,
                  p.hybrid_ao != 0 ? "hybrid_ao_subdivisions" : "ao_subdivisions", subdivisions, "from 0 to 3");
    // Every level has at least one cell.
    const int smaller_side = std::min(p.resolution.width, p.resolution.height);
    const auto most_levels = static_cast<int>(std::bit_width(static_cast<unsigned>(smaller_side)));
    char rule[40];
    std::snprintf(rule, sizeof rule, "at most %d for these sides", most_levels);
    return check.require(p.hybrid_ao == 0 || p.hybrid_ao_levels <= most_levels, "hybrid_ao_levels", p.hybrid_ao_levels,
                         rule);
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
    if (!check.grid_size(p.resolution.width, p.resolution.height).passed())
        return false;
    check_scale(check, p)
        .finite("exposure", p.exposure)
        .finite("sun_intensity", p.sun_intensity)
        .finite("ambient_intensity", p.ambient_intensity);
    for (const float element : p.sun_color)
        check.finite("sun_color", element);
    for (const float element : p.ambient_color)
        check.finite("ambient_color", element);

    // What the run does not read may hold anything.
    if (!grids.has_albedo())
        check.finite("albedo", p.albedo);
    const lighting::Stages stages(p);
    if (stages.shadows || stages.traces_ao)
        check_sides(check, p.resolution, 1, lighting::largest_side, "from 1 to 32766");
    if (stages.diffuse) {
        check.not_null("diffuse", grids.diffuse);
        for (const float element : p.sun_direction)
            check.finite("sun_direction", element);
    }
    if (stages.shadows)
        check_sun_disc(check.not_null("shadow", grids.shadow), p);
    if (stages.reads_ao)
        check.not_null("ao", grids.ao);
    if (stages.traces_ao)
        check_occlusion(check, p);
    return check.passed();
}

/// Ten years: further from day 0 a float tells the time of the day no longer well enough.
constexpr std::int64_t latest_day = 3650;

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
    if (!check.grid_size(p.resolution.width, p.resolution.height).passed())
        return false;
    // It sweeps half the sides, rounded down.
    check_sides(check, p.resolution, 2, 2 * lighting::largest_side + 1, "from 2 to 65533");
    check_scale(check, p);
    for (const auto& [field, day] : {std::pair{"first_day", p.first_day}, std::pair{"last_day", p.last_day}})
        check.require(std::abs(std::int64_t{day}) <= latest_day, field, day, "from -3650 to 3650");
    return check.require(lighting::days_of(p) >= 1, "first_day", p.first_day, "at most 365 days after last_day")
        .require(std::fabs(p.latitude) <= 90.0f, "latitude", p.latitude, "from -90 to 90")
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
