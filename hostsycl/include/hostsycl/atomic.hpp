// Atomic access to memory that other work-items share.
#pragma once

#include <atomic>
#include <type_traits>
#include <utility>

#include "hostsycl/access.hpp"

namespace sycl {

namespace detail {

#if defined(__cpp_lib_atomic_ref)
template <class T>
using atomic_object = std::atomic_ref<T>;
#elif defined(HOSTSYCL_NO_THREADS)
/// In the place of an atomic_ref that an older standard library lacks, where nothing runs at the same time.
template <class T>
class atomic_object {
  public:
    explicit atomic_object(T& object) : object_(object) {}

    T load(std::memory_order) const noexcept { return object_; }
    void store(T value, std::memory_order) const noexcept { object_ = value; }
    T exchange(T value, std::memory_order) const noexcept { return std::exchange(object_, value); }
    bool compare_exchange_strong(T& expected, T desired, std::memory_order) const noexcept {
        const bool is_equal = object_ == expected;
        (is_equal ? object_ : expected) = is_equal ? desired : object_;
        return is_equal;
    }
    T fetch_add(T operand, std::memory_order) const noexcept {
        const T before = object_;
        object_ = static_cast<T>(before + operand);
        return before;
    }

  private:
    T& object_;
};
#endif

} // namespace detail

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
    detail::atomic_object<T> object_;
};

} // namespace sycl
