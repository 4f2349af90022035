// Work expansion: the cells of all triangles' bounding boxes, numbered through, one work-item each. A kernel counts
// each triangle's cells, the host sums the counts up, and a work-item finds its triangle by a binary search in the
// sums.
//
// The box that is counted is rounded outwards. The box that is drawn is truncated, so it can be narrower. Its surplus
// work-items draw rows below the box, which the enlarged triangle may still reach.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>

#include <sycl/sycl.hpp>

#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"
#include "grid/search.hpp"
#include "mesh/mesh_kernels.hpp"

namespace tarn::mesh_rasterizer {

/// Triangles with a bounding box of this many cells or more are not drawn, where there is a limit.
inline constexpr std::uint32_t largest_box = 0x10000000;

/// How many work-items a triangle gets. Products that leave 32 bits wrap around; coordinates that int does not hold,
/// and NaN, give 0.
inline std::uint32_t box_cells(const vec3& a, const vec3& b, const vec3& c) {
    const Bounds bounds(a, b, c);
    const auto outward = [](float low, float high, std::uint32_t& cells) {
        low = sycl::floor(low);
        high = sycl::ceil(high);
        if (!(low >= -2147483648.0f && high < 2147483648.0f))
            return false;
        cells = static_cast<std::uint32_t>(static_cast<std::int32_t>(high)) -
                static_cast<std::uint32_t>(static_cast<std::int32_t>(low)) + 1u;
        return true;
    };
    std::uint32_t columns = 0, rows = 0;
    if (!outward(bounds.min_x, bounds.max_x, columns) || !outward(bounds.min_y, bounds.max_y, rows))
        return 0;
    const std::uint32_t cells = columns * rows;
    return cells > 0x80000000u ? 0u - cells : cells;
}

/// The work of a list of triangles.
class WorkExpansion {
  public:
    /// Counts and sums up; waits for it. With `is_limited` triangles of `largest_box` cells or more get no work. Throws
    /// sycl::exception (errc::nd_range) if there are 2^31 cells or more, which are more than a launch can number.
    WorkExpansion(sycl::queue& queue, const Vertices& vertices, const Triangles& triangles, bool is_limited);

    /// Calls `store(index, height, triangle)` for every cell of a grid of `extent` that a triangle covers; where
    /// several do, for all of them, in no order.
    template <class Store>
    void launch(sycl::queue& queue, const Extent<2>& extent, const Store& store) const;

    std::uint32_t total() const { return total_; }

  private:
    const vec3* vertices_;
    const uvec3* triangles_;
    /// First the cells of each triangle, then, in their place, the sums of these up to and with each triangle.
    usm_ptr<std::uint32_t, 1> sums_;
    std::uint32_t total_ = 0;
};

/// The sums of an expansion inside a kernel, with what they number.
struct ExpandedTriangles {
    const vec3* vertices;
    const uvec3* triangles;
    const std::uint32_t* sums;
    std::uint32_t count;

    /// The first triangle whose sum exceeds `item`. One without cells is never that.
    std::uint32_t find(std::uint32_t item) const { return first_above(sums, item, 0u, count - 1); }

    std::uint32_t first_item(std::uint32_t triangle) const { return triangle == 0 ? 0 : sums[triangle - 1]; }

    const vec3& corner(std::uint32_t triangle, int number) const { return vertices[triangles[triangle][number]]; }
};

/// One triangle of an expansion, with the box that its work-items walk through row by row.
struct ExpandedTriangle {
    ExpandedTriangle(const ExpandedTriangles& all, std::uint32_t number)
        : ExpandedTriangle(number, all.corner(number, 0), all.corner(number, 1), all.corner(number, 2)) {}

    ExpandedTriangle(std::uint32_t number, const vec3& a, const vec3& b, const vec3& c) : drawn(number, a, b, c) {
        const Bounds bounds(a, b, c);
        x0 = static_cast<int>(bounds.min_x);
        y0 = static_cast<int>(bounds.min_y);
        row_width = static_cast<std::uint32_t>(static_cast<int>(bounds.max_x)) - static_cast<std::uint32_t>(x0) + 1u;
    }

    DrawnTriangle drawn;
    int x0, y0;
    std::uint32_t row_width;

    /// The triangle's cells from `first` to before `last`, by whole rows.
    template <int lanes, class Store>
    void render_items(std::uint32_t first, std::uint32_t last, int width, int height, const Store& store) const {
        const std::int64_t pitch = row_width;
        constexpr int most = 1 << 30;
        if (lanes > 1 && row_width < lanes && last <= NumberedBox::most_items && x0 > -most && x0 < most &&
            y0 > -most && y0 < most) {
            render_narrow<lanes>(drawn, {x0, y0, static_cast<int>(row_width), width, height}, static_cast<int>(first),
                                 static_cast<int>(last), store);
            return;
        }
        // Rows that lie in the frame.
        const std::int64_t top = maximum<std::int64_t>(first / pitch, -std::int64_t{y0});
        const std::int64_t bottom = minimum<std::int64_t>((last - 1) / pitch, std::int64_t{height} - 1 - y0);
        for (std::int64_t row = top; row <= bottom; ++row) {
            const std::int64_t start = x0 - row * pitch; // the column of item 0, were all of them in this row
            const std::int64_t from = maximum<std::int64_t>(start + maximum<std::int64_t>(first, row * pitch), 0);
            const std::int64_t to =
                minimum<std::int64_t>(start + minimum<std::int64_t>(last, (row + 1) * pitch), width);
            if (from < to)
                render_row<lanes>(drawn, static_cast<int>(from), static_cast<int>(to), static_cast<int>(y0 + row),
                                  width, store);
        }
    }
};

template <class Store>
void WorkExpansion::launch(sycl::queue& queue, const Extent<2>& extent, const Store& store) const {
    const int width = static_cast<int>(extent.x());
    const int height = static_cast<int>(extent.y());
    const ExpandedTriangles all{vertices_, triangles_, sums_.data(), static_cast<std::uint32_t>(sums_.size())};
    // On a CPU a block of many cells shares one search, and one set-up of each triangle in it.
    constexpr std::uint32_t block = 4096;
    launch_lanes(launch_on(queue), total_, block, [=](std::uint32_t item, std::uint32_t end, auto lanes) {
        for (std::uint32_t triangle = all.find(item); item < end; ++triangle) {
            const std::uint32_t last = minimum(all.sums[triangle], end);
            if (item < last) {
                const std::uint32_t first = all.first_item(triangle);
                ExpandedTriangle(all, triangle)
                    .render_items<lanes.value>(item - first, last - first, width, height, store);
            }
            item = last;
        }
    });
}

} // namespace tarn::mesh_rasterizer
