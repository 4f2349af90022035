// The enumerations and tags that say how memory is accessed.
#pragma once

#include <atomic>

namespace sycl {

enum class access_mode { read, write, read_write };

enum class memory_order { relaxed, acquire, release, acq_rel, seq_cst };
enum class memory_scope { work_item, sub_group, work_group, device, system };

namespace access {

using mode = access_mode;

enum class address_space { global_space, local_space, private_space, generic_space };

} // namespace access

template <access_mode Mode>
struct mode_tag {};

inline constexpr mode_tag<access_mode::read> read_only;
inline constexpr mode_tag<access_mode::write> write_only;
inline constexpr mode_tag<access_mode::read_write> read_write;

namespace detail {

constexpr bool writes(access_mode mode) {
    return mode != access_mode::read;
}

constexpr std::memory_order to_std(memory_order order) {
    return order == memory_order::relaxed ? std::memory_order_relaxed : std::memory_order_seq_cst;
}

} // namespace detail
} // namespace sycl
