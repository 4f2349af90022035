#pragma once

#include "grid.hpp"
#include "resample.hpp"

/// A part of a grid.
struct Window {
    int column = 0, row = 0; ///< of the upper left cell
    GridSize size{0, 0};
};

/// A part of a grid drawn over another number of cells on the same ground, with the place on the map that it has there.
/// Between cell centres heights follow R. G. Keys's cubic convolution (1981), so that enlarged slopes are smooth.
Grid close_up(const Grid& grid, const Window& window, GridSize size);
