// The 9-3-3-1 sampler: bilinear interpolation of a coarse grid at the cell centres of a grid of twice its size. Every
// pyramid in the library goes from coarse to fine through it.
#pragma once

#include <cstddef>

#include "grid/launch_cells.hpp"
#include "grid/numeric.hpp"

namespace tarn {

/// Where along one axis a fine cell takes its values from: the coarse cell it lies in and the nearer neighbour of that.
struct CoarseIndices {
    int base;
    int near;
};

/// Both indices are clamped, the base too: a fine axis of odd size asks for one coarse cell more than there are.
inline CoarseIndices coarse_indices(int fine, int coarse_size) {
    const int base = fine / 2;
    const int near = base - 1 + ((2 * fine) & 2);
    return {minimum(base, coarse_size - 1), clamp_index(near, coarse_size)};
}

/// What a fine cell takes its values from: the indices of the first cells of two coarse rows, and two coarse columns.
struct CoarseTaps {
    std::ptrdiff_t base_row;
    std::ptrdiff_t near_row;
    int base;
    int near;
};

/// The weighted sum of the sampler before it is divided by 16.
inline float sum_9331(const float* coarse, const CoarseTaps& taps) {
    const float* base = coarse + taps.base_row;
    const float* near = coarse + taps.near_row;
    return 9.0f * base[taps.base] + 3.0f * base[taps.near] + 3.0f * near[taps.base] + near[taps.near];
}

inline float sample_9331(const float* coarse, const CoarseTaps& taps) {
    return sum_9331(coarse, taps) * 0.0625f;
}

/// Calls `cell(row, x, taps)` for every cell of a grid over coarse grids of `coarse_extent`, where `row` is the index
/// of the row's first cell. On a CPU fine cells are taken in pairs, since the two halves of a coarse cell read at fixed
/// offsets from it and vectorise together.
template <class Target, class Cell>
void launch_fine_cells(LaunchTarget<Target> on, const Extent<2>& fine_extent, const Extent<2>& coarse_extent,
                       Cell cell) {
    if (fine_extent.x() == 0 || fine_extent.y() == 0)
        return;
    const int fine_width = static_cast<int>(fine_extent.x());
    const int coarse_width = static_cast<int>(coarse_extent.x());
    const int coarse_height = static_cast<int>(coarse_extent.y());
    const auto row_taps = [=](int y) {
        const CoarseIndices rows = coarse_indices(y, coarse_height);
        return CoarseTaps{static_cast<std::ptrdiff_t>(rows.base) * coarse_width,
                          static_cast<std::ptrdiff_t>(rows.near) * coarse_width, 0, 0};
    };
    const auto taps_at = [=](const CoarseTaps& row, int x) {
        const CoarseIndices columns = coarse_indices(x, coarse_width);
        return CoarseTaps{row.base_row, row.near_row, columns.base, columns.near};
    };
    if (!on.is_cpu) {
        on.target.parallel_for(fine_extent.shape(), [=](sycl::id<2> index) {
            const int y = static_cast<int>(index[0]);
            const int x = static_cast<int>(index[1]);
            cell(static_cast<std::ptrdiff_t>(y) * fine_width, x, taps_at(row_taps(y), x));
        });
        return;
    }

    const int first_pair = 1;
    const int last_pair = maximum(first_pair, minimum(coarse_width - 1, fine_width / 2));
    on.target.parallel_for(sycl::range<1>(fine_extent.y()), [=](sycl::id<1> index) {
        const int y = static_cast<int>(index[0]);
        const CoarseTaps taps = row_taps(y);
        const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(y) * fine_width;
        const Cell local = cell; // nothing else can refer to it, so its fields stay in registers
        for (int x = 0; x < minimum(2 * first_pair, fine_width); ++x)
            local(row, x, taps_at(taps, x));
        TARN_INDEPENDENT_ITERATIONS
        for (int k = first_pair; k < last_pair; ++k) {
            local(row, 2 * k, CoarseTaps{taps.base_row, taps.near_row, k, k - 1});
            local(row, 2 * k + 1, CoarseTaps{taps.base_row, taps.near_row, k, k + 1});
        }
        for (int x = 2 * last_pair; x < fine_width; ++x)
            local(row, x, taps_at(taps, x));
    });
}

/// Upsamples a coarse grid to `fine_extent` and calls `store(row, x, value)` for every fine cell. `coarse` is a pointer
/// or an accessor.
template <class Target, class Coarse, class Store>
void launch_upsampled(LaunchTarget<Target> on, const Extent<2>& fine_extent, Coarse coarse,
                      const Extent<2>& coarse_extent, Store store) {
    launch_fine_cells(on, fine_extent, coarse_extent, [=](std::ptrdiff_t row, int x, const CoarseTaps& taps) {
        store(row, x, sample_9331(cells_of(coarse), taps));
    });
}

} // namespace tarn
