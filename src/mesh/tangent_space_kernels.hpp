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
        return sycl::acos(minimum(maximum(scalar_product(from, to), -1.0f), 1.0f));
    }
};

/// A height grid in cells along all three axes.
struct Surface {
    const float* heights;
    int width, height;
    float z_scale; ///< cells in a height of 1.0

    float at(float x, float y) const { return bilinear(heights, width, height, x, y) * z_scale; }
    float operator()(const vec3& p) const { return at(p.x(), p.y()); }
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
        const float before = (p[axis] - 0.5f) - sycl::floor(p[axis] - 0.5f), behind = 1.0f - before;
        if (!(minimum(before, behind) > position_error))
            return 0.0f;
        steps = minimum(steps, ((per_step > 0.0f ? behind : before) - position_error) / sycl::fabs(per_step));
    }
    const float distance = ray.distance(surface, p);
    if (!std::isfinite(distance))
        return steps;

    const int column = cell_of(p.x() - 0.5f), row = cell_of(p.y() - 0.5f);
    const int i0 = clamp_index(column, surface.width), i1 = clamp_index(column + 1, surface.width);
    const int j0 = clamp_index(row, surface.height), j1 = clamp_index(row + 1, surface.height);
    const float* upper = surface.heights + static_cast<std::ptrdiff_t>(j0) * surface.width;
    const float* lower = surface.heights + static_cast<std::ptrdiff_t>(j1) * surface.width;
    const float scale = sycl::fabs(surface.z_scale);
    const auto steepest = [scale](float a0, float a1, float b0, float b1) {
        // In the strip where the sampler extrapolates the weights of the two add up to 3.
        return 3.0f * maximum(sycl::fabs(a1 - a0), sycl::fabs(b1 - b0)) * scale;
    };
    const float slope_x = steepest(upper[i0], upper[i1], lower[i0], lower[i1]);
    const float slope_y = steepest(upper[i0], lower[i0], upper[i1], lower[i1]);
    const float highest =
        maximum(maximum(sycl::fabs(upper[i0]), sycl::fabs(upper[i1])), maximum(sycl::fabs(lower[i0]), sycl::fabs(lower[i1]))) *
        scale;
    const float error =
        1e-5f * (highest + sycl::fabs(p.z()) + sycl::fabs(ray.direction.z()) * t) + position_error * (slope_x + slope_y);
    const float approach =
        sycl::fabs(ray.direction.z()) + slope_x * sycl::fabs(ray.direction.x()) + slope_y * sycl::fabs(ray.direction.y());
    return minimum(steps, (0.5f * distance - error) / approach);
}

/// The part of a ray in which it meets a surface, in its steps.
struct Crossing {
    float low, high;
    bool is_found; ///< else the ray ends at `low`

    static constexpr int bisections = 32;

    /// Halves the part; on the side of the origin the ray is off the surface.
    void bisect(bool is_off_surface, float middle) {
        low = is_off_surface ? middle : low;
        high = is_off_surface ? high : middle;
    }
    float middle() const { return (low + high) * 0.5f; }
    float end() const { return is_found ? middle() : low; }
};

/// The ray along a mesh's normal towards a surface: against it from above, along it from below.
inline Ray ray_to(const Surface& surface, const vec3& origin, const vec3& normal) {
    const bool above = origin.z() > surface(origin);
    return {origin, above ? -normal : normal, above ? 1.0f : -1.0f};
}

/// Marches by whole steps of the ray's direction to the first that crosses. A ray that leaves the grid ends at its rim,
/// and one that stays over it without a crossing after 2^24 steps, past which floats do not count.
inline Crossing march(const Ray& ray, const Surface& surface) {
    constexpr float most_steps = 16777216.0f;
    constexpr int steps_between_leaps = 32;
    const float t_end = steps_to_rim(ray, surface.width, surface.height);
    float t = 0.0f;
    for (int steps = 1;; ++steps) {
        if (!(t < t_end))
            return {t_end, t_end, false};
        if (t >= most_steps)
            return {t, t, false};
        const float next = t + 1.0f;
        const vec3 p = ray.at(next);
        if (ray.distance(surface, p) <= 0.0f)
            return {t, next, true};
        t = next;
        // Long ways are taken in leaps, which arrive at the same crossing.
        if (steps % steps_between_leaps == 0) {
            const float leap = sycl::floor(steps_off_surface(ray, surface, t, p));
            if (leap > 0.0f)
                t = minimum(t + leap, most_steps);
        }
    }
}

/// Where the ray along a mesh's normal meets a height grid.
inline vec3 intersect_heightmap(const float* heights, const vec3& origin, const vec3& direction,
                                const sycl::vec<int, 2>& extent, float z_scale) {
    const Surface surface{heights, extent.x(), extent.y(), z_scale};
    const Ray ray = ray_to(surface, origin, direction);
    Crossing crossing = march(ray, surface);
    for (int n = 0; n < Crossing::bisections; ++n) {
        const float middle = crossing.middle();
        crossing.bisect(ray.distance(surface, ray.at(middle)) > 0.0f, middle);
    }
    return ray.at(crossing.end());
}

/// Rays of as many cells as a CPU has lanes, to bisect their crossings side by side.
class RayBatch {
  public:
    static constexpr int lanes = 16; // floats in the widest vectors of today's CPUs

    void set(int lane, const Ray& ray, const Crossing& crossing) {
        rays_[lane] = ray;
        crossings_[lane] = crossing;
        for (int axis = 0; axis < 3; ++axis) {
            origin_[axis][lane] = ray.origin[axis];
            direction_[axis][lane] = ray.direction[axis];
        }
        side_[lane] = ray.side;
        low_[lane] = crossing.low;
        high_[lane] = crossing.high;
    }

    void bisect(const Surface& surface) {
        for (int n = 0; n < Crossing::bisections; ++n) {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < lanes; ++lane) {
                const float middle = (low_[lane] + high_[lane]) * 0.5f;
                const auto along = [&](int axis) {
                    return origin_[axis][lane] + direction_[axis][lane] * middle;
                };
                const float distance = side_[lane] * (along(2) - surface.at(along(0), along(1)));
                const bool is_off_surface = distance > 0.0f;
                low_[lane] = is_off_surface ? middle : low_[lane];
                high_[lane] = is_off_surface ? high_[lane] : middle;
            }
        }
    }

    vec3 end(int lane) const {
        const Crossing crossing{low_[lane], high_[lane], true};
        return rays_[lane].at(crossings_[lane].is_found ? crossing.end() : crossings_[lane].end());
    }

  private:
    Ray rays_[lanes];
    Crossing crossings_[lanes];
    // Once more, coordinate by coordinate. Lanes without a ray compute on zeros.
    float origin_[3][lanes] = {}, direction_[3][lanes] = {}, side_[lanes] = {}, low_[lanes] = {}, high_[lanes] = {};
};

/// Bakes cells.
struct NormalBake {
    /// One cell by itself, for GPUs.
    void operator()(int x, int y) const {
        const Cell cell(*this, x, y);
        if (cell.is_covered)
            write(cell, intersect_heightmap(heights, cell.origin, cell.normal, extent, z_scale));
    }

    /// The cells of a row, for CPUs: what takes the time is bisected side by side.
    void bake_row(int first, int last, int y) const {
        const Surface ground = surface();
        for (int begin = first; begin < last; begin += RayBatch::lanes) {
            const int count = minimum(RayBatch::lanes, last - begin);
            Cell cells[RayBatch::lanes];
            RayBatch rays;
            bool is_covered = false;
            for (int lane = 0; lane < count; ++lane) {
                cells[lane] = Cell(*this, begin + lane, y);
                if (!cells[lane].is_covered)
                    continue;
                is_covered = true;
                const Ray ray = ray_to(ground, cells[lane].origin, cells[lane].normal);
                rays.set(lane, ray, march(ray, ground));
            }
            if (!is_covered)
                continue;
            rays.bisect(ground);
            for (int lane = 0; lane < count; ++lane)
                if (cells[lane].is_covered)
                    write(cells[lane], rays.end(lane));
        }
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

  private:
    /// The mesh over the centre of a cell.
    struct Cell {
        Cell() = default;
        Cell(const NormalBake& bake, int x, int y) : index(static_cast<std::ptrdiff_t>(y) * bake.extent.x() + x) {
            const std::uint32_t triangle = bake.triangle_ids[index];
            is_covered = triangle != no_triangle;
            if (!is_covered)
                return;
            const uvec3& corners = bake.triangles[triangle];
            const vec3 &a = bake.vertices[corners.x()], &b = bake.vertices[corners.y()],
                       &c = bake.vertices[corners.z()];
            const Weights at = EnlargedTriangle(a, b, c).weights(x, y);
            const auto blend = [&](const vec3* list) {
                return list[corners.x()] * at.u + list[corners.y()] * at.v + list[corners.z()] * at.w;
            };
            normal = blend(bake.normals);
            tangent = blend(bake.tangents);
            origin = vec3(static_cast<float>(x) + 0.5f, static_cast<float>(y) + 0.5f,
                          (a.z() * at.u + b.z() * at.v + c.z() * at.w) * bake.z_scale);
        }

        std::ptrdiff_t index = 0;
        bool is_covered = false;
        vec3 origin, normal, tangent;
    };

    Surface surface() const { return {heights, extent.x(), extent.y(), z_scale}; }

    void write(const Cell& cell, const vec3& hit) const {
        // In this order of arguments what is not a number becomes 0.
        const float hit_x = minimum(maximum(0.0f, hit.x()), static_cast<float>(extent.x() - 1));
        const float hit_y = minimum(maximum(0.0f, hit.y()), static_cast<float>(extent.y() - 1));
        hit_positions[cell.index] = vec2(hit_x, hit_y);

        const vec3 normal = unit_vector(bilinear(surface_normals, extent.x(), extent.y(), hit_x, hit_y));
        const vec3 baked = unit_vector(vec3(scalar_product(normal, cell.tangent),
                                            scalar_product(normal, vector_product(cell.normal, cell.tangent)),
                                            scalar_product(normal, cell.normal)));
        red[cell.index] = baked.x() * 0.5f + 0.5f;
        green[cell.index] = -baked.y() * 0.5f + 0.5f;
        blue[cell.index] = baked.z() * 0.5f + 0.5f;
    }
};

} // namespace tarn::mesh_rasterizer
