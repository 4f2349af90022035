// Grids of which a block of trails takes one for itself: what trails leave in their cells is added up there without
// atomic operations, which cost as much as the rest of a step. Only CPUs have them; GPUs have too many threads.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <sycl/sycl.hpp>

#include "grid/access.hpp"
#include "grid/fill.hpp"

namespace tarn::flow {

/// The planes as a kernel sees them.
template <class Cell>
struct Planes {
    using Flag = sycl::atomic_ref<std::uint32_t, sycl::memory_order::seq_cst, sycl::memory_scope::device,
                                  sycl::access::address_space::global_space>;

    Cell* cells;
    /// 1 for each plane that is taken, else 0.
    std::uint32_t* taken;
    int count;
    std::size_t size;

    /// Calls `work` with a plane that nobody else uses meanwhile, or with null if none is free.
    template <class Work>
    void with_one(const Work& work) const {
        for (int plane = 0; plane < count; ++plane) {
            const Flag flag(taken[plane]);
            if (flag.exchange(1u) == 0) {
                work(cells + static_cast<std::size_t>(plane) * size);
                return flag.store(0u);
            }
        }
        work(nullptr);
    }
};

/// The planes: one for each thread, but at most `most`, which is 1, 2, 4 or 8. Without any, `cells` has one element.
template <class Cell>
struct PlaneBuffers {
    PlaneBuffers(const sycl::device& device, const sycl::range<2>& extent, std::uint32_t most)
        : count(choose_count(device, extent, most)), size(extent.size()),
          cells(count > 0 ? sycl::range<2>(static_cast<std::size_t>(count) * extent[0], extent[1])
                          : sycl::range<2>(1, 1)),
          taken(sycl::range<2>(1, most)) {}

    void clear(sycl::queue& queue) {
        fill(queue, cells, Cell{});
        fill(queue, taken, 0u);
    }

    /// Calls `work(count)` with the count as a constant.
    template <class Work>
    void with_count(Work&& work) const {
        switch (count) {
        case 0:
            return work(std::integral_constant<int, 0>{});
        case 1:
            return work(std::integral_constant<int, 1>{});
        case 2:
            return work(std::integral_constant<int, 2>{});
        case 4:
            return work(std::integral_constant<int, 4>{});
        default:
            return work(std::integral_constant<int, 8>{});
        }
    }

    int count;
    /// Cells of a plane.
    std::size_t size;
    /// One plane below the other.
    sycl::buffer<Cell, 2> cells;
    sycl::buffer<std::uint32_t, 2> taken;

  private:
    static int choose_count(const sycl::device& device, const sycl::range<2>& extent, std::uint32_t most) {
        if (!device.is_cpu() || extent[0] > INT32_MAX / most) // a launch has no more rows
            return 0;
        return static_cast<int>(
            std::bit_ceil(std::min(device.get_info<sycl::info::device::max_compute_units>(), most)));
    }
};

} // namespace tarn::flow
