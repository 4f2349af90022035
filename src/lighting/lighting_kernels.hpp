// What one cell of the light pipeline does.
#pragma once

#include <cstddef>

#include <sycl/sycl.hpp>

#include "grid/numeric.hpp"

namespace tarn::lighting {

/// A cell's index with those of its eight neighbours' rows and columns; edge cells are repeated beyond the border.
struct Neighbours {
    const float* up;
    const float* here;
    const float* down;
    int left;
    int x;
    int right;
};

/// With `interior` nothing needs a clamp.
template <bool interior>
inline Neighbours neighbours_of(const float* grid, int x, int y, int columns, int rows) {
    const auto row = [=](int index) {
        return grid + static_cast<std::ptrdiff_t>(index) * columns;
    };
    return {row(interior ? y - 1 : maximum(y - 1, 0)), row(y), row(interior ? y + 1 : minimum(y + 1, rows - 1)),
            interior ? x - 1 : maximum(x - 1, 0),      x,      interior ? x + 1 : minimum(x + 1, columns - 1)};
}

/// What turns the differences of a cell's neighbours into a normal. The operator has a weight of 16 over two cells:
/// z is 32 times the width of a cell, the others are the world units of a unit of height.
struct NormalScale {
    float x;
    float y;
    float z;
};

struct Normal {
    float x;
    float y;
    float z;
};

/// The normal by the 3-10-3 operator of H. Scharr.
inline Normal normal_at(const Neighbours& n, const NormalScale& scale) {
    const float gx = (3.0f * n.up[n.right] + 10.0f * n.here[n.right] + 3.0f * n.down[n.right]) -
                     (3.0f * n.up[n.left] + 10.0f * n.here[n.left] + 3.0f * n.down[n.left]);
    const float gy = (3.0f * n.up[n.left] + 10.0f * n.up[n.x] + 3.0f * n.up[n.right]) -
                     (3.0f * n.down[n.left] + 10.0f * n.down[n.x] + 3.0f * n.down[n.right]);
    const float x = gx * scale.x, y = gy * scale.y, z = scale.z;
    const float length = sycl::sqrt(x * x + y * y + z * z);
    const bool is_zero = length == 0.0f;
    return {is_zero ? 0.0f : x / length, is_zero ? 0.0f : y / length, is_zero ? 0.0f : z / length};
}

/// How the relief that the coarse levels lack changes the occlusion.
struct DetailScale {
    /// Makes a height difference a curvature in coarse cells.
    float curvature;
    /// Makes the height above the smooth surface an exponent.
    float detail;
    /// Grows with the number of levels that were not traced.
    float levels;
};

/// The factor on the upsampled occlusion: cells above their surroundings get lighter, hollows and slopes darker.
inline float detail_factor(const Neighbours& n, float smooth_height, float normal_z, const DetailScale& scale) {
    const float h = n.here[n.x];
    const float d = (h - smooth_height) * scale.detail;
    const float near = n.here[n.left] + n.up[n.x] + n.down[n.x] + n.here[n.right];
    const float far = n.up[n.left] + n.up[n.right] + n.down[n.left] + n.down[n.right];
    const float curvature = (h - (near * 0.16666667f + far * 0.083333336f)) * scale.curvature;
    const float c = minimum(maximum(curvature, -0.5f), 0.5f) * 0.7f;
    const float e = d * (d > 0.0f ? 1.7f : 0.85f) + (c * scale.levels) * (c > 0.0f ? 0.5f : 1.5f);
    return sycl::exp(minimum(e, 0.0f) + (normal_z * 0.7f - 0.7f) * scale.levels) * (e > 0.0f ? e + 1.0f : 1.0f);
}

} // namespace tarn::lighting
