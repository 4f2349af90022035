#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <sys/mman.h>

namespace sycl::detail {

/// Null if there is no memory; std::free gives it back. `alignment` is a power of two.
inline void* allocate_block(std::size_t bytes, std::size_t alignment) {
    // No object can be larger; asking for more is an error of its own under AddressSanitizer.
    constexpr std::size_t largest = PTRDIFF_MAX;
    if (alignment > largest || bytes > largest - alignment)
        return nullptr;
    // Large blocks in huge pages: a grid of 16 MiB is then 8 page faults and a handful of TLB entries. Not the largest:
    // in a virtual machine that gives memory back to its host, huge pages take several times as long to touch first.
    constexpr std::size_t huge_page = std::size_t{2} << 20;
    const bool large = bytes >= 2 * huge_page && bytes <= 16 * huge_page;
    if (large)
        alignment = std::max(alignment, huge_page);
    const std::size_t rounded = (std::max<std::size_t>(bytes, 1) + alignment - 1) / alignment * alignment;
    void* block = std::aligned_alloc(alignment, rounded);
    if (block != nullptr && large)
        madvise(block, rounded, MADV_HUGEPAGE);
    return block;
}

} // namespace sycl::detail
