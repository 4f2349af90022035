// One kernel over a list of things that do not lie in a row of cells: particles, pixels of rocks, cells of triangles.
//
// On a GPU one work-item takes one of them, and the hardware runs many work-items in step. A CPU has no such hardware,
// but it has vectors: one work-item takes a block of the list and works on `cpu_lanes` of it side by side, each in a
// lane of its own. What they have to agree on, how often a loop runs above all, is the same for all lanes; where they
// differ, a lane that has nothing to do goes along and drops its result. So a kernel is written once, for any number of
// lanes:
//
//  - Its state is arrays with one element a lane, its steps are loops over the lanes marked as independent.
//  - Such a loop has no branch, which would keep it from becoming vectors. Conditions are masks of 32 bits, combined
//    with bitwise operations, and `blend` picks by them.
//  - Reads outside a grid are not skipped but led to a cell inside, and their result is blended away.
//
// The lanes of one work-item and the work-items of a GPU do the same float operations in the same order, so both give
// the same bits.
#pragma once

#include <bit>
#include <cstdint>
#include <type_traits>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "grid/launch_cells.hpp"
#include "grid/numeric.hpp"

namespace tarn {

/// A condition as 32 bits, all set or none.
using Mask = std::uint32_t;

inline Mask mask_of(bool condition) {
    return 0u - static_cast<Mask>(condition);
}

inline std::uint32_t blend(Mask mask, std::uint32_t set, std::uint32_t clear) {
    return (set & mask) | (clear & ~mask);
}

inline int blend(Mask mask, int set, int clear) {
    return static_cast<int>(blend(mask, static_cast<std::uint32_t>(set), static_cast<std::uint32_t>(clear)));
}

inline float blend(Mask mask, float set, float clear) {
    return std::bit_cast<float>(blend(mask, std::bit_cast<std::uint32_t>(set), std::bit_cast<std::uint32_t>(clear)));
}

/// Calls `work(first, last, lanes)` for the items 0 to `count`, in blocks: one item a block on GPUs, `block` items on
/// CPUs. `lanes`, a constant, is how many the block's work may take side by side: 1 or cpu_lanes.
template <class Target, class Index, class Work>
void launch_lanes(LaunchTarget<Target> on, Index count, Index block, Work work) {
    static_assert(std::is_unsigned_v<Index>);
    if (count == 0)
        return;
    if (!on.is_cpu) {
        on.target.parallel_for(sycl::range<1>(count), [=](sycl::id<1> item) {
            const auto first = static_cast<Index>(item[0]);
            work(first, static_cast<Index>(first + 1u), std::integral_constant<int, 1>{});
        });
        return;
    }
    on.target.parallel_for(sycl::range<1>((count - 1u) / block + 1u), [=](sycl::id<1> item) {
        const auto first = static_cast<Index>(static_cast<Index>(item[0]) * block);
        work(first, static_cast<Index>(first + minimum(block, static_cast<Index>(count - first))),
             std::integral_constant<int, cpu_lanes>{});
    });
}

} // namespace tarn
