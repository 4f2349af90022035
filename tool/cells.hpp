#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#include <sys/mman.h>

/// Memory for the cells of grids. Large ones get huge pages, of which the kernel hands out few, but not those of more
/// than 32 MiB, for which virtual machines may take longer. None are set to 0 unless a value is given: most are
/// overwritten at once.
template <class Cell>
struct CellAllocator {
    using value_type = Cell;

    CellAllocator() = default;
    template <class Other>
    CellAllocator(const CellAllocator<Other>&) noexcept {}

    Cell* allocate(std::size_t count) {
        constexpr std::size_t huge_page = std::size_t{2} << 20, least = 64;
        if (count > (static_cast<std::size_t>(-1) - huge_page) / sizeof(Cell))
            throw std::bad_alloc();
        const std::size_t bytes = count * sizeof(Cell);
        const bool is_large = bytes >= 2 * huge_page && bytes <= 16 * huge_page;
        const std::size_t alignment = is_large ? huge_page : least;
        const std::size_t rounded = (bytes + alignment - 1) / alignment * alignment;
        void* const block = std::aligned_alloc(alignment, std::max(rounded, alignment));
        if (block == nullptr)
            throw std::bad_alloc();
        if (is_large)
            madvise(block, rounded, MADV_HUGEPAGE);
        return static_cast<Cell*>(block);
    }
    void deallocate(Cell* cells, std::size_t) noexcept { std::free(cells); }

    void construct(Cell* cell) noexcept { ::new (static_cast<void*>(cell)) Cell; }

    bool operator==(const CellAllocator&) const = default;
};

using Cells = std::vector<float, CellAllocator<float>>;
