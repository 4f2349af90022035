#pragma once

#include <string>
#include <vector>

#include "grid.hpp"

struct GridSize {
    int width, height;

    bool operator==(const GridSize&) const = default;
};

/// How a grid is brought to a size that suits a computation.
enum class Fit { pad, resample, none };

/// The smallest size whose sides are multiples of `multiple` and no smaller than those of `size`.
GridSize round_up(GridSize size, int multiple);

/// Adds columns on the right and rows at the bottom that repeat the last ones.
Cells pad(Cells cells, GridSize from, GridSize to);

/// Takes the upper left corner: undoes pad.
Cells crop(Cells cells, GridSize from, GridSize to);

/// Stretches the grid over another number of cells, bilinear between cell centres.
Cells resample(const Cells& cells, GridSize from, GridSize to);

/// The grid stretched over another number of cells on the same ground.
Grid stretched(const Grid& grid, GridSize size);

/// The grid on at most so many cells of the same ground, each the mean of a square of the old ones, or about so; the
/// grid itself where it has no more.
Grid thinned(const Grid& grid, std::size_t most);

/// The cells of a grid, resampled with a note if its size is another one; `what` names it there, as in "the mask".
Cells fitted_cells(Grid grid, GridSize size, const std::string& what);

/// Reads a mask for a terrain of `size`. A painted mask goes up to the largest number of its type, a drawn one up to 1:
/// both end up from 0 to 1. `what` names it if it has to be resampled.
Cells read_mask(const std::string& name, GridSize size, const std::string& what = "the mask");
