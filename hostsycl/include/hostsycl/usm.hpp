// Memory of a device, or of the host for the transfers of a device. On the CPU all of it is plain host memory. An
// allocation that fails gives null.
#pragma once

#include <cstddef>

#include "hostsycl/device.hpp"

namespace sycl {

class queue;

void* aligned_alloc_device(std::size_t alignment, std::size_t bytes, const device& where, const context& of);
void* malloc_device(std::size_t bytes, const queue& where);
void* malloc_host(std::size_t bytes, const queue& where);

template <class T>
T* malloc_device(std::size_t count, const queue& where) {
    // A size that overflows is larger than any memory.
    const bool fits = count <= static_cast<std::size_t>(-1) / sizeof(T);
    return fits ? static_cast<T*>(malloc_device(count * sizeof(T), where)) : nullptr;
}

/// Null is allowed and does nothing; any other pointer must come from an allocation function of this header.
void free(void* block, const queue& where);

} // namespace sycl
