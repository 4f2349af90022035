// A cell with its eight neighbours: the fetch that all 3 x 3 operators share. The operators stay where they are used,
// since the order of their operations is the result.
#pragma once

#include <cstddef>

#include "grid/numeric.hpp"

namespace tarn {

/// A cell `e` with its eight neighbours, row by row; edge cells are repeated beyond the border.
struct Neighbourhood {
    float a, b, c;
    float d, e, f;
    float g, h, i;
};

/// The three rows that the neighbourhoods of one row lie in.
struct NeighbourRows {
    const float* up;
    const float* middle;
    const float* down;
};

/// With `interior` the row has one above and one below it.
template <bool interior = false>
inline NeighbourRows neighbour_rows(const float* grid, int width, int height, int y) {
    const auto row = [=](int index) {
        return grid + static_cast<std::ptrdiff_t>(index) * width;
    };
    return {row(interior ? y - 1 : maximum(y - 1, 0)), row(y), row(interior ? y + 1 : minimum(y + 1, height - 1))};
}

/// With `interior` the columns need no clamp.
template <bool interior>
inline Neighbourhood neighbourhood(const NeighbourRows& rows, int width, int x) {
    const int l = interior ? x - 1 : maximum(x - 1, 0);
    const int r = interior ? x + 1 : minimum(x + 1, width - 1);
    return {rows.up[l],     rows.up[x],     rows.up[r],     //
            rows.middle[l], rows.middle[x], rows.middle[r], //
            rows.down[l],   rows.down[x],   rows.down[r]};
}

/// With `interior` all eight neighbours lie inside the grid.
template <bool interior>
inline Neighbourhood neighbourhood(const float* grid, int width, int height, int x, int y) {
    return neighbourhood<interior>(neighbour_rows<interior>(grid, width, height, y), width, x);
}

} // namespace tarn
