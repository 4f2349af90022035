#include "shade_preview.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace {

using Colour = std::array<double, 3>;
using Tints = std::array<Colour, 6>;

/// Lowland green over ochre to pale rock, at even steps from the lowest to the highest cell.
constexpr Tints height_tints{
    {{104, 142, 104}, {152, 172, 118}, {204, 196, 142}, {194, 164, 120}, {176, 148, 130}, {236, 232, 228}}};
/// From the darkness of a valley in winter to a slope in full sun.
constexpr Tints sunlight_tints{
    {{24, 20, 56}, {84, 36, 110}, {170, 56, 96}, {228, 110, 64}, {246, 180, 84}, {255, 244, 196}}};
constexpr Colour loss_colour{178, 34, 40};
constexpr Colour gain_colour{32, 90, 170};
constexpr Colour white{255, 255, 255};

Colour mix(const Colour& a, const Colour& b, double weight) {
    Colour result;
    for (std::size_t i = 0; i < 3; ++i)
        result[i] = a[i] + (b[i] - a[i]) * weight;
    return result;
}

Colour tint(const Tints& tints, double fraction) {
    const double place = std::clamp(fraction, 0.0, 1.0) * static_cast<double>(tints.size() - 1);
    const auto first = std::min(static_cast<std::size_t>(place), tints.size() - 2);
    return mix(tints[first], tints[first + 1], place - static_cast<double>(first));
}

void put(std::vector<std::uint8_t>& pixels, const Colour& colour) {
    for (const double channel : colour)
        pixels.push_back(static_cast<std::uint8_t>(std::lround(std::clamp(channel, 0.0, 255.0))));
}

/// Calls `cell(i, colour)` for every cell with its colour by height.
template <class Cell>
void for_tints(const Grid& grid, const Tints& tints, Cell cell) {
    const auto [lowest, highest] = extremes(grid);
    const double base = static_cast<double>(lowest);
    const double range = std::max(static_cast<double>(highest) - base, std::numeric_limits<double>::min());
    for (std::size_t i = 0; i < grid.size(); ++i)
        cell(i, tint(tints, (static_cast<double>(grid.cells[i]) - base) / range));
}

std::vector<std::uint8_t> draw_tints(const Grid& grid, const Tints& tints) {
    std::vector<std::uint8_t> pixels;
    pixels.reserve(grid.size() * 3);
    for_tints(grid, tints,
              [&](std::size_t i, const Colour& colour) { put(pixels, grid.is_missing(i) ? white : colour); });
    return pixels;
}

bool has_value(const Grid& grid, std::size_t i) {
    return !grid.is_missing(i);
}

} // namespace

Surface tinted_surface(const Grid& grid) {
    Surface surface;
    const auto light = [](double channel) {
        return static_cast<float>(light_of(channel / 255));
    };
    for_tints(grid, height_tints, [&](std::size_t, const Colour& colour) {
        surface.red.push_back(light(colour[0]));
        surface.green.push_back(light(colour[1]));
        surface.blue.push_back(light(colour[2]));
    });
    return surface;
}

std::vector<std::uint8_t> shade_relief(Host& host, const Grid& grid, CellSize cell, const ShadeOptions& options) {
    return develop(grid, render(host, grid, cell, options.exaggeration * options.height_unit, light_of_day(options.sun),
                                options.tinted ? tinted_surface(grid) : Surface{}));
}

std::vector<std::uint8_t> shade_heights(const Grid& grid) {
    return draw_tints(grid, height_tints);
}

std::vector<std::uint8_t> shade_sunlight(const Grid& grid) {
    return draw_tints(grid, sunlight_tints);
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
