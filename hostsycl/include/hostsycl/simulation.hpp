// Simulated devices and planned faults, for tests of programs that use SYCL.
//
// A simulated device is the CPU in another coat: it reports what it is told to report, its memory is limited and apart
// from the host's, and it can be made to fail. Kernels on it run as on the CPU. What a program forgets to copy shows:
// fresh device memory is full of bytes 0xFF, which are NaN as float and -1 as int. (Blocks above 128 MiB are left
// alone: programs ask for such blocks to find out whether there is memory, and touching them takes long.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "hostsycl/device.hpp"

namespace hostsycl {

enum class device_kind { cpu, integrated_gpu, discrete_gpu, accelerator };

/// What a simulated device reports.
struct simulated_device {
    device_kind kind = device_kind::discrete_gpu;
    sycl::backend backend = sycl::backend::ext_oneapi_level_zero;
    std::string vendor = "Simulated Devices";
    std::string name = "Simulated device";
    std::uint32_t vendor_id = 0x5117;
    std::string driver_version = "1.0.0";
    std::size_t global_mem_size = std::size_t{4} << 30;
    bool available = true;
    bool exec_kernel = true;
    /// Taken from what a device of this kind has: its kind, fp16, fp64, atomic64 and the USM allocations.
    std::vector<sycl::aspect> aspects_removed = {};
    /// Launches use the last one.
    std::vector<std::size_t> sub_group_sizes = {16, 32};
};

struct device_counters {
    std::uint64_t kernels_launched = 0;
    /// USM device and shared allocations and the buffers' copies on the device.
    std::size_t bytes_in_use = 0;
    std::size_t peak_bytes_in_use = 0;
    std::uint64_t allocations = 0;
    std::uint64_t live_allocations = 0;
    /// USM host allocations that have not been freed.
    std::uint64_t live_host_allocations = 0;
    /// Counted on devices with separate memory only.
    std::uint64_t bytes_copied_to_device = 0;
    std::uint64_t bytes_copied_to_host = 0;
};

/// Counts and faults of any device, the CPU included. In all planned faults n = 1 means the next one.
class device_control {
  public:
    explicit device_control(const sycl::device& device);

    device_counters counters() const;
    void reset_peak();

    /// The n-th allocation of device or shared memory from now gives null.
    void fail_allocation(unsigned n);
    /// Every allocation of device or shared memory of more than `bytes` gives null.
    void fail_allocations_above(std::size_t bytes);
    /// The n-th USM host allocation from now gives null.
    void fail_host_allocation(unsigned n);

    /// The n-th kernel from now does not run; the error waits in its queue for the asynchronous handler.
    void raise_asynchronous_error(unsigned n, const std::string& message, sycl::errc code = sycl::errc::runtime);
    void raise_asynchronous_error(unsigned n, std::exception_ptr error);
    /// The n-th submission from now (a kernel, copy, fill or memset) throws instead.
    void throw_on_submit(unsigned n, const std::string& message, sycl::errc code = sycl::errc::runtime);
    /// The n-th copy from now, between host and device or by memcpy, does not happen; the error waits in the queue.
    void fail_copy(unsigned n, const std::string& message, sycl::errc code = sycl::errc::runtime);
    /// While set, device::get_info throws.
    void fail_info_queries(bool enabled);

    /// Forgets all planned faults.
    void clear_faults();

  protected:
    std::shared_ptr<sycl::detail::device_impl> impl_;
};

/// Adds a device after those that are there, and removes it at the end of its life. Queues and memory on the device
/// that outlive it stay valid.
class simulated_device_guard : public device_control {
  public:
    explicit simulated_device_guard(const simulated_device& description = {});
    ~simulated_device_guard();
    simulated_device_guard(const simulated_device_guard&) = delete;
    simulated_device_guard& operator=(const simulated_device_guard&) = delete;

    sycl::device get() const { return sycl::device(impl_); }
    /// Takes the device off the list before the guard's end.
    void remove();
};

/// Hides the CPU device while it lives.
class hidden_cpu_guard {
  public:
    hidden_cpu_guard();
    ~hidden_cpu_guard();
    hidden_cpu_guard(const hidden_cpu_guard&) = delete;
    hidden_cpu_guard& operator=(const hidden_cpu_guard&) = delete;
};

} // namespace hostsycl
