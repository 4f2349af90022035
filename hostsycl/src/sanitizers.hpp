// Which sanitizer looks on, and what it must be told about threads and stacks that it cannot see into.
#pragma once

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
