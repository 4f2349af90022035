// What one cell of a height grid or of a grid of normals does.
#pragma once

#include <cstddef>

#include "grid/neighbourhood.hpp"
#include "mesh/vectors.hpp"

namespace tarn::mesh_rasterizer {

/// `z` is what a gradient of 32 along one axis is worth upwards: the operator's weights add up to 32 cells.
inline vec3 scharr_normal(const Neighbourhood& n, float z) {
    const float gx = ((n.c + n.i) - (n.a + n.g)) * 3.0f + (n.f - n.d) * 10.0f;
    // From the lower row to the upper one: downhill already.
    const float gy = ((n.a + n.c) - (n.g + n.i)) * 3.0f + (n.b - n.h) * 10.0f;
    return unit_vector(vec3(-gx, gy, z));
}

/// The four quads' gradients, each weighted by its square. `z` is one cell in the unit of the heights.
inline vec3 steepest_quad_normal(const Neighbourhood& n, float z) {
    float sum_x = 0.0f, sum_y = 0.0f, weights = 0.0f;
    const auto add_quad = [&](float upper_left, float upper_right, float lower_left, float lower_right) {
        const float gx = ((upper_right + lower_right) - (upper_left + lower_left)) * 0.5f;
        const float gy = ((lower_left + lower_right) - (upper_left + upper_right)) * 0.5f;
        const float weight = gx * gx + gy * gy;
        sum_x += weight * gx;
        sum_y += weight * gy;
        weights += weight;
    };
    add_quad(n.a, n.b, n.d, n.e);
    add_quad(n.b, n.c, n.e, n.f);
    add_quad(n.d, n.e, n.g, n.h);
    add_quad(n.e, n.f, n.h, n.i);
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
