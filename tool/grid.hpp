#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cells.hpp"

struct CellSize {
    double x, y; ///< metres
};

/// A grid of floats as the library takes it (row after row, no gaps, north at the top), with what its file said about
/// it.
struct Grid {
    int width = 0;
    int height = 0;
    Cells cells;

    /// 1 where the file has no value; empty if every cell has one. Such cells hold a stand-in to work on, and are
    /// written without a value again.
    std::vector<std::uint8_t> missing;
    std::optional<double> missing_value; ///< the number that stands for "no value" in the file, if there is one

    std::optional<std::array<double, 6>> geotransform; ///< GDAL's affine map from (column, row) to map coordinates
    std::string coordinate_system;                     ///< WKT, or empty
    std::string unit;                                  ///< of the values, as the file names it, or empty
    std::optional<CellSize> cell_size;                 ///< on the ground, where nothing else tells it
    bool was_south_up = false;                         ///< the file has its rows from south to north

    /// Largest value of the file's integer type, or 0 for a file of floating-point numbers.
    double integer_maximum = 0;

    std::size_t size() const { return cells.size(); }
    float& at(int x, int y) { return cells[index(x, y)]; }
    float at(int x, int y) const { return cells[index(x, y)]; }
    bool is_missing(std::size_t i) const { return !missing.empty() && missing[i] != 0; }

  private:
    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
    }
};

/// Turns the order of the rows of cells.
template <class Cell, class Allocator>
void reverse_rows(std::vector<Cell, Allocator>& cells, int width) {
    const auto length = static_cast<std::size_t>(width);
    for (std::size_t top = 0, bottom = cells.size() - length; top < bottom; top += length, bottom -= length)
        std::swap_ranges(&cells[top], &cells[top] + length, &cells[bottom]);
}

/// Turns the rows of a grid, and its place on the map with them.
void flip_rows(Grid& grid);

/// Least and greatest of the cells that have a value; 0 and 0 if none has.
struct Extremes {
    float least, greatest;
};
Extremes extremes(const Grid& grid);

/// A grid of the same shape and place with other cells.
Grid with_cells(const Grid& grid, Cells cells);

/// Size of a cell on the ground, if the grid is georeferenced. Degrees are turned into metres at the grid's centre.
std::optional<CellSize> ground_cell_size(const Grid& grid);
