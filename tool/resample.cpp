#include "resample.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "grid_file.hpp"
#include "message.hpp"

namespace {

std::size_t index(GridSize size, int x, int y) {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(size.width) + static_cast<std::size_t>(x);
}

Cells make_cells(GridSize size) {
    return Cells(index(size, 0, size.height));
}

/// Where a cell centre of the new grid falls between two of the old one, along one axis.
struct Position {
    int first, second;
    float weight; ///< of the second
};

std::vector<Position> positions(int from, int to) {
    std::vector<Position> result(static_cast<std::size_t>(to));
    for (int i = 0; i < to; ++i) {
        const double place = std::clamp((i + 0.5) * from / to - 0.5, 0.0, from - 1.0);
        const int first = static_cast<int>(place);
        result[static_cast<std::size_t>(i)] = {first, std::min(first + 1, from - 1), static_cast<float>(place - first)};
    }
    return result;
}

float mix(float a, float b, float weight) {
    return a + (b - a) * weight;
}

} // namespace

GridSize round_up(GridSize size, int multiple) {
    const auto up = [multiple](int value) {
        const long long rounded = (static_cast<long long>(value) + multiple - 1) / multiple * multiple;
        if (rounded > 0x7fffffff)
            throw std::length_error("the grid is too large to be padded");
        return static_cast<int>(rounded);
    };
    return {up(size.width), up(size.height)};
}

Cells pad(Cells cells, GridSize from, GridSize to) {
    if (from == to)
        return cells;
    Cells result = make_cells(to);
    for (int y = 0; y < to.height; ++y) {
        const float* const row = &cells[index(from, 0, std::min(y, from.height - 1))];
        float* const rest = std::copy_n(row, from.width, &result[index(to, 0, y)]);
        std::fill_n(rest, to.width - from.width, row[from.width - 1]);
    }
    return result;
}

Cells crop(Cells cells, GridSize from, GridSize to) {
    if (from == to)
        return cells;
    Cells result = make_cells(to);
    for (int y = 0; y < to.height; ++y)
        std::copy_n(cells.begin() + static_cast<std::ptrdiff_t>(index(from, 0, y)), to.width,
                    result.begin() + static_cast<std::ptrdiff_t>(index(to, 0, y)));
    return result;
}

Cells resample(const Cells& cells, GridSize from, GridSize to) {
    const std::vector<Position> columns = positions(from.width, to.width);
    const std::vector<Position> rows = positions(from.height, to.height);
    Cells result = make_cells(to);
    for (int y = 0; y < to.height; ++y) {
        const Position row = rows[static_cast<std::size_t>(y)];
        for (int x = 0; x < to.width; ++x) {
            const Position column = columns[static_cast<std::size_t>(x)];
            const float upper = mix(cells[index(from, column.first, row.first)],
                                    cells[index(from, column.second, row.first)], column.weight);
            const float lower = mix(cells[index(from, column.first, row.second)],
                                    cells[index(from, column.second, row.second)], column.weight);
            result[index(to, x, y)] = mix(upper, lower, row.weight);
        }
    }
    return result;
}

Grid stretched(const Grid& grid, GridSize size) {
    const GridSize own_size{grid.width, grid.height};
    Grid result = grid;
    result.width = size.width;
    result.height = size.height;
    result.cells = resample(grid.cells, own_size, size);
    if (!grid.missing.empty()) {
        result.missing.assign(result.size(), 0);
        const std::vector<Position> columns = positions(own_size.width, size.width);
        const std::vector<Position> rows = positions(own_size.height, size.height);
        const auto nearer = [](const Position& p) {
            return p.weight < 0.5f ? p.first : p.second;
        };
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x)
                result.missing[index(size, x, y)] = grid.missing[index(
                    own_size, nearer(columns[static_cast<std::size_t>(x)]), nearer(rows[static_cast<std::size_t>(y)]))];
    }
    if (result.geotransform) {
        auto& map = *result.geotransform;
        for (const std::size_t along_column : {std::size_t{1}, std::size_t{4}})
            map[along_column] *= static_cast<double>(own_size.width) / size.width;
        for (const std::size_t along_row : {std::size_t{2}, std::size_t{5}})
            map[along_row] *= static_cast<double>(own_size.height) / size.height;
    }
    return result;
}

Grid thinned(const Grid& grid, std::size_t most) {
    if (grid.size() <= most)
        return grid;
    const double factor = std::sqrt(static_cast<double>(grid.size()) / static_cast<double>(most));
    const auto fewer = [factor](int cells) {
        return std::max(1, static_cast<int>(cells / factor));
    };
    const GridSize own_size{grid.width, grid.height};
    const GridSize size{fewer(grid.width), fewer(grid.height)};
    const int side = static_cast<int>(std::lround(factor)); // of a square
    const GridSize even_size{size.width * side, size.height * side};
    Grid result = stretched(grid, size);
    const Cells cells = own_size == even_size ? grid.cells : resample(grid.cells, own_size, even_size);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            double sum = 0;
            for (int j = 0; j < side; ++j)
                for (int i = 0; i < side; ++i)
                    sum += static_cast<double>(cells[index(even_size, x * side + i, y * side + j)]);
            result.at(x, y) = static_cast<float>(sum / (side * side));
        }
    return result;
}

Cells fitted_cells(Grid grid, GridSize size, const std::string& what) {
    const GridSize own_size{grid.width, grid.height};
    if (own_size == size)
        return std::move(grid.cells);
    print_note(format_text("%s is resampled from %d x %d to %d x %d cells", what.c_str(), own_size.width,
                           own_size.height, size.width, size.height));
    return resample(grid.cells, own_size, size);
}

Cells read_mask(const std::string& name, GridSize size, const std::string& what) {
    Grid grid = read_grid(name, Holes::are_zero);
    const float highest = *std::max_element(grid.cells.begin(), grid.cells.end());
    if (grid.integer_maximum > 0 && highest > 1)
        for (float& cell : grid.cells)
            cell /= static_cast<float>(grid.integer_maximum);
    return fitted_cells(std::move(grid), size, what);
}
