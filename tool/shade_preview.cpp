#include "shade_preview.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

namespace {

constexpr Colour white{255, 255, 255};

std::uint8_t* put(std::uint8_t* pixel, const Colour& colour) {
    for (const double channel : colour)
        *pixel++ = static_cast<std::uint8_t>(std::lround(std::clamp(channel, 0.0, 255.0)));
    return pixel;
}

/// Colours by value, from the least to the greatest cell of a grid or over a span.
class Tinting {
  public:
    Tinting(const Grid& grid, const Palette& palette, std::optional<Extremes> span) : palette_(palette) {
        const auto [least, greatest] = span ? *span : extremes(grid);
        base_ = static_cast<double>(least);
        range_ = std::max(static_cast<double>(greatest) - base_, std::numeric_limits<double>::min());
    }
    Colour operator()(float value) const { return colour_at(palette_, (static_cast<double>(value) - base_) / range_); }

  private:
    const Palette& palette_;
    double base_, range_;
};

/// A drawing that takes each pixel from `colour_of(i)` of its cell.
template <class ColourOf>
Drawing draw_cells(const Grid& grid, ColourOf colour_of) {
    return {
        .width = grid.width,
        .height = grid.height,
        .draw = [width = static_cast<std::size_t>(grid.width), colour_of](int first, int rows, std::uint8_t* pixel) {
            const std::size_t begin = static_cast<std::size_t>(first) * width;
            for (std::size_t i = begin; i < begin + static_cast<std::size_t>(rows) * width; ++i)
                pixel = put(pixel, colour_of(i));
        }};
}

/// Of a change from -1 to 1. The square root shows small changes beside large ones.
Colour colour_of_change(const Palette& palette, double change) {
    return colour_at(palette, 0.5 + std::copysign(0.5 * std::sqrt(std::abs(change)), change));
}

bool has_value(const Grid& grid, std::size_t i) {
    return !grid.is_missing(i);
}

} // namespace

SurfaceOfRows tinted_surface(const Grid& grid, std::optional<Extremes> span) {
    return [&grid, tinting = Tinting(grid, palette("heights"), span)](int first, int rows) {
        const auto width = static_cast<std::size_t>(grid.width), count = static_cast<std::size_t>(rows) * width;
        const float* const heights = grid.cells.data() + static_cast<std::size_t>(first) * width;
        Surface surface{Cells(count), Cells(count), Cells(count)};
        constexpr std::size_t block = 512;
        tbb::parallel_for(tbb::blocked_range<std::size_t>(0, (count + block - 1) / block), [&](const auto& blocks) {
            std::array<double, block> channels[3];
            for (std::size_t first_cell = blocks.begin() * block; first_cell < std::min(blocks.end() * block, count);
                 first_cell += block) {
                const std::size_t cells = std::min(block, count - first_cell);
                for (std::size_t i = 0; i < cells; ++i) {
                    const Colour colour = tinting(heights[first_cell + i]);
                    for (std::size_t channel = 0; channel < 3; ++channel)
                        channels[channel][i] = colour[channel] / 255;
                }
                Cells* const grids[] = {&surface.red, &surface.green, &surface.blue};
                for (std::size_t channel = 0; channel < 3; ++channel)
                    light_of({channels[channel].data(), cells}, grids[channel]->data() + first_cell);
            }
        });
        return surface;
    };
}

Drawing shade_relief(Host& host, const Grid& grid, CellSize cell, const ShadeOptions& options) {
    return draw_scene(host, {grid, cell, options.exaggeration * options.height_unit, light_of_day(options.sun),
                             options.tinted ? tinted_surface(grid, options.span) : SurfaceOfRows{}});
}

Drawing shade_values(const Grid& grid, const Palette& palette, std::optional<Extremes> span) {
    return draw_cells(grid, [&grid, tinting = Tinting(grid, palette, span)](std::size_t i) {
        return grid.is_missing(i) ? white : tinting(grid.cells[i]);
    });
}

Drawing shade_difference(const Grid& before, const Grid& after, double range) {
    return draw_cells(after, [&, range, &changes = palette("change")](std::size_t i) {
        double change = 0;
        if (range > 0 && has_value(before, i) && has_value(after, i))
            change = std::clamp((static_cast<double>(after.cells[i]) - static_cast<double>(before.cells[i])) / range,
                                -1.0, 1.0);
        return colour_of_change(changes, change);
    });
}

Palette difference_palette() {
    constexpr int steps = 64;
    Palette result{"difference", {}};
    for (int i = -steps; i <= steps; ++i)
        result.colours.push_back(colour_of_change(palette("change"), static_cast<double>(i) / steps));
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
