#include "shade_preview.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>

namespace {

using Colour = std::array<double, 3>;

/// Lowland green over ochre to pale rock, at even steps from the lowest to the highest cell.
constexpr std::array<Colour, 6> height_tints{
    {{104, 142, 104}, {152, 172, 118}, {204, 196, 142}, {194, 164, 120}, {176, 148, 130}, {236, 232, 228}}};
constexpr Colour loss_colour{178, 34, 40};
constexpr Colour gain_colour{32, 90, 170};
constexpr Colour white{255, 255, 255};

Colour mix(const Colour& a, const Colour& b, double weight) {
    Colour result;
    for (std::size_t i = 0; i < 3; ++i)
        result[i] = a[i] + (b[i] - a[i]) * weight;
    return result;
}

Colour tint(double fraction) {
    const double place = std::clamp(fraction, 0.0, 1.0) * (height_tints.size() - 1);
    const auto first = std::min(static_cast<std::size_t>(place), height_tints.size() - 2);
    return mix(height_tints[first], height_tints[first + 1], place - static_cast<double>(first));
}

void put(std::vector<std::uint8_t>& pixels, const Colour& colour, double light = 1) {
    for (const double channel : colour)
        pixels.push_back(static_cast<std::uint8_t>(std::lround(std::clamp(channel * light, 0.0, 255.0))));
}

bool has_value(const Grid& grid, std::size_t i) {
    return !grid.is_missing(i);
}

} // namespace

std::vector<std::uint8_t> shade_relief(const Grid& grid, CellSize cell, const ShadeOptions& options) {
    const double degree = std::numbers::pi / 180;
    const double light_x = std::cos(options.altitude * degree) * std::sin(options.azimuth * degree);
    const double light_y = -std::cos(options.altitude * degree) * std::cos(options.azimuth * degree); // rows go south
    const double light_z = std::sin(options.altitude * degree);
    const double factor = options.exaggeration * options.height_unit;

    const auto [lowest, highest] = std::minmax_element(grid.cells.begin(), grid.cells.end());
    const double base = static_cast<double>(*lowest);
    const double relief = std::max(static_cast<double>(*highest) - base, std::numeric_limits<double>::min());

    std::vector<std::uint8_t> pixels;
    pixels.reserve(grid.size() * 3);
    for (int y = 0; y < grid.height; ++y)
        for (int x = 0; x < grid.width; ++x) {
            if (grid.is_missing(pixels.size() / 3)) {
                put(pixels, white);
                continue;
            }
            const auto height = [&](int dx, int dy) {
                return static_cast<double>(
                    grid.at(std::clamp(x + dx, 0, grid.width - 1), std::clamp(y + dy, 0, grid.height - 1)));
            };
            // B. K. P. Horn, Hill shading and the reflectance map, Proceedings of the IEEE 69(1), 1981: weighted
            // differences over the 3 x 3 neighbourhood. Opposite neighbours are two cells apart, one at the borders.
            const int columns = std::min(x + 1, grid.width - 1) - std::max(x - 1, 0);
            const int rows = std::min(y + 1, grid.height - 1) - std::max(y - 1, 0);
            const double east = height(1, -1) + 2 * height(1, 0) + height(1, 1);
            const double west = height(-1, -1) + 2 * height(-1, 0) + height(-1, 1);
            const double south = height(-1, 1) + 2 * height(0, 1) + height(1, 1);
            const double north = height(-1, -1) + 2 * height(0, -1) + height(1, -1);
            const double slope_x = (east - west) / (4 * cell.x * std::max(columns, 1)) * factor;
            const double slope_y = (south - north) / (4 * cell.y * std::max(rows, 1)) * factor;
            const double cosine = (light_z - slope_x * light_x - slope_y * light_y) /
                                  std::sqrt(slope_x * slope_x + slope_y * slope_y + 1);
            // Some light comes from all of the sky; level ground shows its tint unchanged.
            const double light = (0.25 + 0.75 * std::max(cosine, 0.0)) / (0.25 + 0.75 * std::max(light_z, 0.0));
            const Colour colour = options.tinted ? tint((height(0, 0) - base) / relief) : Colour{184, 184, 184};
            put(pixels, colour, light);
        }
    return pixels;
}

std::vector<std::uint8_t> shade_difference(const Grid& before, const Grid& after, double range) {
    std::vector<std::uint8_t> pixels;
    pixels.reserve(after.size() * 3);
    for (std::size_t i = 0; i < after.size(); ++i) {
        double change = 0;
        if (range > 0 && has_value(before, i) && has_value(after, i))
            change = std::clamp((static_cast<double>(after.cells[i]) - static_cast<double>(before.cells[i])) / range,
                                -1.0, 1.0);
        // The square root shows small changes beside large ones.
        put(pixels, mix(white, change < 0 ? loss_colour : gain_colour, std::sqrt(std::abs(change))));
    }
    return pixels;
}

Change measure_change(const Grid& before, const Grid& after) {
    Change change{std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
    for (std::size_t i = 0; i < after.size(); ++i)
        if (has_value(before, i) && has_value(after, i)) {
            const double difference = static_cast<double>(after.cells[i]) - static_cast<double>(before.cells[i]);
            change.least = std::min(change.least, difference);
            change.greatest = std::max(change.greatest, difference);
        }
    return change.least <= change.greatest ? change : Change{0, 0};
}
