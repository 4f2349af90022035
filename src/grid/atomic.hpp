// Changes of grid cells that several work-items make at once.
#pragma once

#include <bit>
#include <cstdint>

#include <sycl/sycl.hpp>

namespace tarn {

/// A value in global memory that other work-items change as well. Nothing is ordered by it.
template <class T>
using SharedCell = sycl::atomic_ref<T, sycl::memory_order::relaxed, sycl::memory_scope::device,
                                    sycl::access::address_space::global_space>;

/// Adds to a cell. The value before.
template <class T>
inline T atomic_add(T& cell, T value) {
    return SharedCell<T>(cell).fetch_add(value);
}

/// Adds to two cells of 32 bits, of which the second one follows the first one, at an address that 8 divides. It is for
/// CPUs, which have no atomic additions of floats: one exchange is half the work of two.
template <class A, class B>
inline void atomic_add_two(A& first, A a, [[maybe_unused]] B& second, B b) {
    struct Two {
        A a;
        B b;
    };
    static_assert(sizeof(A) == 4 && sizeof(B) == 4);
    const SharedCell<std::uint64_t> shared(reinterpret_cast<std::uint64_t&>(first));
    std::uint64_t seen = shared.load();
    for (bool is_done = false; !is_done;) {
        const Two now = std::bit_cast<Two>(seen);
        is_done = shared.compare_exchange_strong(seen, std::bit_cast<std::uint64_t>(Two{now.a + a, now.b + b}));
    }
}

/// Sets a cell. The value before.
template <class T>
inline T atomic_exchange(T& cell, T value) {
    return SharedCell<T>(cell).exchange(value);
}

/// Raises a cell to `value`. True if it was lower; a NaN raises nothing.
inline bool atomic_raise(float& cell, float value) {
    const SharedCell<float> shared(cell);
    float seen = shared.load();
    while (value > seen)
        if (shared.compare_exchange_strong(seen, value))
            return true;
    return false;
}

} // namespace tarn
