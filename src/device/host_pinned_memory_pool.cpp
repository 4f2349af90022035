#include "device/host_pinned_memory_pool.hpp"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace tarn {

namespace {

/// All pools of the process, one a context.
std::vector<std::shared_ptr<HostPinnedMemoryPool>>& pools() {
    static std::vector<std::shared_ptr<HostPinnedMemoryPool>> list;
    return list;
}

void* allocate_plain(std::size_t bytes) {
    constexpr std::size_t alignment = 64;
    const std::size_t rounded = std::max(alignment, (bytes + alignment - 1) / alignment * alignment);
    void* block = rounded < bytes ? nullptr : std::aligned_alloc(alignment, rounded);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

} // namespace

std::shared_ptr<HostPinnedMemoryPool> HostPinnedMemoryPool::for_queue(sycl::queue& queue) {
    for (const auto& pool : pools())
        if (pool->queue_.get_context() == queue.get_context())
            return pool;
    return pools().emplace_back(std::make_shared<HostPinnedMemoryPool>(queue));
}

HostPinnedMemoryPool::HostPinnedMemoryPool(const sycl::queue& queue)
    : queue_(queue),
      pinned_supported_(!queue.get_device().is_cpu() && queue.get_device().has(sycl::aspect::usm_host_allocations)) {}

void* HostPinnedMemoryPool::rent(std::size_t bytes) {
    if (!pinned_supported_)
        return allocate_plain(bytes);

    auto best = available_.end();
    for (auto block = available_.begin(); block != available_.end(); ++block)
        if (block->second >= bytes && (best == available_.end() || block->second < best->second))
            best = block;
    if (best != available_.end()) {
        rented_.push_back(*best);
        available_.erase(best);
        return rented_.back().first;
    }

    if (rented_.size() + available_.size() < max_pinned_blocks) {
        if (void* block = sycl::malloc_host(bytes, queue_)) {
            rented_.emplace_back(block, bytes);
            return block;
        }
    }
    return allocate_plain(bytes);
}

void HostPinnedMemoryPool::give_back(void* block) {
    const auto found = std::find_if(rented_.begin(), rented_.end(),
                                    [block](const Block& candidate) { return candidate.first == block; });
    if (found == rented_.end()) {
        std::free(block);
        return;
    }
    available_.push_back(*found);
    rented_.erase(found);
}

void HostPinnedMemoryPool::release_all() {
    for (const auto& block : rented_)
        sycl::free(block.first, queue_);
    for (const auto& block : available_)
        sycl::free(block.first, queue_);
    rented_.clear();
    available_.clear();
}

void release_pinned_pools(sycl::queue& queue) {
    const sycl::context context = queue.get_context();
    std::erase_if(pools(), [&context](const auto& pool) { return pool->queue().get_context() == context; });
}

} // namespace tarn
