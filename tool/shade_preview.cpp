#include "shade_preview.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr Colour white{255, 255, 255};

void put(std::vector<std::uint8_t>& pixels, const Colour& colour) {
    for (const double channel : colour)
        pixels.push_back(static_cast<std::uint8_t>(std::lround(std::clamp(channel, 0.0, 255.0))));
}

/// Calls `cell(i, colour)` for every cell with its colour by height.
template <class Cell>
void for_tints(const Grid& grid, const Palette& tints, std::optional<Extremes> span, Cell cell) {
    const auto [lowest, highest] = span ? *span : extremes(grid);
    const double base = static_cast<double>(lowest);
    const double range = std::max(static_cast<double>(highest) - base, std::numeric_limits<double>::min());
    for (std::size_t i = 0; i < grid.size(); ++i)
        cell(i, colour_at(tints, (static_cast<double>(grid.cells[i]) - base) / range));
}

/// Of a change from -1 to 1. The square root shows small changes beside large ones.
Colour colour_of_change(double change) {
    return colour_at(palette("change"), 0.5 + std::copysign(0.5 * std::sqrt(std::abs(change)), change));
}

bool has_value(const Grid& grid, std::size_t i) {
    return !grid.is_missing(i);
}

} // namespace

Surface tinted_surface(const Grid& grid, std::optional<Extremes> span) {
    Surface surface;
    const auto light = [](double channel) {
        return static_cast<float>(light_of(channel / 255));
    };
    for_tints(grid, palette("heights"), span, [&](std::size_t, const Colour& colour) {
        surface.red.push_back(light(colour[0]));
        surface.green.push_back(light(colour[1]));
        surface.blue.push_back(light(colour[2]));
    });
    return surface;
}

std::vector<std::uint8_t> shade_relief(Host& host, const Grid& grid, CellSize cell, const ShadeOptions& options) {
    return develop(grid, render(host, grid, cell, options.exaggeration * options.height_unit, light_of_day(options.sun),
                                options.tinted ? tinted_surface(grid, options.span) : Surface{}));
}

std::vector<std::uint8_t> shade_values(const Grid& grid, const Palette& palette, std::optional<Extremes> span) {
    std::vector<std::uint8_t> pixels;
    pixels.reserve(grid.size() * 3);
    for_tints(grid, palette, span,
              [&](std::size_t i, const Colour& colour) { put(pixels, grid.is_missing(i) ? white : colour); });
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
        put(pixels, colour_of_change(change));
    }
    return pixels;
}

Palette difference_palette() {
    constexpr int steps = 64;
    Palette result{"difference", {}};
    for (int i = -steps; i <= steps; ++i)
        result.colours.push_back(colour_of_change(static_cast<double>(i) / steps));
    return result;
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
