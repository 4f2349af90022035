#include "hostsycl/usm.hpp"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include <sys/mman.h>

#include "device_registry.hpp"
#include "hostsycl/detail/queue_impl.hpp"
#include "hostsycl/queue.hpp"

namespace sycl {
namespace detail {

namespace {

constexpr std::size_t huge_page = std::size_t{2} << 20;
constexpr std::size_t largest_poisoned_block = std::size_t{128} << 20;

void* allocate_block(std::size_t bytes, std::size_t alignment) {
    // Large blocks in huge pages: a grid of 16 MiB is then 8 page faults and a handful of TLB entries.
    const bool large = bytes >= 2 * huge_page;
    if (large)
        alignment = std::max(alignment, huge_page);
    const std::size_t rounded = (std::max<std::size_t>(bytes, 1) + alignment - 1) / alignment * alignment;
    if (rounded < bytes)
        return nullptr;
    void* block = std::aligned_alloc(alignment, rounded);
    if (block != nullptr && large)
        madvise(block, rounded, MADV_HUGEPAGE);
    return block;
}

/// All USM allocations that are alive, by address.
class allocation_table {
  public:
    struct allocation {
        std::size_t bytes;
        usm::alloc kind;
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

void require_aspect(const device_impl& device, usm::alloc kind) {
    const aspect needed = kind == usm::alloc::device ? aspect::usm_device_allocations
                          : kind == usm::alloc::host ? aspect::usm_host_allocations
                                                     : aspect::usm_shared_allocations;
    if (!device.has(needed))
        throw exception(errc::feature_not_supported, "the device has no USM allocations of this kind");
}

} // namespace

void* device_impl::allocate(std::size_t bytes, std::size_t alignment, usm::alloc kind) {
    const bool on_host = kind == usm::alloc::host;
    {
        const std::lock_guard lock(plan->mutex);
        std::exception_ptr unused;
        const bool fails = plan->meet(on_host ? fault_kind::host_allocation : fault_kind::device_allocation, unused);
        faults_armed = plan->armed();
        if (fails)
            return nullptr;
        if (on_host) {
            if (bytes > global_mem_size && !separate_memory)
                return nullptr;
        } else {
            if (bytes > plan->allocation_limit || bytes > global_mem_size ||
                plan->counters.bytes_in_use > global_mem_size - bytes)
                return nullptr;
        }
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

void device_impl::deallocate(void* block, std::size_t bytes, usm::alloc kind) noexcept {
    std::free(block);
    const std::lock_guard lock(plan->mutex);
    if (kind == usm::alloc::host) {
        --plan->counters.live_host_allocations;
    } else {
        --plan->counters.live_allocations;
        plan->counters.bytes_in_use -= bytes;
    }
}

void* usm_allocate(std::size_t alignment, std::size_t bytes, const device& where, usm::alloc kind) {
    device_impl& device = *where.impl();
    require_aspect(device, kind);
    if (alignment == 0)
        alignment = usm_default_alignment;
    if (!std::has_single_bit(alignment))
        return nullptr;
    void* block = device.allocate(bytes, std::max(alignment, usm_default_alignment), kind);
    if (block != nullptr)
        allocation_table::instance().add(block, {bytes, kind, where.impl()});
    return block;
}

device usm_device(const queue& q) {
    return q.get_device();
}

device usm_host_device(const context& where) {
    const auto devices = where.get_devices();
    if (devices.empty())
        throw exception(errc::invalid, "the devices of the context are gone");
    return devices.front();
}

/// Counts a copy between USM blocks, or blocks and host memory, in the direction that it crosses.
bool count_usm_copy(queue_impl& queue, void* target, const void* source, std::size_t bytes) {
    allocation_table::allocation entry;
    const auto on_device = [&](const void* pointer) {
        return allocation_table::instance().find(pointer, entry) && entry.kind == usm::alloc::device &&
               entry.device == queue.device;
    };
    const bool to_device = on_device(target);
    const bool from_device = on_device(source);
    std::exception_ptr error;
    bool fails = false;
    {
        fault_plan& plan = *queue.device->plan;
        const std::lock_guard lock(plan.mutex);
        fails = plan.meet(fault_kind::copy, error);
        queue.device->faults_armed = plan.armed();
        if (!fails && to_device && !from_device)
            plan.counters.bytes_copied_to_device += bytes;
        if (!fails && from_device && !to_device)
            plan.counters.bytes_copied_to_host += bytes;
    }
    if (fails)
        queue.report(error);
    return !fails;
}

} // namespace detail

void free(void* block, const context&) {
    if (block == nullptr)
        return;
    detail::allocation_table::allocation entry;
    if (!detail::allocation_table::instance().remove(block, entry))
        throw exception(errc::invalid, "the pointer given to free is no USM allocation");
    entry.device->deallocate(block, entry.bytes, entry.kind);
}

void free(void* block, const queue& q) {
    free(block, q.get_context());
}

usm::alloc get_pointer_type(const void* pointer, const context&) {
    detail::allocation_table::allocation entry;
    return detail::allocation_table::instance().find(pointer, entry) ? entry.kind : usm::alloc::unknown;
}

device get_pointer_device(const void* pointer, const context&) {
    detail::allocation_table::allocation entry;
    if (!detail::allocation_table::instance().find(pointer, entry))
        throw exception(errc::invalid, "the pointer points into no USM allocation");
    return device(entry.device);
}

} // namespace sycl
