// Unified shared memory. On the CPU every kind is plain host memory; what tells them apart is get_pointer_type.
// An allocation that fails gives null. A queue, or a device with its context, says whose memory it is.
#pragma once

#include <cstddef>

#include "hostsycl/device.hpp"
#include "hostsycl/property.hpp"

namespace sycl {

class queue;

namespace detail {

inline constexpr std::size_t usm_default_alignment = 64;

void* usm_allocate(std::size_t alignment, std::size_t bytes, const device& where, usm::alloc kind);
device usm_device(const queue& q);
device usm_host_device(const context& where);
/// `count` elements of `size` bytes; the largest number there is if that overflows, so that the allocation fails.
constexpr std::size_t usm_bytes(std::size_t count, std::size_t size) {
    return count > static_cast<std::size_t>(-1) / size ? static_cast<std::size_t>(-1) : count * size;
}

} // namespace detail

#define HOSTSYCL_USM(name, usm_kind)                                                                                   \
    inline void* aligned_alloc_##name(std::size_t alignment, std::size_t bytes, const device& where, const context&,   \
                                      const property_list& = {}) {                                                     \
        return detail::usm_allocate(alignment, bytes, where, usm_kind);                                                \
    }                                                                                                                  \
    template <class T>                                                                                                 \
    T* aligned_alloc_##name(std::size_t alignment, std::size_t count, const device& where, const context&,             \
                            const property_list& = {}) {                                                               \
        return static_cast<T*>(detail::usm_allocate(alignment < alignof(T) ? alignof(T) : alignment,                   \
                                                    detail::usm_bytes(count, sizeof(T)), where, usm_kind));            \
    }                                                                                                                  \
    inline void* malloc_##name(std::size_t bytes, const device& where, const context&, const property_list& = {}) {    \
        return detail::usm_allocate(detail::usm_default_alignment, bytes, where, usm_kind);                            \
    }                                                                                                                  \
    template <class T>                                                                                                 \
    T* malloc_##name(std::size_t count, const device& where, const context& in, const property_list& = {}) {           \
        return aligned_alloc_##name<T>(detail::usm_default_alignment, count, where, in);                               \
    }
HOSTSYCL_USM(device, usm::alloc::device)
HOSTSYCL_USM(shared, usm::alloc::shared)
#undef HOSTSYCL_USM

inline void* aligned_alloc_host(std::size_t alignment, std::size_t bytes, const context& where,
                                const property_list& = {}) {
    return detail::usm_allocate(alignment, bytes, detail::usm_host_device(where), usm::alloc::host);
}
template <class T>
T* aligned_alloc_host(std::size_t alignment, std::size_t count, const context& where, const property_list& = {}) {
    return static_cast<T*>(aligned_alloc_host(alignment < alignof(T) ? alignof(T) : alignment,
                                              detail::usm_bytes(count, sizeof(T)), where));
}
inline void* malloc_host(std::size_t bytes, const context& where, const property_list& = {}) {
    return aligned_alloc_host(detail::usm_default_alignment, bytes, where);
}
template <class T>
T* malloc_host(std::size_t count, const context& where, const property_list& = {}) {
    return aligned_alloc_host<T>(detail::usm_default_alignment, count, where);
}

#define HOSTSYCL_USM_QUEUE(name, usm_kind)                                                                             \
    inline void* aligned_alloc_##name(std::size_t alignment, std::size_t bytes, const queue& q,                        \
                                      const property_list& = {}) {                                                     \
        return detail::usm_allocate(alignment, bytes, detail::usm_device(q), usm_kind);                                \
    }                                                                                                                  \
    template <class T>                                                                                                 \
    T* aligned_alloc_##name(std::size_t alignment, std::size_t count, const queue& q, const property_list& = {}) {     \
        return static_cast<T*>(aligned_alloc_##name(alignment < alignof(T) ? alignof(T) : alignment,                   \
                                                    detail::usm_bytes(count, sizeof(T)), q));                          \
    }                                                                                                                  \
    inline void* malloc_##name(std::size_t bytes, const queue& q, const property_list& = {}) {                         \
        return aligned_alloc_##name(detail::usm_default_alignment, bytes, q);                                          \
    }                                                                                                                  \
    template <class T>                                                                                                 \
    T* malloc_##name(std::size_t count, const queue& q, const property_list& = {}) {                                   \
        return aligned_alloc_##name<T>(detail::usm_default_alignment, count, q);                                       \
    }
HOSTSYCL_USM_QUEUE(device, usm::alloc::device)
HOSTSYCL_USM_QUEUE(shared, usm::alloc::shared)
HOSTSYCL_USM_QUEUE(host, usm::alloc::host)
#undef HOSTSYCL_USM_QUEUE

/// Null is allowed and does nothing; any other pointer must come from an allocation function of this header.
void free(void* block, const context& where);
void free(void* block, const queue& q);

/// The kind of the block that `pointer` points into; unknown if it is none of ours.
usm::alloc get_pointer_type(const void* pointer, const context& where);
device get_pointer_device(const void* pointer, const context& where);

} // namespace sycl
