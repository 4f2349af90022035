// Bilinear samples of a grid at points in cells, whose centres lie at one half.
#pragma once

#include <cstddef>

#include "grid/numeric.hpp"

namespace tarn {

/// The cell of a coordinate, truncated toward zero; coordinates beyond the integers, and NaN, end up far off any grid.
inline int cell_of(float coordinate) {
    constexpr float last = 2147483520.0f; // the largest float that an int holds
    return static_cast<int>(minimum(maximum(-last, coordinate), last));
}

/// The value at (x, y) of a grid of `width` by `height` numbers or vectors. The weights are not clamped: up to a cell
/// off the left and upper border the slope goes on, everywhere else off the grid the border cells do.
template <class T>
inline T bilinear(const T* grid, int width, int height, float x, float y) {
    x -= 0.5f;
    y -= 0.5f;
    const int column = cell_of(x), row = cell_of(y);
    const int i0 = clamp_index(column, width), i1 = clamp_index(column + 1, width);
    const int j0 = clamp_index(row, height), j1 = clamp_index(row + 1, height);
    const float fx = x - static_cast<float>(i0);
    const float fy = y - static_cast<float>(j0);
    const T* upper = grid + static_cast<std::ptrdiff_t>(j0) * width;
    const T* lower = grid + static_cast<std::ptrdiff_t>(j1) * width;
    return upper[i0] * (1.0f - fx) * (1.0f - fy) + upper[i1] * fx * (1.0f - fy) + lower[i0] * (1.0f - fx) * fy +
           lower[i1] * fx * fy;
}

} // namespace tarn
