// What one cell of a height grid or of a grid of normals does.
#pragma once

#include <cstddef>

#include "grid/numeric.hpp"
#include "mesh/vectors.hpp"

namespace tarn::mesh_rasterizer {

/// A cell's 3 x 3 neighbourhood, with the last cells repeated beyond the rim: n[row][column], the cell in the middle.
struct Neighbourhood {
    template <class ColumnKind>
    Neighbourhood(const float* heights, const Extent<2>& extent, int x, int y, ColumnKind) {
        const int width = static_cast<int>(extent.x()), height = static_cast<int>(extent.y());
        const int columns[3] = {ColumnKind::value ? x - 1 : maximum(x - 1, 0), x,
                                ColumnKind::value ? x + 1 : minimum(x + 1, width - 1)};
        const int rows[3] = {maximum(y - 1, 0), y, minimum(y + 1, height - 1)};
        for (int j = 0; j < 3; ++j) {
            const float* row = heights + static_cast<std::ptrdiff_t>(rows[j]) * width;
            for (int i = 0; i < 3; ++i)
                n[j][i] = row[columns[i]];
        }
    }

    float n[3][3];
};

/// `z` is what a gradient of 32 along one axis is worth upwards: the operator's weights add up to 32 cells.
inline vec3 scharr_normal(const Neighbourhood& around, float z) {
    const auto& n = around.n;
    const float gx = ((n[0][2] + n[2][2]) - (n[0][0] + n[2][0])) * 3.0f + (n[1][2] - n[1][0]) * 10.0f;
    // From the lower row to the upper one: downhill already.
    const float gy = ((n[0][0] + n[0][2]) - (n[2][0] + n[2][2])) * 3.0f + (n[0][1] - n[2][1]) * 10.0f;
    return unit_vector(vec3(-gx, gy, z));
}

/// The four quads' gradients, each weighted by its square. `z` is one cell in the unit of the heights.
inline vec3 steepest_quad_normal(const Neighbourhood& around, float z) {
    const auto& n = around.n;
    float sum_x = 0.0f, sum_y = 0.0f, weights = 0.0f;
    for (int j = 0; j < 2; ++j) {
        for (int i = 0; i < 2; ++i) {
            const float gx = ((n[j][i + 1] + n[j + 1][i + 1]) - (n[j][i] + n[j + 1][i])) * 0.5f;
            const float gy = ((n[j + 1][i] + n[j + 1][i + 1]) - (n[j][i] + n[j][i + 1])) * 0.5f;
            const float weight = gx * gx + gy * gy;
            sum_x += weight * gx;
            sum_y += weight * gy;
            weights += weight;
        }
    }
    const bool slopes = weights > 0.0f;
    return unit_vector(vec3(slopes ? -(sum_x / weights) : 0.0f, slopes ? -(sum_y / weights) : 0.0f, z));
}

/// Calls `tap(normal, dx, dy)` for the cells of a 3 x 3 neighbourhood that lie on the grid.
template <class Tap>
inline void for_taps(const vec3* normals, const Extent<2>& extent, int x, int y, const Tap& tap) {
    const int width = static_cast<int>(extent.x()), height = static_cast<int>(extent.y());
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
            if (x + dx >= 0 && x + dx < width && y + dy >= 0 && y + dy < height)
                tap(normals[static_cast<std::ptrdiff_t>(y + dy) * width + (x + dx)], dx, dy);
}

inline vec3 spread_normal(const vec3* normals, const Extent<2>& extent, int x, int y) {
    vec3 sum(0.0f, 0.0f, 0.0f);
    float weights = 0.0f;
    for_taps(normals, extent, x, y, [&](const vec3& n, int dx, int dy) {
        const float slope = n.x() * n.x() + n.y() * n.y() + 1e-10f;
        const float weight = slope * (dx != 0 && dy != 0 ? 0.5f : 1.0f);
        sum = sum + n * weight;
        weights += weight;
    });
    return unit_vector(sum / weights);
}

inline vec3 sharpened_normal(const vec3* normals, const Extent<2>& extent, int x, int y) {
    const auto weight = [](int offset) {
        return 1.5f - 1.75f * static_cast<float>(offset * offset);
    };
    vec3 sum(0.0f, 0.0f, 0.0f);
    for_taps(normals, extent, x, y, [&](const vec3& n, int dx, int dy) { sum = sum + n * (weight(dx) * weight(dy)); });
    return unit_vector(sum);
}

} // namespace tarn::mesh_rasterizer
