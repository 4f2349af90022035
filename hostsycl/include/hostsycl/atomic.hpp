// Atomic access to memory that other work-items share.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <type_traits>

#include "hostsycl/access.hpp"

namespace sycl {

namespace detail {

/// The order of a load, or of an exchange that failed, that goes with the order of a whole operation.
constexpr memory_order load_order(memory_order order) {
    return order == memory_order::acq_rel   ? memory_order::acquire
           : order == memory_order::release ? memory_order::relaxed
                                            : order;
}
constexpr memory_order store_order(memory_order order) {
    return order == memory_order::acq_rel   ? memory_order::release
           : order == memory_order::acquire ? memory_order::relaxed
                                            : order;
}

} // namespace detail

/// Integers and floats. Scope and address space make no difference on a CPU.
template <class T, memory_order DefaultOrder, memory_scope DefaultScope,
          access::address_space Space = access::address_space::generic_space>
class atomic_ref {
    static_assert(std::is_integral_v<T> || std::is_floating_point_v<T>);
    static_assert(sizeof(T) == 4 || sizeof(T) == 8);
    static_assert(DefaultOrder == memory_order::relaxed || DefaultOrder == memory_order::acq_rel ||
                  DefaultOrder == memory_order::seq_cst);

  public:
    using value_type = T;
    using difference_type = T;
    static constexpr std::size_t required_alignment = std::atomic_ref<T>::required_alignment;
    static constexpr bool is_always_lock_free = std::atomic_ref<T>::is_always_lock_free;
    static constexpr memory_order default_read_order = detail::load_order(DefaultOrder);
    static constexpr memory_order default_write_order = detail::store_order(DefaultOrder);
    static constexpr memory_order default_read_modify_write_order = DefaultOrder;
    static constexpr memory_scope default_scope = DefaultScope;

    explicit atomic_ref(T& object) : object_(object) {}
    atomic_ref(const atomic_ref&) = default;
    atomic_ref& operator=(const atomic_ref&) = delete;

    bool is_lock_free() const noexcept { return object_.is_lock_free(); }

    T load(memory_order order = default_read_order, memory_scope = DefaultScope) const noexcept {
        return object_.load(detail::to_std(order));
    }
    void store(T value, memory_order order = default_write_order, memory_scope = DefaultScope) const noexcept {
        object_.store(value, detail::to_std(order));
    }
    operator T() const noexcept { return load(); }
    T operator=(T value) const noexcept {
        store(value);
        return value;
    }

    T exchange(T value, memory_order order = DefaultOrder, memory_scope = DefaultScope) const noexcept {
        return object_.exchange(value, detail::to_std(order));
    }

    bool compare_exchange_weak(T& expected, T desired, memory_order success, memory_order failure,
                               memory_scope = DefaultScope) const noexcept {
        return object_.compare_exchange_weak(expected, desired, detail::to_std(success), detail::to_std(failure));
    }
    bool compare_exchange_weak(T& expected, T desired, memory_order order = DefaultOrder,
                               memory_scope scope = DefaultScope) const noexcept {
        return compare_exchange_weak(expected, desired, order, detail::load_order(order), scope);
    }
    bool compare_exchange_strong(T& expected, T desired, memory_order success, memory_order failure,
                                 memory_scope = DefaultScope) const noexcept {
        return object_.compare_exchange_strong(expected, desired, detail::to_std(success), detail::to_std(failure));
    }
    bool compare_exchange_strong(T& expected, T desired, memory_order order = DefaultOrder,
                                 memory_scope scope = DefaultScope) const noexcept {
        return compare_exchange_strong(expected, desired, order, detail::load_order(order), scope);
    }

    T fetch_add(T operand, memory_order order = DefaultOrder, memory_scope = DefaultScope) const noexcept {
        return object_.fetch_add(operand, detail::to_std(order));
    }
    T fetch_sub(T operand, memory_order order = DefaultOrder, memory_scope = DefaultScope) const noexcept {
        return object_.fetch_sub(operand, detail::to_std(order));
    }
    T fetch_and(T operand, memory_order order = DefaultOrder,
                memory_scope = DefaultScope) const noexcept requires std::integral<T> {
        return object_.fetch_and(operand, detail::to_std(order));
    }
    T fetch_or(T operand, memory_order order = DefaultOrder,
               memory_scope = DefaultScope) const noexcept requires std::integral<T> {
        return object_.fetch_or(operand, detail::to_std(order));
    }
    T fetch_xor(T operand, memory_order order = DefaultOrder,
                memory_scope = DefaultScope) const noexcept requires std::integral<T> {
        return object_.fetch_xor(operand, detail::to_std(order));
    }
    T fetch_min(T operand, memory_order order = DefaultOrder, memory_scope = DefaultScope) const noexcept {
        T seen = load(detail::load_order(order));
        while (operand < seen && !compare_exchange_weak(seen, operand, order)) {
        }
        return seen;
    }
    T fetch_max(T operand, memory_order order = DefaultOrder, memory_scope = DefaultScope) const noexcept {
        T seen = load(detail::load_order(order));
        while (seen < operand && !compare_exchange_weak(seen, operand, order)) {
        }
        return seen;
    }

    T operator+=(T operand) const noexcept { return static_cast<T>(fetch_add(operand) + operand); }
    T operator-=(T operand) const noexcept { return static_cast<T>(fetch_sub(operand) - operand); }
    T operator++() const noexcept requires std::integral<T> { return *this += T{1}; }
    T operator--() const noexcept requires std::integral<T> { return *this -= T{1}; }
    T operator++(int) const noexcept requires std::integral<T> { return fetch_add(T{1}); }
    T operator--(int) const noexcept requires std::integral<T> { return fetch_sub(T{1}); }
    T operator&=(T operand) const noexcept requires std::integral<T> { return fetch_and(operand) & operand; }
    T operator|=(T operand) const noexcept requires std::integral<T> { return fetch_or(operand) | operand; }
    T operator^=(T operand) const noexcept requires std::integral<T> { return fetch_xor(operand) ^ operand; }

  private:
    std::atomic_ref<T> object_;
};

} // namespace sycl
