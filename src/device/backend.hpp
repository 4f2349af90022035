// The one place that knows how SYCL implementations differ from one another.
#pragma once

#include <sycl/sycl.hpp>

namespace tarn {

/// The text that identifies a back end to the host: part of the device identity strings, so it never changes.
inline const char* backend_text(sycl::backend backend) {
#if defined(__ACPP__) || defined(__ADAPTIVECPP__) || defined(__HIPSYCL__)
    switch (backend) {
    case sycl::backend::ocl:
        return "OpenCL";
    case sycl::backend::level_zero:
        return "Level Zero";
    case sycl::backend::cuda:
        return "CUDA";
    case sycl::backend::hip:
        return "HIP";
    default:
        return "Unknown";
    }
#else
    // Values as numbers: not every implementation names every back end.
    switch (static_cast<int>(backend)) {
    case 1:
        return "OpenCL";
    case 2:
        return "Level Zero";
    case 3:
        return "CUDA";
    case 6:
        return "HIP";
    case 7:
        return "Native";
    default:
        return "Unknown";
    }
#endif
}

inline bool is_opencl(sycl::backend backend) {
#if defined(__ACPP__) || defined(__ADAPTIVECPP__) || defined(__HIPSYCL__)
    return backend == sycl::backend::ocl;
#else
    return static_cast<int>(backend) == 1;
#endif
}

inline bool is_level_zero(sycl::backend backend) {
#if defined(__ACPP__) || defined(__ADAPTIVECPP__) || defined(__HIPSYCL__)
    return backend == sycl::backend::level_zero;
#else
    return static_cast<int>(backend) == 2;
#endif
}

/// Whether this build may start threads of its own beside those of the devices.
#if defined(HOSTSYCL_NO_THREADS)
inline constexpr bool has_threads = false;
#else
inline constexpr bool has_threads = true;
#endif

/// A GPU with memory of its own.
inline bool is_discrete_gpu(const sycl::device& device) {
    return device.get_info<sycl::info::device::device_type>() == sycl::info::device_type::gpu &&
           !device.get_info<sycl::info::device::host_unified_memory>();
}

} // namespace tarn

/// Stands before a loop whose iterations are independent of one another: the compiler may run them as vectors without
/// proving that the grids do not overlap. That also covers arrays inside the loop: one that is written and read at
/// indices known at run time only must not stand in it.
#if defined(__clang__)
#define TARN_INDEPENDENT_ITERATIONS _Pragma("clang loop vectorize(assume_safety)")
// Clang says so where such a loop stays scalar; benchmarks are the judge of that.
#pragma clang diagnostic ignored "-Wpass-failed"
#elif defined(__GNUC__)
#define TARN_INDEPENDENT_ITERATIONS _Pragma("GCC ivdep")
#else
#define TARN_INDEPENDENT_ITERATIONS
#endif

/// Stands before a statement: the functions that it calls become part of the loop around it, which could not become
/// vectors otherwise. GCC does so by itself in a kernel.
#if defined(__clang__)
#define TARN_INLINE_CALLS [[clang::always_inline]]
#else
#define TARN_INLINE_CALLS
#endif

namespace tarn {

/// An index whose cell is to be fetched by itself. Where the target has no vector instruction for a fetch, compilers
/// take a vector of indices apart, which costs more than the loads.
inline int one_by_one(int index) {
#if defined(__GNUC__) && !defined(__clang__) && !defined(__SYCL_DEVICE_ONLY__)
    asm("" : "+r"(index));
#endif
    return index;
}

/// Asks a CPU for a cache line that is written to soon.
inline void prefetch_for_write([[maybe_unused]] const void* address) {
#if (defined(__GNUC__) || defined(__clang__)) && !defined(__SYCL_DEVICE_ONLY__)
    __builtin_prefetch(address, 1);
#endif
}

} // namespace tarn
