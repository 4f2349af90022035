// What one cell does in a pass of pit filling.
#pragma once

#include <cstddef>

#include "grid/numeric.hpp"

namespace tarn::flow {

/// The lowest and the second lowest of a cell's neighbours.
struct LowestNeighbours {
    static constexpr float none = 3.4028235e+38f;

    float lowest = none;
    float second = none;

    void add(float neighbour) {
        const bool is_lowest = neighbour < lowest;
        const float rest = neighbour < second ? neighbour : second;
        second = is_lowest ? lowest : rest;
        lowest = is_lowest ? neighbour : lowest;
    }

    /// The second lowest, or the only one.
    float level() const { return second == none ? lowest : second; }
};

/// The height up to which cell (x, y) is filled. With `interior` all eight neighbours lie inside the grid.
template <bool interior>
inline float fill_level(const float* heights, int x, int y, int columns, int rows) {
    LowestNeighbours neighbours;
    if constexpr (interior) {
        const float* here = heights + static_cast<std::ptrdiff_t>(y) * columns + x;
        const float* up = here - columns;
        const float* down = here + columns;
        neighbours.add(up[-1]);
        neighbours.add(up[0]);
        neighbours.add(up[1]);
        neighbours.add(here[-1]);
        neighbours.add(here[1]);
        neighbours.add(down[-1]);
        neighbours.add(down[0]);
        neighbours.add(down[1]);
    } else {
        for (int j = maximum(y - 1, 0); j <= minimum(y + 1, rows - 1); ++j)
            for (int i = maximum(x - 1, 0); i <= minimum(x + 1, columns - 1); ++i)
                if (i != x || j != y)
                    neighbours.add(heights[static_cast<std::ptrdiff_t>(j) * columns + i]);
    }
    return neighbours.level();
}

} // namespace tarn::flow
