// How one vertex is displaced by three maps, one to each axis plane.
#pragma once

#include <cmath>

#include "grid/bilinear.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

/// The three maps, all of the same size.
struct DisplacementMaps {
    const float* xy;
    const float* xz;
    const float* yz;
    int width, height;
};

/// Unit space to frame space by way of the maps. `horizontal` moves sideways alone and blends the maps softly; the
/// other form moves along the whole normal, and the fourth powers let the map that the surface faces stand out.
template <bool horizontal>
struct Displacement {
    DisplacementMaps maps;
    float resolution_x, resolution_y; ///< of the frame
    float map_ratio;                  ///< the maps' width over the frame's
    float amount, bias;
    vec3 size; ///< of unit space in frame space

    vec3 operator()(const vec3& v, const vec3& normal) const {
        const float cells = resolution_x * map_ratio;
        const auto sample = [&](const float* map, float x, float y) {
            return bilinear(map, maps.width, maps.height, x, y);
        };
        const float xy = sample(maps.xy, v.x() * resolution_x * map_ratio, v.y() * resolution_y * map_ratio);
        const float xz = sample(maps.xz, v.x() * cells, v.z() * cells);
        const float yz = sample(maps.yz, v.y() * cells, v.z() * cells);

        float wx = weight(normal.x()), wy = weight(normal.y()), wz = weight(normal.z());
        const float sum = wx + wy + wz;
        if (sum > 0.0f)
            wx /= sum, wy /= sum, wz /= sum;
        else
            wx = wy = wz = 0.0f;
        const float distance = yz * wx + xz * wy + xy * wz + bias;
        return (v + distance * direction(normal) * amount) * size;
    }

  private:
    static float weight(float component) {
        const float facing = sycl::fabs(component);
        return horizontal ? facing : (facing * facing) * (facing * facing);
    }

    static vec3 direction(const vec3& normal) {
        if (!horizontal)
            return normal;
        const float length = sycl::sqrt(normal.x() * normal.x() + normal.y() * normal.y());
        return length > 0.0f ? vec3(normal.x() / length, normal.y() / length, 0.0f)
                             : vec3(normal.x(), normal.y(), 0.0f);
    }
};

} // namespace tarn::mesh_rasterizer
