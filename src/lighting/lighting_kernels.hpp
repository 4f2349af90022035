// What one cell of the light pipeline does.
#pragma once

#include <cstddef>

#include <sycl/sycl.hpp>

#include "grid/neighbourhood.hpp"
#include "grid/numeric.hpp"

namespace tarn::lighting {

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
inline Normal normal_at(const Neighbourhood& n, const NormalScale& scale) {
    const float gx = (3.0f * n.c + 10.0f * n.f + 3.0f * n.i) - (3.0f * n.a + 10.0f * n.d + 3.0f * n.g);
    const float gy = (3.0f * n.a + 10.0f * n.b + 3.0f * n.c) - (3.0f * n.g + 10.0f * n.h + 3.0f * n.i);
    const float x = gx * scale.x, y = gy * scale.y, z = scale.z;
    const float l = length(x, y, z);
    const bool is_zero = l == 0.0f;
    return {is_zero ? 0.0f : x / l, is_zero ? 0.0f : y / l, is_zero ? 0.0f : z / l};
}

/// Whether a height is a number.
inline bool is_finite(float height) {
    return height - height == 0.0f;
}

/// What a coarse cell is where the 1-3-3-1 filter meets heights that are not finite: the mean of the others under its
/// weights, so that one such height does not spread over all coarser levels. NaN if there are no others.
inline float mean_of_finite(const float* fine, int x, int y, int columns, int rows) {
    constexpr float weights[] = {0.125f, 0.375f, 0.375f, 0.125f};
    float sum = 0.0f, total = 0.0f;
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column) {
            const float height = fine[static_cast<std::ptrdiff_t>(clamp_index(2 * y - 1 + row, rows)) * columns +
                                      clamp_index(2 * x - 1 + column, columns)];
            if (is_finite(height)) {
                sum += weights[row] * weights[column] * height;
                total += weights[row] * weights[column];
            }
        }
    return sum / total;
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
inline float detail_factor(const Neighbourhood& n, float smooth_height, float normal_z, const DetailScale& scale) {
    const float d = (n.e - smooth_height) * scale.detail;
    const float near = n.d + n.b + n.h + n.f;
    const float far = n.a + n.c + n.g + n.i;
    const float curvature = (n.e - (near * 0.16666667f + far * 0.083333336f)) * scale.curvature;
    const float c = minimum(maximum(curvature, -0.5f), 0.5f) * 0.7f;
    const float e = d * (d > 0.0f ? 1.7f : 0.85f) + (c * scale.levels) * (c > 0.0f ? 0.5f : 1.5f);
    return sycl::exp(minimum(e, 0.0f) + (normal_z * 0.7f - 0.7f) * scale.levels) * (e > 0.0f ? e + 1.0f : 1.0f);
}

} // namespace tarn::lighting
