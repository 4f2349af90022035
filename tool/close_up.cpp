#include "close_up.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

namespace {

/// Where a cell centre of the new grid falls in the old one, along one axis.
struct Taps {
    std::array<int, 4> cells;
    std::array<float, 4> weights;
    int nearest;
};

/// `extent` cells from `start` on, out of `total`, over `count` cells. Cells of the old grid around the part count too.
std::vector<Taps> taps(int start, int extent, int total, int count) {
    std::vector<Taps> result;
    for (int i = 0; i < count; ++i) {
        const double place = start + (i + 0.5) * extent / count - 0.5;
        const double left = std::floor(place);
        const double t = place - left;
        const auto cell = [=](int offset) {
            return std::clamp(static_cast<int>(left) + offset, 0, total - 1);
        };
        const std::array<double, 4> weights = {((-0.5 * t + 1.0) * t - 0.5) * t, (1.5 * t - 2.5) * t * t + 1.0,
                                               ((-1.5 * t + 2.0) * t + 0.5) * t, (0.5 * t - 0.5) * t * t};
        Taps tap{{cell(-1), cell(0), cell(1), cell(2)}, {}, cell(t < 0.5 ? 0 : 1)};
        for (std::size_t k = 0; k < weights.size(); ++k)
            tap.weights[k] = static_cast<float>(weights[k]);
        result.push_back(tap);
    }
    return result;
}

template <class Value>
float weighted_sum(const Taps& tap, const Value& value) {
    float sum = 0;
    for (std::size_t k = 0; k < tap.cells.size(); ++k)
        sum += tap.weights[k] * value(tap.cells[k]);
    return sum;
}

} // namespace

Grid close_up(const Grid& grid, const Window& window, GridSize size) {
    const std::vector<Taps> columns = taps(window.column, window.size.width, grid.width, size.width);
    const std::vector<Taps> rows = taps(window.row, window.size.height, grid.height, size.height);
    Grid result = grid;
    result.width = size.width;
    result.height = size.height;
    result.cells.clear();
    result.missing.clear();
    for (const Taps& row : rows)
        for (const Taps& column : columns) {
            result.cells.push_back(
                weighted_sum(row, [&](int y) { return weighted_sum(column, [&](int x) { return grid.at(x, y); }); }));
            if (!grid.missing.empty())
                result.missing.push_back(
                    grid.missing[static_cast<std::size_t>(row.nearest) * static_cast<std::size_t>(grid.width) +
                                 static_cast<std::size_t>(column.nearest)]);
        }
    if (result.geotransform) {
        auto& map = *result.geotransform;
        for (const std::size_t axis : {std::size_t{0}, std::size_t{3}}) {
            map[axis] += map[axis + 1] * window.column + map[axis + 2] * window.row;
            map[axis + 1] *= static_cast<double>(window.size.width) / size.width;
            map[axis + 2] *= static_cast<double>(window.size.height) / size.height;
        }
    }
    return result;
}
