// What the tests of flow maps and of colour transport share.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include <tbb/global_control.h>

#include "flow/trail_kernels.hpp"

namespace tarn_test {

using Cells = std::vector<float>;

inline const float not_a_number = std::numeric_limits<float>::quiet_NaN();
inline const float infinity = std::numeric_limits<float>::infinity();

/// Sizes around the shapes of launches, and those whose pits are filled.
inline const std::vector<std::pair<int, int>> awkward_sizes = {
    {1, 1}, {1, 30}, {30, 1}, {2, 2}, {3, 7}, {16, 2}, {33, 47}, {128, 9}, {512, 2}, {1025, 4}, {513, 40}};

/// Limits the kernels to so many threads.
class Threads {
  public:
    explicit Threads(std::size_t count) : limit_(tbb::global_control::max_allowed_parallelism, count) {}

  private:
    tbb::global_control limit_;
};

/// Ground of `height(x, y)`.
struct Ground {
    template <class Height>
    Ground(int width, int rows, Height height) : columns(width), heights() {
        for (int y = 0; y < rows; ++y)
            for (int x = 0; x < width; ++x)
                heights.push_back(height(static_cast<float>(x), static_cast<float>(y)));
    }

    tarn::flow::Terrain terrain() const {
        return {heights.data(), columns, static_cast<int>(heights.size()) / columns};
    }

    int columns;
    Cells heights;
};

/// A table of directions that kicks nobody, and one that kicks everybody the same way.
inline Cells kicks(float x, float y) {
    Cells table;
    for (std::uint32_t i = 0; i < tarn::flow::direction_count; ++i) {
        table.push_back(x);
        table.push_back(y);
    }
    return table;
}

inline double sum(const Cells& cells) {
    double total = 0.0;
    for (const float cell : cells)
        total += static_cast<double>(cell);
    return total;
}

} // namespace tarn_test
