#include "hostsycl/work_group.hpp"

#include <cstdlib>
#include <cstring>
#include <new>

namespace sycl::detail {

namespace {

struct local_arena {
    ~local_arena() { std::free(block); }

    std::byte* block = nullptr;
    std::size_t bytes = 0;
};

thread_local local_arena arena;
thread_local bool arena_in_use = false;

} // namespace

std::byte* local_memory() noexcept {
    return arena_in_use ? arena.block : nullptr;
}

local_memory_scope::local_memory_scope(std::size_t bytes) : bytes_(bytes) {
    if (bytes == 0)
        return;
    if (arena.bytes < bytes) {
        std::free(arena.block);
        arena.bytes = 0;
        arena.block = static_cast<std::byte*>(std::aligned_alloc(64, (bytes + 63) / 64 * 64));
        if (arena.block == nullptr)
            throw std::bad_alloc();
        arena.bytes = bytes;
    }
    arena_in_use = true;
}

local_memory_scope::~local_memory_scope() {
    arena_in_use = false;
}

void local_memory_scope::poison() noexcept {
    if (bytes_ > 0)
        std::memset(arena.block, 0xFF, bytes_);
}

void check_work_group(const device_impl& device, std::size_t group_size, std::size_t local_bytes) {
    if (group_size > device.max_work_group_size)
        refuse_launch("a work-group of " + std::to_string(group_size) + " exceeds the device's limit of " +
                      std::to_string(device.max_work_group_size));
    if (local_bytes > device.local_mem_size)
        throw exception(errc::memory_allocation, "a work-group needs " + std::to_string(local_bytes) +
                                                     " bytes of local memory and the device has " +
                                                     std::to_string(device.local_mem_size));
}

} // namespace sycl::detail
