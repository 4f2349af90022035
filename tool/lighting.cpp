#include "lighting.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <numbers>

#include <ogr_spatialref.h>

#include "byte_table.hpp"
#include "message.hpp"

namespace {

constexpr double degree = std::numbers::pi / 180;

double srgb_of(double light) {
    return light <= 0.0031308 ? light * 12.92 : 1.055 * std::pow(light, 1 / 2.4) - 0.055;
}

std::uint8_t pixel_of(float light) {
    return static_cast<std::uint8_t>(std::lround(srgb_of(static_cast<double>(light)) * 255));
}

std::size_t cells_of_rows(const Grid& grid, int rows) {
    return static_cast<std::size_t>(rows) * static_cast<std::size_t>(grid.width);
}

/// Whether light and ground are without colour, so that all channels are alike.
bool is_grey(const Scene& scene) {
    const auto is_without_colour = [](const float(&colour)[3]) {
        return colour[0] == colour[1] && colour[1] == colour[2];
    };
    return !scene.surface && is_without_colour(scene.parameters.sun_color) &&
           is_without_colour(scene.parameters.ambient_color);
}

/// Whether the light of a cell depends on more of the grid than the cells around it.
bool has_rays(const lighting_Parameters& p) {
    return (p.direct_light != 0 && p.shadows != 0) || (p.ambient_light != 0 && p.ambient_occlusion != 0);
}

LitGrid render_rows(Host& host, const Scene& scene, const Cells& ao, int first, int rows) {
    const Grid& grid = scene.grid;
    lighting_Parameters parameters = scene.parameters;
    parameters.resolution = {grid.width, rows};
    parameters.terrain_size = static_cast<float>(std::sqrt(scene.cell.x * scene.cell.y) * grid.width);
    parameters.terrain_height = static_cast<float>(scene.height_unit);

    const auto blank = [&](bool needed) {
        return Cells(needed ? cells_of_rows(grid, rows) : 0);
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
    const Surface surface = scene.surface ? scene.surface(first, rows) : Surface{};
    host.run(format_text("lighting %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return Shade(queue, grid.cells.data() + cells_of_rows(grid, first), or_null(lit.diffuse),
                              or_null(lit.shadow), or_null(lit.ao), lit.red.data(), lit.green.data(), lit.blue.data(),
                              or_null(surface.red), or_null(surface.green), or_null(surface.blue), &parameters,
                              callbacks);
             },
             {static_cast<double>(first) / grid.height, static_cast<double>(first + rows) / grid.height});
    return lit;
}

/// Draws rows of which `lit` has those from `lit_first` on.
void develop_rows(const Scene& scene, const LitGrid& lit, int lit_first, int first, int rows, std::uint8_t* pixels) {
    static const ByteTable byte_of(pixel_of);
    const Grid& grid = scene.grid;
    const std::size_t offset = cells_of_rows(grid, first - lit_first), count = cells_of_rows(grid, rows);
    const bool grey = is_grey(scene);
    const std::size_t channels = grey ? 1 : 3;
    const float* const red = lit.red.data() + offset;
    const float* const green = lit.green.data() + offset;
    const float* const blue = lit.blue.data() + offset;
    for (std::size_t i = 0; i < count; ++i) {
        std::uint8_t* const pixel = pixels + i * channels;
        pixel[0] = byte_of(red[i]);
        if (!grey) {
            pixel[1] = byte_of(green[i]);
            pixel[2] = byte_of(blue[i]);
        }
    }
    if (grid.missing.empty())
        return;
    const std::uint8_t* const missing = grid.missing.data() + cells_of_rows(grid, first);
    for (std::size_t i = 0; i < count; ++i)
        if (missing[i] != 0)
            std::fill_n(pixels + i * channels, channels, std::uint8_t{255});
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
    const int columns = grid.width / 2 * 2;
    parameters.terrain_size = static_cast<float>(cell_size * columns);
    parameters.terrain_height = static_cast<float>(height_unit);
    parameters.first_day = 1;
    parameters.last_day = 365;
    parameters.latitude = static_cast<float>(latitude);
    parameters.haze = 0.05f;
    return parameters;
}

LitGrid render(Host& host, const Scene& scene, const Cells& ao) {
    return render_rows(host, scene, ao, 0, scene.grid.height);
}

Drawing develop(const Scene& scene, const LitGrid& lit) {
    return {.width = scene.grid.width,
            .height = scene.grid.height,
            .channels = is_grey(scene) ? 1 : 3,
            .draw = [=, &lit](int first, int rows, std::uint8_t* pixels) {
                develop_rows(scene, lit, 0, first, rows, pixels);
            }};
}

Drawing draw_scene(Host& host, const Scene& scene) {
    constexpr int band_cells = 1 << 18; // their grids stay in the caches
    struct Band {
        LitGrid lit;
        int first = 0;
    };
    const auto band = std::make_shared<Band>();
    return {.width = scene.grid.width,
            .height = scene.grid.height,
            .channels = is_grey(scene) ? 1 : 3,
            .draw = [=](int first, int rows,
                        std::uint8_t* pixels) { develop_rows(scene, band->lit, band->first, first, rows, pixels); },
            .band_rows = has_rays(scene.parameters) ? 0 : std::max(band_cells / scene.grid.width, 1),
            .prepare =
                [=, &host](int first, int rows) {
                    // The slope at the rim of a band depends on the row beyond it.
                    band->first = std::max(first - 1, 0);
                    band->lit = {};
                    band->lit = render_rows(host, scene, {}, band->first,
                                            std::min(first + rows + 1, scene.grid.height) - band->first);
                }};
}

void light_of(std::span<const double> srgb, float* light) {
    // The binomial series of x^2.4 around a place close by, right to 14 digits. In one case of millions these do not
    // say which float is the nearest; then the power does.
    struct Places {
        Places() {
            for (std::size_t n = 0; n < inverse.size(); ++n) {
                inverse[n] = 1 / place(static_cast<int>(n));
                power[n] = std::pow(place(static_cast<int>(n)), 2.4);
            }
        }
        static double place(int n) { return (n + 0.5) / 512; }
        std::array<double, 513> inverse, power;
    };
    static const Places places;
    std::uint32_t unsure = 0;
    // Without branches or calls, so that it becomes vectors.
    for (std::size_t i = 0; i < srgb.size(); ++i) {
        const double x = (srgb[i] + 0.055) / 1.055;
        const int n = static_cast<int>(std::min(x, 1.0) * 512);
        const double d = (x - Places::place(n)) * places.inverse[static_cast<std::size_t>(n)];
        const double bright =
            places.power[static_cast<std::size_t>(n)] *
            (1 + d * (2.4 + d * (1.68 + d * (0.224 + d * (-0.0336 + d * (0.010752 - d * 0.0046592))))));
        const auto below = static_cast<float>(bright * (1 - 1e-14)), above = static_cast<float>(bright * (1 + 1e-14));
        const auto dark = static_cast<float>(srgb[i] / 12.92);
        light[i] = srgb[i] <= 0.04045 ? dark : below;
        unsure |= static_cast<std::uint32_t>((srgb[i] > 0.04045) & (below != above));
    }
    if (unsure == 0)
        return;
    for (std::size_t i = 0; i < srgb.size(); ++i)
        if (srgb[i] > 0.04045)
            light[i] = static_cast<float>(std::pow((srgb[i] + 0.055) / 1.055, 2.4));
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
