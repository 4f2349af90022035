#include "hostsycl/usm.hpp"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

#include "device_registry.hpp"
#include "hostsycl/detail/queue_impl.hpp"
#include "hostsycl/queue.hpp"
#include "memory.hpp"

namespace sycl {
namespace detail {

namespace {

constexpr std::size_t largest_poisoned_block = std::size_t{128} << 20;

/// All USM allocations that are alive, by address.
class allocation_table {
  public:
    struct allocation {
        std::size_t bytes;
        memory_kind kind;
        std::shared_ptr<device_impl> device;
    };

    static allocation_table& instance() {
        static auto* table = new allocation_table;
        return *table;
    }

    void add(void* block, allocation entry) {
        const std::lock_guard lock(mutex_);
        entries_.emplace(reinterpret_cast<std::uintptr_t>(block), std::move(entry));
    }

    bool remove(void* block, allocation& entry) {
        const std::lock_guard lock(mutex_);
        const auto found = entries_.find(reinterpret_cast<std::uintptr_t>(block));
        if (found == entries_.end())
            return false;
        entry = std::move(found->second);
        entries_.erase(found);
        return true;
    }

    /// The allocation that `pointer` points into.
    bool find(const void* pointer, allocation& entry) const {
        const auto address = reinterpret_cast<std::uintptr_t>(pointer);
        const std::lock_guard lock(mutex_);
        auto next = entries_.upper_bound(address);
        if (next == entries_.begin())
            return false;
        --next;
        if (address - next->first >= std::max<std::size_t>(next->second.bytes, 1))
            return false;
        entry = next->second;
        return true;
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::uintptr_t, allocation> entries_;
};

} // namespace

void* device_impl::allocate(std::size_t bytes, std::size_t alignment, memory_kind kind) {
    const bool on_host = kind == memory_kind::host;
    if (plan->meet(on_host ? fault_kind::host_allocation : fault_kind::device_allocation))
        return nullptr;
    if (!on_host) {
        const std::lock_guard lock(plan->mutex);
        if (bytes > plan->allocation_limit || bytes > global_mem_size ||
            plan->counters.bytes_in_use > global_mem_size - bytes)
            return nullptr;
    }
    void* block = allocate_block(bytes, alignment);
    if (block == nullptr)
        return nullptr;
    if (separate_memory && !on_host && bytes <= largest_poisoned_block)
        std::memset(block, 0xFF, bytes);
    const std::lock_guard lock(plan->mutex);
    if (on_host) {
        ++plan->counters.live_host_allocations;
    } else {
        ++plan->counters.allocations;
        ++plan->counters.live_allocations;
        plan->counters.bytes_in_use += bytes;
        plan->counters.peak_bytes_in_use = std::max(plan->counters.peak_bytes_in_use, plan->counters.bytes_in_use);
    }
    return block;
}

void device_impl::deallocate(void* block, std::size_t bytes, memory_kind kind) noexcept {
    std::free(block);
    const std::lock_guard lock(plan->mutex);
    if (kind == memory_kind::host) {
        --plan->counters.live_host_allocations;
    } else {
        --plan->counters.live_allocations;
        plan->counters.bytes_in_use -= bytes;
    }
}

/// A copy between USM blocks, or blocks and host memory, counted in the direction that it crosses.
void copy_usm(queue_impl& queue, void* target, const void* source, std::size_t bytes) {
    const auto on_device = [&](const void* pointer) {
        allocation_table::allocation entry;
        return allocation_table::instance().find(pointer, entry) && entry.kind == memory_kind::device &&
               entry.device == queue.device;
    };
    const bool to_device = on_device(target);
    const bool from_device = on_device(source);
    fault_plan& plan = *queue.device->plan;
    if (const auto error = plan.meet(fault_kind::copy)) {
        queue.report(*error);
        return;
    }
    if (to_device != from_device) {
        const std::lock_guard lock(plan.mutex);
        (to_device ? plan.counters.bytes_copied_to_device : plan.counters.bytes_copied_to_host) += bytes;
    }
    copy_bytes(target, source, bytes);
}

namespace {

/// Wide enough for any vector.
constexpr std::size_t least_alignment = 64;

void* allocate_usm(std::size_t alignment, std::size_t bytes, const std::shared_ptr<device_impl>& device,
                   memory_kind kind) {
    const aspect needed = kind == memory_kind::host ? aspect::usm_host_allocations : aspect::usm_device_allocations;
    if (!device->has(needed))
        throw exception(errc::feature_not_supported, "the device has no USM allocations of this kind");
    if (!std::has_single_bit(alignment))
        return nullptr;
    void* block = device->allocate(bytes, std::max(alignment, least_alignment), kind);
    if (block == nullptr)
        return nullptr;
    try {
        allocation_table::instance().add(block, {bytes, kind, device});
    } catch (const std::bad_alloc&) {
        device->deallocate(block, bytes, kind);
        return nullptr;
    }
    return block;
}

} // namespace
} // namespace detail

void* aligned_alloc_device(std::size_t alignment, std::size_t bytes, const device& where, const context&) {
    return detail::allocate_usm(alignment, bytes, where.impl(), detail::memory_kind::device);
}

void* malloc_device(std::size_t bytes, const queue& where) {
    return detail::allocate_usm(detail::least_alignment, bytes, where.impl()->device, detail::memory_kind::device);
}

void* malloc_host(std::size_t bytes, const queue& where) {
    return detail::allocate_usm(detail::least_alignment, bytes, where.impl()->device, detail::memory_kind::host);
}

void free(void* block, const queue&) {
    if (block == nullptr)
        return;
    detail::allocation_table::allocation entry;
    if (!detail::allocation_table::instance().remove(block, entry))
        throw exception(errc::invalid, "the pointer given to free is no USM allocation");
    entry.device->deallocate(block, entry.bytes, entry.kind);
}

} // namespace sycl
