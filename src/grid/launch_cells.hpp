// One kernel over the cells of a grid, in the launch shape that suits the device.
#pragma once

#include <algorithm>
#include <type_traits>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "device/usm_ptr.hpp"

namespace tarn {

/// Floats in the widest vectors of today's CPUs. Narrower ones take a loop of as many in several vectors.
inline constexpr int cpu_lanes = 16;

/// Where a kernel goes: a queue, or the handler of a command group that needs accessors. Both launch alike, but only a
/// queue knows its device.
template <class Target>
struct LaunchTarget {
    Target& target;
    bool is_cpu;
};

inline LaunchTarget<sycl::queue> launch_on(sycl::queue& queue) {
    return {queue, queue.get_device().is_cpu()};
}

inline LaunchTarget<sycl::handler> launch_on(sycl::handler& handler, const sycl::queue& queue) {
    return {handler, queue.get_device().is_cpu()};
}

/// True in a cell whose neighbours along the row lie inside the grid.
using InteriorColumn = std::true_type;
/// True nowhere: the cell has to clamp its column indices.
using AnyColumn = std::false_type;

/// Runs each row of a grid as one work-item: `row(y, first, last, column_kind)` is called for the columns of the two
/// borders, `margin` wide, with AnyColumn and for the columns between them with InteriorColumn. The shape for CPUs: the
/// clamps along the row, which keep a loop from being vectorised, stay out of the long middle part.
template <class Target, class Row>
void launch_rows(LaunchTarget<Target> on, const Extent<2>& extent, int margin, Row row) {
    const int width = static_cast<int>(extent.x());
    const int left = std::min(margin, width);
    const int right = std::max(left, width - margin);
    on.target.parallel_for(sycl::range<1>(extent.y()), [=](sycl::id<1> index) {
        const int y = static_cast<int>(index[0]);
        row(y, 0, left, AnyColumn{});
        row(y, left, right, InteriorColumn{});
        row(y, right, width, AnyColumn{});
    });
}

/// Calls `cell(x, y, column_kind)` for every cell of the grid: one work-item a cell on GPUs, one a row on CPUs.
/// `margin` is how many columns at either border need their neighbours clamped. Cells must not depend on one another.
template <class Target, class Cell>
void launch_cells(LaunchTarget<Target> on, const Extent<2>& extent, int margin, Cell cell) {
    if (extent.x() == 0 || extent.y() == 0)
        return;
    if (!on.is_cpu) {
        on.target.parallel_for(extent.shape(), [=](sycl::id<2> index) {
            cell(static_cast<int>(index[1]), static_cast<int>(index[0]), AnyColumn{});
        });
        return;
    }
    launch_rows(on, extent, margin, [cell](int y, int first, int last, auto column_kind) {
        const Cell local = cell; // nothing else can refer to it, so its fields stay in registers
        TARN_INDEPENDENT_ITERATIONS
        for (int x = first; x < last; ++x)
            TARN_INLINE_CALLS local(x, y, column_kind);
    });
}

/// Calls `cell(x, y, interior)` for every cell of the grid; `interior` is true_type where all eight neighbours lie
/// inside. The shape of launches as above.
template <class Target, class Cell>
void launch_with_neighbours(LaunchTarget<Target> on, const Extent<2>& extent, Cell cell) {
    if (extent.x() == 0 || extent.y() == 0)
        return;
    if (!on.is_cpu) {
        on.target.parallel_for(extent.shape(), [=](sycl::id<2> index) {
            cell(static_cast<int>(index[1]), static_cast<int>(index[0]), std::false_type{});
        });
        return;
    }
    const int last_row = static_cast<int>(extent.y()) - 1;
    launch_rows(on, extent, 1, [=](int y, int first, int last, auto interior_column) {
        const Cell local = cell;
        if (interior_column.value && y > 0 && y < last_row) {
            TARN_INDEPENDENT_ITERATIONS
            for (int x = first; x < last; ++x)
                TARN_INLINE_CALLS local(x, y, std::true_type{});
        } else {
            for (int x = first; x < last; ++x)
                local(x, y, std::false_type{});
        }
    });
}

/// As launch_with_neighbours, by the piece: calls `row(first, last, y, interior)` for cells of a row that lie off the
/// border all together, or not. One cell a piece on GPUs.
template <class Target, class Row>
void launch_pieces_with_neighbours(LaunchTarget<Target> on, const Extent<2>& extent, Row row) {
    if (extent.x() == 0 || extent.y() == 0)
        return;
    if (!on.is_cpu) {
        on.target.parallel_for(extent.shape(), [=](sycl::id<2> index) {
            const int x = static_cast<int>(index[1]);
            row(x, x + 1, static_cast<int>(index[0]), std::false_type{});
        });
        return;
    }
    const int last_row = static_cast<int>(extent.y()) - 1;
    launch_rows(on, extent, 1, [=](int y, int first, int last, auto interior_column) {
        if (interior_column.value && y > 0 && y < last_row)
            row(first, last, y, std::true_type{});
        else
            row(first, last, y, std::false_type{});
    });
}

/// Calls `cell(k)` for k from 0 to `count`, in whole vectors: where the count is not a multiple of their width, the
/// last one overlaps the one before it. Grids as wide as a power of two leave fourteen columns for it between their
/// borders, and cell by cell these take longer than all the others of a coarse row. So cells must not read what they
/// write.
template <class Cell>
inline void for_overlapping(int count, const Cell& cell) {
    const int width = count >= cpu_lanes ? cpu_lanes : cpu_lanes / 2;
    const int whole = count - count % width;
    int begin = 0, end = whole;
    while (begin < end) {
        TARN_INDEPENDENT_ITERATIONS
        for (int k = begin; k < end; ++k)
            TARN_INLINE_CALLS cell(k);
        begin = end == count ? count : count - width;
        end = count;
    }
    if (whole == 0)
        for (int k = 0; k < count; ++k)
            cell(k);
}

/// A grid's cells inside a kernel, from either holder.
inline float* cells_of(float* data) {
    return data;
}
inline const float* cells_of(const float* data) {
    return data;
}

template <class T, sycl::access_mode mode>
inline auto* cells_of(const sycl::accessor<T, 2, mode>& accessor) {
    return &accessor[sycl::id<2>(0, 0)];
}

} // namespace tarn
