// Atomic access to memory that other work-items share.
#pragma once

#include <atomic>
#include <type_traits>

#include "hostsycl/access.hpp"

namespace sycl {

/// Integers and floats, in the default order of the type. Scope and address space make no difference on a CPU.
template <class T, memory_order DefaultOrder, memory_scope DefaultScope,
          access::address_space Space = access::address_space::generic_space>
class atomic_ref {
    static_assert(std::is_integral_v<T> || std::is_floating_point_v<T>);
    static_assert(sizeof(T) == 4 || sizeof(T) == 8);
    static_assert(DefaultOrder == memory_order::relaxed || DefaultOrder == memory_order::seq_cst);

    static constexpr std::memory_order order = detail::to_std(DefaultOrder);

  public:
    using value_type = T;

    explicit atomic_ref(T& object) : object_(object) {}
    atomic_ref(const atomic_ref&) = default;
    atomic_ref& operator=(const atomic_ref&) = delete;

    T load() const noexcept { return object_.load(order); }
    void store(T value) const noexcept { object_.store(value, order); }
    T exchange(T value) const noexcept { return object_.exchange(value, order); }
    bool compare_exchange_strong(T& expected, T desired) const noexcept {
        return object_.compare_exchange_strong(expected, desired, order);
    }
    T fetch_add(T operand) const noexcept { return object_.fetch_add(operand, order); }

  private:
    std::atomic_ref<T> object_;
};

} // namespace sycl
