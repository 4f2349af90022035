// What one triangle adds to its vertices' frames, how a ray meets a height grid, and what one baked cell does.
#pragma once

#include <cmath>
#include <cstddef>
#include <limits>

#include "grid/bilinear.hpp"
#include "grid/numeric.hpp"
#include "mesh/mesh_kernels.hpp"
#include "mesh/vectors.hpp"

namespace tarn::mesh_rasterizer {

/// A triangle's normal and tangent, and the angles at its corners. A triangle that the frame shows has a normal towards
/// positive z.
struct TriangleFrame {
    TriangleFrame(const vec3& a, const vec3& b, const vec3& c) {
        const vec3 e1 = b - a, e2 = c - a;
        const vec3 u1 = unit_vector(b - a), u2 = unit_vector(c - b), u3 = unit_vector(a - c);
        normal = unit_vector(vector_product(e2, e1));
        angles[0] = angle(u1, -u3);
        angles[1] = angle(u2, -u1);
        angles[2] = angle(u3, -u2);
        const float area = e1.x() * e2.y() - e2.x() * e1.y();
        const float rise = (e1.z() * e2.y() - e2.z() * e1.y()) / area;
        has_tangent = std::isfinite(rise);
        tangent = vec3(1.0f, 0.0f, rise);
    }

    vec3 normal;
    vec3 tangent;
    float angles[3];
    bool has_tangent;

  private:
    static float angle(const vec3& from, const vec3& to) {
        // Roundings may take the product of parallel directions past 1.
        return std::acos(minimum(maximum(scalar_product(from, to), -1.0f), 1.0f));
    }
};

/// A height grid in cells along all three axes.
struct Surface {
    const float* heights;
    int width, height;
    float z_scale; ///< cells in a height of 1.0

    float operator()(const vec3& p) const { return bilinear(heights, width, height, p.x(), p.y()) * z_scale; }
};

/// A ray on its way to a surface, from either side of it.
struct Ray {
    vec3 at(float t) const {
        return vec3(origin.x() + direction.x() * t, origin.y() + direction.y() * t, origin.z() + direction.z() * t);
    }

    /// How far `p` is from the surface along z: above 0 on the side of the origin.
    float distance(const Surface& surface, const vec3& p) const { return side * (p.z() - surface(p)); }

    vec3 origin;
    vec3 direction;
    float side; ///< 1 above the surface, -1 below it
};

/// Where a ray leaves the grid, in its steps. An axis along which it does not move sets no limit, unless the origin
/// lies past the last cell's corner.
inline float steps_to_rim(const Ray& ray, int width, int height) {
    const auto along = [](float origin, float direction, int size) {
        return maximum(-origin / direction, (static_cast<float>(size - 1) - origin) / direction);
    };
    return minimum(along(ray.origin.x(), ray.direction.x(), width), along(ray.origin.y(), ray.direction.y(), height));
}

/// How many steps from `p` = ray.at(t) on surely do not meet the surface, since it cannot come near enough while the
/// ray stays over the same four cell centres. 0 or less if that cannot be told. Where the surface is not finite, it is
/// nowhere between these four.
inline float steps_off_surface(const Ray& ray, const Surface& surface, float t, const vec3& p) {
    const float cells = static_cast<float>(surface.width) + static_cast<float>(surface.height);
    const float position_error = 1e-6f * cells;
    float steps = std::numeric_limits<float>::infinity();
    for (int axis = 0; axis < 2; ++axis) {
        const float per_step = ray.direction[axis];
        if (per_step == 0.0f)
            continue;
        const float before = (p[axis] - 0.5f) - std::floor(p[axis] - 0.5f), behind = 1.0f - before;
        if (!(minimum(before, behind) > position_error))
            return 0.0f;
        steps = minimum(steps, ((per_step > 0.0f ? behind : before) - position_error) / std::abs(per_step));
    }
    const float distance = ray.distance(surface, p);
    if (!std::isfinite(distance))
        return steps;

    const int column = cell_of(p.x() - 0.5f), row = cell_of(p.y() - 0.5f);
    const int i0 = clamp_index(column, surface.width), i1 = clamp_index(column + 1, surface.width);
    const int j0 = clamp_index(row, surface.height), j1 = clamp_index(row + 1, surface.height);
    const float* upper = surface.heights + static_cast<std::ptrdiff_t>(j0) * surface.width;
    const float* lower = surface.heights + static_cast<std::ptrdiff_t>(j1) * surface.width;
    const float scale = std::abs(surface.z_scale);
    const auto steepest = [scale](float a0, float a1, float b0, float b1) {
        // In the strip where the sampler extrapolates the weights of the two add up to 3.
        return 3.0f * maximum(std::abs(a1 - a0), std::abs(b1 - b0)) * scale;
    };
    const float slope_x = steepest(upper[i0], upper[i1], lower[i0], lower[i1]);
    const float slope_y = steepest(upper[i0], lower[i0], upper[i1], lower[i1]);
    const float highest =
        maximum(maximum(std::abs(upper[i0]), std::abs(upper[i1])), maximum(std::abs(lower[i0]), std::abs(lower[i1]))) *
        scale;
    const float error =
        1e-5f * (highest + std::abs(p.z()) + std::abs(ray.direction.z()) * t) + position_error * (slope_x + slope_y);
    const float approach =
        std::abs(ray.direction.z()) + slope_x * std::abs(ray.direction.x()) + slope_y * std::abs(ray.direction.y());
    return minimum(steps, (0.5f * distance - error) / approach);
}

/// Where a ray along a mesh's normal meets a height grid: against the normal from above the surface, along it from
/// below. The ray marches by whole steps of `direction` and bisects the one that crosses. One that leaves the grid ends
/// at its rim, and one that stays over it without a crossing after 2^24 steps, past which floats do not count.
inline vec3 intersect_heightmap(const float* heights, const vec3& origin, vec3 direction,
                                const sycl::vec<int, 2>& extent, float z_scale) {
    constexpr float most_steps = 16777216.0f;
    constexpr int bisections = 32;
    constexpr int steps_between_leaps = 32;
    const Surface surface{heights, extent.x(), extent.y(), z_scale};
    const bool above = origin.z() > surface(origin);
    const Ray ray{origin, above ? -direction : direction, above ? 1.0f : -1.0f};
    const float t_end = steps_to_rim(ray, surface.width, surface.height);

    float low = 0.0f, high = 0.0f;
    for (int steps = 1;; ++steps) {
        if (!(low < t_end))
            return ray.at(t_end);
        if (low >= most_steps)
            return ray.at(low);
        high = low + 1.0f;
        const vec3 p = ray.at(high);
        const float distance = ray.distance(surface, p);
        if (distance <= 0.0f)
            break;
        low = high;
        // Long ways are taken in leaps, which arrive at the same crossing.
        if (steps % steps_between_leaps == 0) {
            const float leap = std::floor(steps_off_surface(ray, surface, low, p));
            if (leap > 0.0f)
                low = minimum(low + leap, most_steps);
        }
    }
    for (int n = 0; n < bisections; ++n) {
        const float middle = (low + high) * 0.5f;
        if (ray.distance(surface, ray.at(middle)) > 0.0f)
            low = middle;
        else
            high = middle;
    }
    return ray.at((low + high) * 0.5f);
}

/// Bakes one cell.
struct NormalBake {
    void operator()(int x, int y) const {
        const std::ptrdiff_t i = static_cast<std::ptrdiff_t>(y) * extent.x() + x;
        const std::uint32_t triangle = triangle_ids[i];
        if (triangle == no_triangle)
            return;
        const uvec3& corners = triangles[triangle];
        const vec3 &a = vertices[corners.x()], &b = vertices[corners.y()], &c = vertices[corners.z()];
        const Weights at = EnlargedTriangle(a, b, c).weights(x, y);
        const auto blend = [&](const vec3* list) {
            return list[corners.x()] * at.u + list[corners.y()] * at.v + list[corners.z()] * at.w;
        };
        const vec3 normal = blend(normals), tangent = blend(tangents);
        const vec3 origin(static_cast<float>(x) + 0.5f, static_cast<float>(y) + 0.5f,
                          (a.z() * at.u + b.z() * at.v + c.z() * at.w) * z_scale);

        const vec3 hit = intersect_heightmap(heights, origin, normal, extent, z_scale);
        // In this order of arguments what is not a number becomes 0.
        const float hit_x = minimum(maximum(0.0f, hit.x()), static_cast<float>(extent.x() - 1));
        const float hit_y = minimum(maximum(0.0f, hit.y()), static_cast<float>(extent.y() - 1));
        hit_positions[i] = vec2(hit_x, hit_y);

        const vec3 surface_normal = unit_vector(bilinear(surface_normals, extent.x(), extent.y(), hit_x, hit_y));
        const vec3 baked = unit_vector(vec3(scalar_product(surface_normal, tangent),
                                            scalar_product(surface_normal, vector_product(normal, tangent)),
                                            scalar_product(surface_normal, normal)));
        red[i] = baked.x() * 0.5f + 0.5f;
        green[i] = -baked.y() * 0.5f + 0.5f;
        blue[i] = baked.z() * 0.5f + 0.5f;
    }

    const float* heights;
    const std::uint32_t* triangle_ids;
    const vec3* vertices; ///< in frame space
    const uvec3* triangles;
    const vec3* normals; ///< of the vertices
    const vec3* tangents;
    const vec3* surface_normals;
    float* red;
    float* green;
    float* blue;
    vec2* hit_positions;
    sycl::vec<int, 2> extent;
    float z_scale; ///< cells in a height of 1.0
};

} // namespace tarn::mesh_rasterizer
