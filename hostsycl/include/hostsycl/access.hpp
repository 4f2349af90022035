// The enumerations and tags that say how memory is accessed.
#pragma once

#include <atomic>

namespace sycl {

enum class access_mode {
    read = 1024,
    write = 1025,
    read_write = 1026,
    discard_write = 1027,
    discard_read_write = 1028,
};

enum class target { device, host_task, global_buffer = device };

enum class memory_order { relaxed, acquire, release, acq_rel, seq_cst };
enum class memory_scope { work_item, sub_group, work_group, device, system };

inline constexpr memory_order memory_order_relaxed = memory_order::relaxed;
inline constexpr memory_order memory_order_acquire = memory_order::acquire;
inline constexpr memory_order memory_order_release = memory_order::release;
inline constexpr memory_order memory_order_acq_rel = memory_order::acq_rel;
inline constexpr memory_order memory_order_seq_cst = memory_order::seq_cst;
inline constexpr memory_scope memory_scope_work_item = memory_scope::work_item;
inline constexpr memory_scope memory_scope_sub_group = memory_scope::sub_group;
inline constexpr memory_scope memory_scope_work_group = memory_scope::work_group;
inline constexpr memory_scope memory_scope_device = memory_scope::device;
inline constexpr memory_scope memory_scope_system = memory_scope::system;

namespace access {

using mode = access_mode;
using sycl::target;

enum class address_space { global_space, local_space, private_space, generic_space };
enum class fence_space { local_space, global_space, global_and_local };
enum class decorated { no, yes, legacy };
enum class placeholder { false_t, true_t };

} // namespace access

template <access_mode Mode, target Target>
struct mode_tag {
    static constexpr access_mode mode = Mode;
    static constexpr sycl::target target = Target;
};

inline constexpr mode_tag<access_mode::read, target::device> read_only;
inline constexpr mode_tag<access_mode::write, target::device> write_only;
inline constexpr mode_tag<access_mode::read_write, target::device> read_write;
inline constexpr mode_tag<access_mode::read, target::host_task> read_only_host_task;
inline constexpr mode_tag<access_mode::write, target::host_task> write_only_host_task;
inline constexpr mode_tag<access_mode::read_write, target::host_task> read_write_host_task;

namespace detail {

constexpr bool writes(access_mode mode) {
    return mode != access_mode::read;
}
constexpr bool discards(access_mode mode) {
    return mode == access_mode::discard_write || mode == access_mode::discard_read_write;
}

constexpr std::memory_order to_std(memory_order order) {
    switch (order) {
    case memory_order::relaxed:
        return std::memory_order_relaxed;
    case memory_order::acquire:
        return std::memory_order_acquire;
    case memory_order::release:
        return std::memory_order_release;
    case memory_order::acq_rel:
        return std::memory_order_acq_rel;
    default:
        return std::memory_order_seq_cst;
    }
}

} // namespace detail

inline void atomic_fence(memory_order order, memory_scope) noexcept {
    std::atomic_thread_fence(detail::to_std(order));
}

} // namespace sycl
