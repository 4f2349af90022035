// What one triangle adds to its vertices' frames, how a ray meets a height grid, and what one baked cell does.
#pragma once

#include <cmath>
#include <cstddef>
#include <limits>

#include "grid/bilinear.hpp"
#include "grid/launch_lanes.hpp"
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

/// Steps past which floats do not count. A ray that has met nothing by then ends there.
inline constexpr float most_steps = 16777216.0f; // 2^24

/// The cell centres between which a ray surely stays along one axis, and for how many steps.
struct Span {
    /// `error` is how far roundings may take the ray from its place. So close to a centre it counts as on both sides.
    Span(float position, float per_step, float error, int size) {
        const float centre = position - 0.5f;
        const float margin = per_step == 0.0f ? 0.0f : error;
        const float before = sycl::floor(centre - margin), behind = sycl::floor(centre + margin) + 1.0f;
        steps = per_step == 0.0f  ? std::numeric_limits<float>::infinity()
                : per_step > 0.0f ? (behind - centre - error) / per_step
                                  : (before - centre + error) / per_step;
        first = clamp_index(cell_of(before), size);
        // Before the first centre the sampler goes on with the slope up to the second.
        last = clamp_index(maximum(cell_of(behind), 1), size);
        is_extrapolated = before < 0.0f;
    }

    int first, last;
    float steps;
    bool is_extrapolated;
};

/// How many steps from `p` = ray.at(t) on surely do not meet the surface, since it cannot come near enough while the
/// ray stays between the same cell centres. 0 or less if that cannot be told.
inline float steps_off_surface(const Ray& ray, const Surface& surface, float t, const vec3& p) {
    const float position_error = 1e-6f * (static_cast<float>(surface.width) + static_cast<float>(surface.height));
    const Span columns(p.x(), ray.direction.x(), position_error, surface.width);
    const Span rows(p.y(), ray.direction.y(), position_error, surface.height);
    const float steps = minimum(columns.steps, rows.steps);
    const auto height = [&](int column, int row) {
        return surface.heights[static_cast<std::ptrdiff_t>(row) * surface.width + column];
    };
    const float distance = ray.distance(surface, p);
    if (!std::isfinite(distance)) {
        // Among four centres that hold no number, or an infinity on the far side, the surface is nowhere else either.
        // The sampler's weights are not all above 0 where it extrapolates.
        const bool is_extrapolated = columns.is_extrapolated || rows.is_extrapolated;
        const int last_column = maximum(columns.last - 1, columns.first), last_row = maximum(rows.last - 1, rows.first);
        for (int row = rows.first; row <= last_row; ++row)
            for (int column = columns.first; column <= last_column; ++column) {
                const int next_column = minimum(column + 1, columns.last), next_row = minimum(row + 1, rows.last);
                const float corners[] = {height(column, row), height(next_column, row), height(column, next_row),
                                         height(next_column, next_row)};
                float mean = 0.0f;
                bool has_nan = false;
                for (const float corner : corners) {
                    mean += corner * 0.25f;
                    has_nan = has_nan || std::isnan(corner);
                }
                const float away = ray.side * (p.z() - mean * surface.z_scale);
                if (!has_nan && (is_extrapolated || std::isfinite(away) || away < 0.0f))
                    return 0.0f;
            }
        return steps;
    }

    float slope_x = 0.0f, slope_y = 0.0f, highest = 0.0f;
    bool is_finite = true;
    for (int row = rows.first; row <= rows.last; ++row)
        for (int column = columns.first; column <= columns.last; ++column) {
            const float here = height(column, row);
            is_finite = is_finite && std::isfinite(here);
            highest = maximum(highest, sycl::fabs(here));
            slope_x = maximum(slope_x, sycl::fabs(height(minimum(column + 1, columns.last), row) - here));
            slope_y = maximum(slope_y, sycl::fabs(height(column, minimum(row + 1, rows.last)) - here));
        }
    if (!is_finite)
        return 0.0f;
    const float scale = sycl::fabs(surface.z_scale);
    // In the strip where the sampler extrapolates the weights of the two add up to 3.
    slope_x *= 3.0f * scale;
    slope_y *= 3.0f * scale;
    const float error = 1e-5f * (highest * scale + sycl::fabs(p.z()) + sycl::fabs(ray.direction.z()) * t) +
                        position_error * (slope_x + slope_y);
    const float approach = sycl::fabs(ray.direction.z()) + slope_x * sycl::fabs(ray.direction.x()) +
                           slope_y * sycl::fabs(ray.direction.y());
    const float safe = (0.5f * distance - error) / approach;
    return safe > 0.0f ? minimum(steps, safe) : 0.0f;
}

/// How many steps from `p` = ray.at(t) on the ray surely stays over the same point without meeting the surface. Rounded
/// positions of a nearly upright ray stand still for many steps, and meanwhile its distance only grows or only shrinks.
inline float steps_in_place(const Ray& ray, const Surface& surface, float t, const vec3& p) {
    const auto differ = [](float a, float b) {
        return a < b || b < a;
    };
    float steps = 0.0f;
    for (float tried = 32.0f; t + tried <= most_steps; tried *= 2.0f) {
        const vec3 end = ray.at(t + tried);
        if (differ(end.x(), p.x()) || differ(end.y(), p.y()) || ray.distance(surface, end) <= 0.0f)
            break;
        steps = tried;
    }
    return steps;
}

/// The part of a ray in which it meets a surface, in its steps.
struct Crossing {
    float low, high;
    bool is_found; ///< else the ray ends at `low`

    float end() const { return is_found ? (low + high) * 0.5f : low; }
};

/// The ray along a mesh's normal towards a surface: against it from above, along it from below.
inline Ray ray_to(const Surface& surface, const vec3& origin, const vec3& normal) {
    const bool above = origin.z() > surface(origin);
    return {origin, above ? -normal : normal, above ? 1.0f : -1.0f};
}

/// Marches by whole steps of the ray's direction to the first that crosses. A ray that leaves the grid ends at its rim.
inline Crossing march(const Ray& ray, const Surface& surface) {
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
            float leap = sycl::floor(steps_off_surface(ray, surface, t, p));
            if (!(leap > 0.0f))
                leap = steps_in_place(ray, surface, t, p);
            t = minimum(t + leap, most_steps);
        }
    }
}

/// Rays side by side, coordinate by coordinate, whose crossings are bisected together.
template <int lanes>
class RayBatch {
  public:
    void set(int lane, const Ray& ray, const Crossing& crossing) {
        for (int axis = 0; axis < 3; ++axis) {
            origin_[axis][lane] = ray.origin[axis];
            direction_[axis][lane] = ray.direction[axis];
        }
        side_[lane] = ray.side;
        low_[lane] = crossing.low;
        high_[lane] = crossing.high;
        is_found_[lane] = crossing.is_found ? 1 : 0;
    }

    void bisect(const Surface& surface) {
        // On the side of the origin the ray is off the surface.
        constexpr int bisections = 32;
        for (int n = 0; n < bisections; ++n) {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < lanes; ++lane) {
                const float middle = (low_[lane] + high_[lane]) * 0.5f;
                const float distance =
                    side_[lane] * (along(2, lane, middle) - surface.at(along(0, lane, middle), along(1, lane, middle)));
                // A ray without a crossing keeps its end in `low_`.
                const bool is_off_surface = (distance > 0.0f) & (is_found_[lane] != 0);
                low_[lane] = is_off_surface ? middle : low_[lane];
                high_[lane] = is_off_surface ? high_[lane] : middle;
            }
        }
    }

    vec3 end(int lane) const {
        const float t = Crossing{low_[lane], high_[lane], is_found_[lane] != 0}.end();
        return vec3(along(0, lane, t), along(1, lane, t), along(2, lane, t));
    }

  private:
    float along(int axis, int lane, float t) const { return origin_[axis][lane] + direction_[axis][lane] * t; }

    // Lanes without a ray compute on zeros.
    float origin_[3][lanes] = {}, direction_[3][lanes] = {}, side_[lanes] = {}, low_[lanes] = {}, high_[lanes] = {};
    std::int32_t is_found_[lanes] = {};
};

/// Bakes cells.
struct NormalBake {
    /// The cells with the indices from `first` to before `last`.
    template <int lanes>
    void bake(std::uint32_t first, std::uint32_t last) const {
        const Surface ground{heights, extent.x(), extent.y(), z_scale};
        for (std::uint32_t begin = first; begin < last; begin += lanes) {
            const int count = static_cast<int>(minimum<std::uint32_t>(lanes, last - begin));
            Cell cells[lanes];
            RayBatch<lanes> rays;
            bool is_covered = false;
            for (int lane = 0; lane < count; ++lane) {
                cells[lane] = Cell(*this, begin + static_cast<std::uint32_t>(lane));
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
        Cell(const NormalBake& bake, std::uint32_t number) : index(number) {
            const std::uint32_t triangle = bake.triangle_ids[index];
            is_covered = triangle != no_triangle;
            if (!is_covered)
                return;
            const auto width = static_cast<std::uint32_t>(bake.extent.x());
            const int x = static_cast<int>(number % width), y = static_cast<int>(number / width);
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
