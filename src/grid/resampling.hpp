// Grid scaling. `magic` is the four-tap filter with the weights 1, 3, 3, 1 per axis that every pyramid is built with;
// `box` is a two-by-two mean with nearest-neighbour doubling. Each operation takes either holder of a grid and does the
// same per cell. Nothing here waits: the in-order queue, or the accessors, put the kernels before any later use.
#pragma once

#include <array>
#include <type_traits>

#include <sycl/sycl.hpp>

#include "device/usm_ptr.hpp"
#include "grid/numeric.hpp"

namespace tarn::resampling {

using Grid = usm_ptr<float, 2>;
using Buffer = sycl::buffer<float, 2>;

/// Fills `destination`, half the size of `source` rounded down, through the 4 x 4 outer product of (1, 3, 3, 1) / 8.
/// The edge cells are repeated beyond the border.
void downsample_magic(Grid& destination, Grid& source);
void downsample_magic(Buffer& destination, Buffer& source, sycl::queue& queue);

/// A new grid of half the size. An absent grid (null data, or a buffer of one element) comes back as it is, so that
/// optional grids go through a pyramid without a test.
Grid downsample_magic(Grid& source);
Buffer downsample_magic(Buffer& source, sycl::queue& queue);

/// The grid of a pyramid's next coarser level: `downsample_magic`, but an axis of one cell is not halved, so that no
/// level is without cells. A grid of one cell, which an absent buffer is too, is its own coarser grid.
Grid next_level(Grid& source);
Buffer next_level(Buffer& source, sycl::queue& queue);

/// A new grid of twice the size by the 9-3-3-1 rule. Absent grids as above.
Grid upsample_magic(Grid& source);
Buffer upsample_magic(Buffer& source, sycl::queue& queue);

/// A new grid of the same size, sharpened by the outer product of (-0.25, 1.5, -0.25). Absent grids as above.
Grid sharpen_magic(Grid& source);
Buffer sharpen_magic(Buffer& source, sycl::queue& queue);

/// Fills `destination`, at most half the size of `source`, with the means of 2 x 2 cells.
void downsample_box(Grid& destination, Grid& source);
void downsample_box(Buffer& destination, Buffer& source, sycl::queue& queue);
Grid downsample_box(Grid& source);

/// A new grid of twice the size that repeats each cell. Absent grids as above.
Grid upsample_box(Grid& source);
Buffer upsample_box(Buffer& source, sycl::queue& queue);

/// One cell of `downsample_magic` from the four taps in each of its four source rows.
inline float weigh_1331(const std::array<float, 4>& r0, const std::array<float, 4>& r1, const std::array<float, 4>& r2,
                        const std::array<float, 4>& r3) {
    return (r0[0] + 3.0f * r0[1] + 3.0f * r0[2] + r0[3] +               //
            3.0f * r1[0] + 9.0f * r1[1] + 9.0f * r1[2] + 3.0f * r1[3] + //
            3.0f * r2[0] + 9.0f * r2[1] + 9.0f * r2[2] + 3.0f * r2[3] + //
            r3[0] + 3.0f * r3[1] + 3.0f * r3[2] + r3[3]) *
           0.015625f;
}

/// The value of coarse cell `position` of a grid of `size`, both as (x, y). With `interior` the columns need no clamp.
template <bool interior = false>
inline float downsample_value_magic(const float* grid, sycl::vec<int, 2> position, sycl::vec<int, 2> size) {
    const int x = position.x(), y = position.y();
    const int last_column = size.x() - 1, last_row = size.y() - 1;
    const int c0 = interior ? 2 * x - 1 : maximum(2 * x - 1, 0);
    const int c1 = 2 * x;
    const int c2 = interior ? 2 * x + 1 : minimum(2 * x + 1, last_column);
    const int c3 = interior ? 2 * x + 2 : minimum(2 * x + 2, last_column);
    const auto taps = [=](int row_index) {
        const float* row = grid + static_cast<std::ptrdiff_t>(row_index) * size.x();
        return std::array<float, 4>{row[c0], row[c1], row[c2], row[c3]};
    };
    return weigh_1331(taps(maximum(2 * y - 1, 0)), taps(2 * y), taps(minimum(2 * y + 1, last_row)),
                      taps(minimum(2 * y + 2, last_row)));
}

template <class Accessor>
requires(!std::is_pointer_v<Accessor>) inline float downsample_value_magic(const Accessor& grid,
                                                                           sycl::vec<int, 2> position,
                                                                           sycl::vec<int, 2> size) {
    return downsample_value_magic(&grid[sycl::id<2>(0, 0)], position, size);
}

} // namespace tarn::resampling
