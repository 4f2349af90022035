// What the rasterizer does with one vertex, one triangle and one cell.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "grid/atomic.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

/// A whole number as an int; what int does not hold becomes its nearest bound, and NaN 0.
inline int to_int(float value) {
    constexpr float beyond = 2147483648.0f; // 2^31
    if (!(value > -beyond))
        return value <= -beyond ? INT32_MIN : 0;
    return value < beyond ? static_cast<int>(value) : INT32_MAX;
}

/// A rotation of column vectors.
struct Rotation {
    vec3 rows[3];

    vec3 operator()(const vec3& v) const {
        const auto dot = [&](const vec3& row) {
            return row.x() * v.x() + row.y() * v.y() + row.z() * v.z();
        };
        return vec3(dot(rows[0]), dot(rows[1]), dot(rows[2]));
    }
};

/// Model space to frame space.
struct FrameTransform {
    vec3 centre; ///< of the model
    Rotation rotation;
    float fit;            ///< cells in one unit of the model
    vec3 origin;          ///< where the centre goes, z in cells like x and y
    float cells_per_unit; ///< cells in a height of 1.0

    vec3 operator()(const vec3& vertex) const {
        const vec3 r = rotation(vertex - centre);
        return vec3(r.x() * fit + origin.x(), r.y() * fit + origin.y(), (r.z() * fit + origin.z()) / cells_per_unit);
    }
};

/// The least and the largest of the three corners' coordinates.
struct Bounds {
    Bounds(const vec3& a, const vec3& b, const vec3& c)
        : min_x(minimum(minimum(a.x(), b.x()), c.x())), max_x(maximum(maximum(a.x(), b.x()), c.x())),
          min_y(minimum(minimum(a.y(), b.y()), c.y())), max_y(maximum(maximum(a.y(), b.y()), c.y())) {}

    float min_x, max_x, min_y, max_y;
};

/// Which triangle, for the noise grid: a random number from 0 to 1.
inline float triangle_noise(std::uint32_t triangle) {
    return random_number(xorshift(nonzero_state(triangle))) * unit_scale;
}

/// What a triangle's weights are worth at a point; they sum up to 1.
struct Weights {
    float u, v, w;
};

/// A triangle in the plane, grown by 0.5 % about its centroid, so that no cell is left out along an edge that two
/// triangles share. Its barycentric coordinates (C. Ericson, Real-Time Collision Detection, 2005, section 3.4) decide
/// which cells are inside, and they are the weights of the corners: those of the triangle as it was are not shifted
/// back.
class EnlargedTriangle {
  public:
    EnlargedTriangle(const vec3& a, const vec3& b, const vec3& c) {
        const vec2 p = in_plane(a), q = in_plane(b), r = in_plane(c);
        const vec2 centroid = (p + q + r) * 0.33333334f;
        const auto enlarged = [&](const vec2& corner) {
            return (corner - centroid) * 1.005f + centroid;
        };
        a_ = enlarged(p);
        e0_ = enlarged(q) - a_;
        e1_ = enlarged(r) - a_;
        d00_ = dot(e0_, e0_);
        d01_ = dot(e0_, e1_);
        d11_ = dot(e1_, e1_);
        denominator_ = d00_ * d11_ - d01_ * d01_;
    }

    /// At the centre of cell (x, y). NaN for a triangle without area.
    Weights weights(int x, int y) const {
        const vec2 p = vec2(static_cast<float>(x) + 0.5f, static_cast<float>(y) + 0.5f) - a_;
        const float d20 = dot(p, e0_);
        const float d21 = dot(p, e1_);
        const float v = (d11_ * d20 - d01_ * d21) / denominator_;
        const float w = (d00_ * d21 - d01_ * d20) / denominator_;
        return {1.0f - (v + w), v, w};
    }

  private:
    static vec2 in_plane(const vec3& v) { return vec2(v.x(), v.y()); }
    static float dot(const vec2& a, const vec2& b) { return a.x() * b.x() + a.y() * b.y(); }

    vec2 a_, e0_, e1_;
    float d00_, d01_, d11_, denominator_;
};

/// What a height has to lie above to be drawn.
inline constexpr float lowest_height = -3.4028235e+38f;

/// A triangle ready to be drawn cell by cell.
struct DrawnTriangle {
    DrawnTriangle(std::uint32_t triangle, const vec3& a, const vec3& b, const vec3& c)
        : number(triangle), enlarged(a, b, c), a_z(a.z()), b_z(b.z()), c_z(c.z()) {}

    /// The height over the centre of cell (x, y); `lowest_height` where that is outside. The comparisons let NaN pass,
    /// which is then no height to draw either.
    float height(int x, int y) const {
        const Weights at = enlarged.weights(x, y);
        const bool outside = (at.u < 0.0f) | (at.v < 0.0f) | (at.w < 0.0f);
        const float z = at.u * a_z + at.v * b_z + at.w * c_z;
        return outside ? lowest_height : z;
    }

    std::uint32_t number;
    EnlargedTriangle enlarged;
    float a_z, b_z, c_z;
};

/// What a grid of triangle numbers holds where no triangle is.
inline constexpr std::uint32_t no_triangle = 0xFFFFFFFFu;

/// What becomes of a cell under triangles whose highest it keeps. Where two win it at the same moment, the noise of
/// either may stand.
template <bool with_noise>
struct KeepHighest {
    float* heights;
    float* noise;

    void operator()(std::ptrdiff_t i, float z, std::uint32_t triangle) const {
        if (!atomic_raise(heights[i], z))
            return;
        if constexpr (with_noise)
            SharedCell<float>(noise[i]).store(triangle_noise(triangle));
    }
};

/// What becomes of a cell that is told the last triangle over it, as if they were drawn one after another.
struct KeepLastTriangle {
    std::uint32_t* ids;

    void operator()(std::ptrdiff_t i, float, std::uint32_t triangle) const {
        const SharedCell<std::uint32_t> shared(ids[i]);
        std::uint32_t seen = shared.load();
        while ((seen == no_triangle || seen < triangle) && !shared.compare_exchange_strong(seen, triangle)) {
        }
    }
};

/// Cells that a triangle may cover, side by side.
template <int lanes>
struct Candidates {
    int x[lanes];
    int y[lanes];
    float height[lanes];

    /// Puts cell (x, y) in a lane. The lane's bit if the triangle covers it, and `counts`: it is one of those to draw.
    std::uint32_t add(int lane, int cell_x, int cell_y, bool counts, const DrawnTriangle& triangle) {
        x[lane] = cell_x;
        y[lane] = cell_y;
        height[lane] = triangle.height(cell_x, cell_y);
        return (counts & (height[lane] > lowest_height)) ? 1u << lane : 0u;
    }

    /// Calls `store(index, height, triangle)` for the lanes whose bits are set.
    template <class Store>
    void hand_out(std::uint32_t covered, int width, const DrawnTriangle& triangle, const Store& store) const {
        for (; covered != 0; covered &= covered - 1u) {
            const int lane = std::countr_zero(covered);
            store(static_cast<std::ptrdiff_t>(y[lane]) * width + x[lane], height[lane], triangle.number);
        }
    }
};

/// Draws the cells from `first` to before `last` of a row of a grid of `width`.
template <int lanes, class Store>
inline void render_row(const DrawnTriangle& triangle, int first, int last, int y, int width, const Store& store) {
    for (int begin = first; begin < last; begin += lanes) {
        Candidates<lanes> cells;
        std::uint32_t covered = 0;
        TARN_INDEPENDENT_ITERATIONS
        for (int lane = 0; lane < lanes; ++lane)
            covered |= cells.add(lane, begin + lane, y, lane < last - begin, triangle);
        cells.hand_out(covered, width, triangle, store);
    }
}

/// A frame of `width` by `height` cells, and a box in it whose items are its cells, row by row.
struct NumberedBox {
    /// Boxes up to this size are numbered in floats and ints.
    static constexpr int most_items = 1 << 16;

    int x0, y0;
    int row_width;
    int width, height;
};

/// Draws the items from `first` to before `last` of a box whose rows are narrower than a vector.
template <int lanes, class Store>
inline void render_narrow(const DrawnTriangle& triangle, const NumberedBox& box, int first, int last,
                          const Store& store) {
    const float rows_per_item = 1.0f / static_cast<float>(box.row_width);
    for (int begin = first; begin < last; begin += lanes) {
        Candidates<lanes> cells;
        std::uint32_t covered = 0;
        TARN_INDEPENDENT_ITERATIONS
        for (int lane = 0; lane < lanes; ++lane) {
            const int item = begin + lane;
            const int row = static_cast<int>((static_cast<float>(item) + 0.5f) * rows_per_item);
            const int x = box.x0 + item - row * box.row_width, y = box.y0 + row;
            const bool counts = (item < last) & (x >= 0) & (x < box.width) & (y >= 0) & (y < box.height);
            covered |= cells.add(lane, x, y, counts, triangle);
        }
        cells.hand_out(covered, box.width, triangle, store);
    }
}

/// The cells of the frame that a triangle's bounding box reaches, both ends included.
struct ClippedBox {
    int x0, y0, x1, y1;

    bool empty() const { return x1 < x0 || y1 < y0; }
};

/// The box of a triangle as the schemes without expansion draw it; empty if the triangle turns counter-clockwise or
/// its corners are not numbers.
inline ClippedBox visible_box(const vec3& a, const vec3& b, const vec3& c, int width, int height) {
    const float turn = (b.x() - a.x()) * (c.y() - a.y()) - (b.y() - a.y()) * (c.x() - a.x());
    if (!(turn <= 0.0f))
        return {0, 0, -1, -1};
    const Bounds bounds(a, b, c);
    return {maximum(to_int(sycl::floor(bounds.min_x)), 0), maximum(to_int(sycl::floor(bounds.min_y)), 0),
            minimum(to_int(sycl::ceil(bounds.max_x)), width - 1),
            minimum(to_int(sycl::ceil(bounds.max_y)), height - 1)};
}

} // namespace tarn::mesh_rasterizer
