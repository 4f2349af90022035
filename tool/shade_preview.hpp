#pragma once

#include <cstdint>
#include <vector>

#include "grid.hpp"

/// Light and exaggeration of a shaded picture.
struct ShadeOptions {
    double azimuth = 315;    ///< where the light comes from, degrees clockwise from north
    double altitude = 45;    ///< of the light above the horizon, degrees
    double exaggeration = 1; ///< factor on all heights
    double height_unit = 1;  ///< metres in one unit of height
    bool tinted = true;      ///< colours by height, else grey
};

/// A picture of the grid, 3 bytes a cell. Cells without a value are white.
std::vector<std::uint8_t> shade_relief(const Grid& grid, CellSize cell, const ShadeOptions& options);

/// A picture of after - before: red where material was lost, blue where it was gained, white where nothing changed or
/// where a cell has no value. `range` is the change that takes the full colour; both grids have the same size.
std::vector<std::uint8_t> shade_difference(const Grid& before, const Grid& after, double range);

/// Least and greatest of after - before over the cells that have a value in both.
struct Change {
    double least, greatest;
};
Change measure_change(const Grid& before, const Grid& after);
