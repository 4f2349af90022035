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

/// The two coarse rows that a fine row takes its values from.
struct CoarseRows {
    const float* base;
    const float* near;
};

inline CoarseRows coarse_rows(const float* coarse, int coarse_width, int coarse_height, int fine_y) {
    const CoarseIndices rows = coarse_indices(fine_y, coarse_height);
    return {coarse + static_cast<std::ptrdiff_t>(rows.base) * coarse_width,
            coarse + static_cast<std::ptrdiff_t>(rows.near) * coarse_width};
}

inline float sample_9331(const CoarseRows& rows, int base, int near) {
    return (9.0f * rows.base[base] + 3.0f * rows.base[near] + 3.0f * rows.near[base] + rows.near[near]) * 0.0625f;
}

/// Upsamples a coarse grid to `fine_extent` and calls `store(row, x, value)` for every fine cell, where `row` is the
/// index of the row's first cell. `coarse` is a pointer or an accessor. On a CPU fine cells are taken in pairs, since
/// the two halves of a coarse cell read at fixed offsets from it and vectorise together.
template <class Target, class Coarse, class Store>
void launch_upsampled(LaunchTarget<Target> on, const Extent<2>& fine_extent, Coarse coarse,
                      const Extent<2>& coarse_extent, Store store) {
    if (fine_extent.x() == 0 || fine_extent.y() == 0)
        return;
    const int fine_width = static_cast<int>(fine_extent.x());
    const int coarse_width = static_cast<int>(coarse_extent.x());
    const int coarse_height = static_cast<int>(coarse_extent.y());

    const auto cell = [=](const CoarseRows& rows, std::ptrdiff_t row, int x) {
        const CoarseIndices columns = coarse_indices(x, coarse_width);
        store(row, x, sample_9331(rows, columns.base, columns.near));
    };
    if (!on.is_cpu) {
        on.target.parallel_for(fine_extent.shape(), [=](sycl::id<2> index) {
            const int y = static_cast<int>(index[0]);
            cell(coarse_rows(cells_of(coarse), coarse_width, coarse_height, y),
                 static_cast<std::ptrdiff_t>(y) * fine_width, static_cast<int>(index[1]));
        });
        return;
    }

    const int first_pair = 1;
    const int last_pair = maximum(first_pair, minimum(coarse_width - 1, fine_width / 2));
    on.target.parallel_for(sycl::range<1>(fine_extent.y()), [=](sycl::id<1> index) {
        const int y = static_cast<int>(index[0]);
        const CoarseRows rows = coarse_rows(cells_of(coarse), coarse_width, coarse_height, y);
        const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(y) * fine_width;
        const Store local = store;
        for (int x = 0; x < minimum(2 * first_pair, fine_width); ++x)
            cell(rows, row, x);
        TARN_INDEPENDENT_ITERATIONS
        for (int k = first_pair; k < last_pair; ++k) {
            local(row, 2 * k, sample_9331(rows, k, k - 1));
            local(row, 2 * k + 1, sample_9331(rows, k, k + 1));
        }
        for (int x = 2 * last_pair; x < fine_width; ++x)
            cell(rows, row, x);
    });
}

} // namespace tarn
