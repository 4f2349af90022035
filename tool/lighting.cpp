#include "lighting.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <ogr_spatialref.h>

#include "message.hpp"

namespace {

constexpr double degree = std::numbers::pi / 180;

double srgb_of(double light) {
    return light <= 0.0031308 ? light * 12.92 : 1.055 * std::pow(light, 1 / 2.4) - 0.055;
}

std::uint8_t pixel_of(float light) {
    return static_cast<std::uint8_t>(std::lround(srgb_of(std::clamp(static_cast<double>(light), 0.0, 1.0)) * 255));
}

} // namespace

SunPosition sun_at(double latitude, int day, double hour) {
    // P. I. Cooper's declination, and the sine and cosine theorems of the sphere.
    const double declination = 23.45 * degree * std::sin(2 * std::numbers::pi * (284 + day) / 365);
    const double hour_angle = (hour - 12) * 15 * degree;
    const double north = latitude * degree;
    const double up =
        std::sin(north) * std::sin(declination) + std::cos(north) * std::cos(declination) * std::cos(hour_angle);
    const double towards_south =
        std::sin(north) * std::cos(declination) * std::cos(hour_angle) - std::cos(north) * std::sin(declination);
    const double towards_west = std::cos(declination) * std::sin(hour_angle);
    return {180 + std::atan2(towards_west, towards_south) / degree, std::asin(std::clamp(up, -1.0, 1.0)) / degree};
}

void point_at(const SunPosition& sun, lighting_Parameters& parameters) {
    const double along = std::cos(sun.elevation * degree);
    parameters.sun_direction[0] = static_cast<float>(along * std::sin(sun.azimuth * degree));
    parameters.sun_direction[1] = static_cast<float>(-along * std::cos(sun.azimuth * degree)); // rows go south
    parameters.sun_direction[2] = static_cast<float>(std::sin(sun.elevation * degree));
    // Straight above it is not to have an azimuth left from rounding.
    if (std::abs(sun.elevation) == 90)
        parameters.sun_direction[0] = parameters.sun_direction[1] = 0;
}

lighting_Parameters light_of_day(const SunPosition& sun) {
    constexpr double ambient = 0.3;
    lighting_Parameters parameters{};
    point_at(sun, parameters);
    parameters.sun_rings = -8;
    parameters.sun_diameter = 0.53f;
    parameters.ao_subdivisions = parameters.hybrid_ao_subdivisions = 2;
    parameters.exposure = 1;
    parameters.ambient_intensity = static_cast<float>(ambient);
    // A low sun lights level ground less, and what faces it would be dazzling.
    parameters.sun_intensity = static_cast<float>((1 - ambient) / std::max(std::sin(sun.elevation * degree), 0.2));
    const float sun_color[] = {1.04f, 1.0f, 0.9f}, sky_color[] = {0.86f, 1.0f, 1.2f};
    std::copy(sun_color, sun_color + 3, parameters.sun_color);
    std::copy(sky_color, sky_color + 3, parameters.ambient_color);
    parameters.albedo = 0.5f;
    parameters.direct_light = parameters.ambient_light = parameters.shadows = parameters.ambient_occlusion = 1;
    return parameters;
}

lighting_Parameters light_of_year(const Grid& grid, double cell_size, double height_unit, double latitude) {
    lighting_Parameters parameters{};
    parameters.resolution = {grid.width, grid.height};
    // It is traced at half the size, where the last column of an odd number falls away.
    parameters.terrain_size = static_cast<float>(cell_size * (grid.width / 2 * 2));
    parameters.terrain_height = static_cast<float>(height_unit);
    parameters.first_day = 1;
    parameters.last_day = 365;
    parameters.latitude = static_cast<float>(latitude);
    parameters.haze = 0.05f;
    return parameters;
}

LitGrid render(Host& host, const Grid& grid, CellSize cell, double height_unit, lighting_Parameters parameters,
               const Surface& surface, const std::vector<float>& ao) {
    parameters.resolution = {grid.width, grid.height};
    parameters.terrain_size = static_cast<float>(std::sqrt(cell.x * cell.y) * grid.width);
    parameters.terrain_height = static_cast<float>(height_unit);

    const auto blank = [&](bool needed) {
        return std::vector<float>(needed ? grid.size() : 0);
    };
    const bool occluded = parameters.ambient_light != 0 && parameters.ambient_occlusion != 0;
    const bool supplied = parameters.ao_supplied != 0;
    LitGrid lit{blank(parameters.direct_light != 0),
                blank(parameters.direct_light != 0 && parameters.shadows != 0),
                supplied ? ao : blank(occluded),
                blank(true),
                blank(true),
                blank(true)};
    const auto or_null = [](auto& cells) {
        return cells.empty() ? nullptr : cells.data();
    };
    host.run(format_text("lighting %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return Shade(queue, grid.cells.data(), or_null(lit.diffuse), or_null(lit.shadow), or_null(lit.ao),
                              lit.red.data(), lit.green.data(), lit.blue.data(), or_null(surface.red),
                              or_null(surface.green), or_null(surface.blue), &parameters, callbacks);
             });
    return lit;
}

std::vector<std::uint8_t> develop(const Grid& grid, const LitGrid& lit) {
    std::vector<std::uint8_t> pixels;
    pixels.reserve(grid.size() * 3);
    for (std::size_t i = 0; i < grid.size(); ++i)
        for (const std::vector<float>* channel : {&lit.red, &lit.green, &lit.blue})
            pixels.push_back(grid.is_missing(i) ? 255 : pixel_of((*channel)[i]));
    return pixels;
}

double light_of(double srgb) {
    return srgb <= 0.04045 ? srgb / 12.92 : std::pow((srgb + 0.055) / 1.055, 2.4);
}

std::optional<double> latitude_of(const Grid& grid) {
    OGRSpatialReference system;
    if (!grid.geotransform || grid.coordinate_system.empty() ||
        system.importFromWkt(grid.coordinate_system.c_str()) != OGRERR_NONE ||
        (!system.IsGeographic() && !system.IsProjected()))
        return std::nullopt;
    const std::array<double, 6>& map = *grid.geotransform;
    double x = map[0] + map[1] * grid.width / 2 + map[2] * grid.height / 2;
    double y = map[3] + map[4] * grid.width / 2 + map[5] * grid.height / 2;
    system.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    if (system.IsProjected()) {
        const std::unique_ptr<OGRSpatialReference> degrees(system.CloneGeogCS());
        degrees->SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
        const std::unique_ptr<OGRCoordinateTransformation> transformation(
            OGRCreateCoordinateTransformation(&system, degrees.get()));
        if (!transformation || !transformation->Transform(1, &x, &y))
            return std::nullopt;
    }
    return std::abs(y) <= 90 ? std::optional(y) : std::nullopt;
}
