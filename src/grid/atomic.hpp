// Changes of grid cells that several work-items make at once.
#pragma once

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
