// Launches over a range: the loop around the kernel, and how its iterations are spread over threads.
//
// All work-items of a launch are numbered in row-major order. run_cells runs an interval of them and is the only code
// that a kernel is compiled into: one loop along the fastest dimension around the inlined kernel, over a copy of the
// kernel that nobody else can see, so that the compiler keeps the captures in registers. run_adaptive, which is the
// same code for all kernels, decides which thread runs which interval.
//
// The loop is not marked as free of dependences. Items are independent of one another, but the mark would also promise
// that one item's own arrays are never written and read again, and a kernel that has such arrays would go wrong.
#pragma once

#include <climits>
#include <cstddef>
#include <string>
#include <type_traits>

#include "hostsycl/exception.hpp"
#include "hostsycl/range.hpp"

namespace sycl::detail {

/// Runs pieces [begin, end) of some work.
using piece_function = void (*)(const void* work, std::size_t begin, std::size_t end);

/// Runs all of [0, total). Nobody knows beforehand whether a piece costs a tenth of a nanosecond or ten microseconds,
/// so the first ones run on the calling thread, in growing intervals, under a clock. As soon as the rest looks long
/// enough to be worth it, it goes to the calling thread and TBB's workers together. Parallel intervals begin at
/// multiples of `row` where they are longer than that.
void run_adaptive(piece_function function, const void* work, std::size_t total, std::size_t row);

[[noreturn]] void refuse_launch(const std::string& message);

/// Work-item ids must fit an int, which is what kernels convert them to and what lets their loops vectorise.
template <int D>
void check_range(const range<D>& extent) {
    checked_bytes(extent, 1);
    for (int d = 0; d < D; ++d)
        if (extent[d] > static_cast<std::size_t>(INT_MAX))
            refuse_launch("a range of " + std::to_string(extent[d]) +
                          " work-items in one dimension exceeds the range of int");
}

template <class Kernel, int D>
struct cell_launch {
    const Kernel& kernel;
    range<D> extent;
};

/// The loop itself. `Extra` are further arguments of the kernel: its reducers.
template <class Kernel, int D, class... Extra>
[[gnu::always_inline]] inline void for_cells(const Kernel& kernel, const range<D>& extent, std::size_t begin,
                                             std::size_t end, Extra&... extra) {
    const std::size_t columns = extent[D - 1];
    id<D> index = index_at(begin, extent);
    std::size_t left = end - begin;
    while (left > 0) {
        const std::size_t until_row_end = columns - index[D - 1];
        const int first = static_cast<int>(index[D - 1]);
        const int last = first + static_cast<int>(left < until_row_end ? left : until_row_end);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion" // a kernel may take its index as any integer type
        // Known to be so, but only told explicitly does the compiler see that unsigned columns do not wrap around.
        if (first < 0 || last <= first)
            __builtin_unreachable();
        for (int column = first; column < last; ++column) {
            id<D> cell = index;
            cell[D - 1] = static_cast<std::size_t>(column);
            kernel(item<D>(extent, cell), extra...);
        }
#pragma GCC diagnostic pop
        left -= static_cast<std::size_t>(last - first);
        index[D - 1] = 0;
        if constexpr (D == 2)
            ++index[0];
        if constexpr (D == 3) {
            if (++index[1] == extent[1]) {
                index[1] = 0;
                ++index[0];
            }
        }
    }
}

template <class Kernel, int D>
[[gnu::noinline, gnu::flatten]] void run_cells(const void* work, std::size_t begin, std::size_t end) {
    const auto& launch = *static_cast<const cell_launch<Kernel, D>*>(work);
    const Kernel kernel(launch.kernel);
    const range<D> extent = launch.extent;
    for_cells(kernel, extent, begin, end);
}

template <class Kernel, int D>
void run_range(const Kernel& kernel, const range<D>& extent) {
    const cell_launch<Kernel, D> launch{kernel, extent};
    run_adaptive(run_cells<Kernel, D>, &launch, extent.size(), extent[D - 1]);
}

} // namespace sycl::detail
