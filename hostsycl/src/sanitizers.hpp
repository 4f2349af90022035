// What the sanitizers must be told about threads and stacks that they cannot see into. Without them nothing is left.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define HOSTSYCL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HOSTSYCL_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(__SANITIZE_THREAD__)
#define HOSTSYCL_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HOSTSYCL_THREAD_SANITIZER 1
#endif
#endif

#if defined(HOSTSYCL_ADDRESS_SANITIZER)
#include <sanitizer/common_interface_defs.h>
#endif

#if defined(HOSTSYCL_THREAD_SANITIZER)
#include <sanitizer/tsan_interface.h>
#define HOSTSYCL_TSAN_ACQUIRE(address) __tsan_acquire(address)
#define HOSTSYCL_TSAN_RELEASE(address) __tsan_release(address)
#else
#define HOSTSYCL_TSAN_ACQUIRE(address) static_cast<void>(address)
#define HOSTSYCL_TSAN_RELEASE(address) static_cast<void>(address)
#endif

namespace sycl::detail {

/// A stack as the sanitizers know it.
struct watched_stack {
    const void* bottom = nullptr;
    std::size_t bytes = 0;
    void* fake_stack = nullptr;
    void* fiber = nullptr;
};

/// A fiber is about to begin on this stack.
inline void watch_fiber([[maybe_unused]] watched_stack& stack, [[maybe_unused]] const void* bottom,
                        [[maybe_unused]] std::size_t bytes) {
    stack = {bottom, bytes};
#if defined(HOSTSYCL_THREAD_SANITIZER)
    stack.fiber = __tsan_create_fiber(0);
#endif
}

/// The running stack `from` is about to give way to `to`; `for_good` if it has ended.
inline void begin_switch([[maybe_unused]] watched_stack& from, [[maybe_unused]] const watched_stack& to,
                         [[maybe_unused]] bool for_good) {
#if defined(HOSTSYCL_ADDRESS_SANITIZER)
    __sanitizer_start_switch_fiber(for_good ? nullptr : &from.fake_stack, to.bottom, to.bytes);
#endif
#if defined(HOSTSYCL_THREAD_SANITIZER)
    if (from.fiber == nullptr)
        from.fiber = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(to.fiber, 0);
#endif
}

/// `to`, now running, has taken over from `from`, which has ended if `for_good`.
inline void end_switch([[maybe_unused]] watched_stack& from, [[maybe_unused]] const watched_stack& to,
                       [[maybe_unused]] bool for_good) {
#if defined(HOSTSYCL_ADDRESS_SANITIZER)
    __sanitizer_finish_switch_fiber(to.fake_stack, &from.bottom, &from.bytes);
#endif
#if defined(HOSTSYCL_THREAD_SANITIZER)
    if (for_good)
        __tsan_destroy_fiber(from.fiber);
#endif
}

} // namespace sycl::detail
