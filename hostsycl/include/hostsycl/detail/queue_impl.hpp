// What all copies of one queue share.
#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "hostsycl/device.hpp"
#include "hostsycl/property.hpp"

namespace sycl::detail {

struct queue_impl : std::enable_shared_from_this<queue_impl> {
    queue_impl(std::shared_ptr<device_impl> queue_device, async_handler queue_handler,
               const property_list& queue_properties);
    /// Hands the errors that nobody asked for to the handler, if there is one.
    ~queue_impl();

    const std::shared_ptr<device_impl> device;
    const async_handler handler;
    /// Commands run in order whether these say so or not.
    const property_list properties;

    /// Counts a kernel. False if a planned fault has come in place of the kernel; throws if one hits the submission.
    bool begin_kernel() {
        device->kernels.fetch_add(1, std::memory_order_relaxed);
        return !device->faults_armed.load(std::memory_order_relaxed) || meet_kernel_faults();
    }

    /// Throws if a planned fault hits the submission of a command that is no kernel.
    void begin_command() {
        if (device->faults_armed.load(std::memory_order_relaxed))
            meet_submit_faults();
    }

    /// Runs a kernel. If it throws, or cannot be run for want of memory, the submission throws: an asynchronous error
    /// could be dropped, and the results would be wrong without a word.
    template <class Body>
    void run_kernel(const Body& body) {
        if (begin_kernel())
            body();
    }

    void report(std::exception_ptr error);
    void throw_asynchronous() {
        if (has_errors_.load(std::memory_order_acquire))
            deliver_errors();
    }

  private:
    bool meet_kernel_faults();
    void meet_submit_faults();
    void deliver_errors();

    std::atomic<bool> has_errors_{false};
    std::mutex mutex_;
    std::vector<std::exception_ptr> errors_;
};

/// Copies and fills on the calling thread and, for large blocks, on the workers as well.
void copy_bytes(void* target, const void* source, std::size_t bytes);
void set_bytes(void* target, int value, std::size_t bytes);

} // namespace sycl::detail
