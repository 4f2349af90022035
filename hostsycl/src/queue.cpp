#include "hostsycl/queue.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

#include "device_registry.hpp"

namespace sycl {
namespace detail {

bool count_usm_copy(queue_impl& queue, void* target, const void* source, std::size_t bytes);

namespace {

/// What an empty handler stands for: the errors are reported and the program ends.
[[noreturn]] void end_program(const std::vector<std::exception_ptr>& errors) {
    for (const std::exception_ptr& error : errors) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "Unhandled asynchronous SYCL error: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "Unhandled asynchronous SYCL error\n");
        }
    }
    std::terminate();
}

} // namespace

queue_impl::queue_impl(std::shared_ptr<device_impl> queue_device, std::shared_ptr<context_impl> queue_context,
                       async_handler queue_handler, const property_list& queue_properties)
    : device(std::move(queue_device)), context(std::move(queue_context)), handler(std::move(queue_handler)),
      properties(queue_properties) {}

void queue_impl::report(std::exception_ptr error) {
    const std::lock_guard lock(mutex_);
    errors_.push_back(std::move(error));
    has_errors_.store(true, std::memory_order_release);
}

void queue_impl::deliver_errors() {
    std::vector<std::exception_ptr> errors;
    {
        const std::lock_guard lock(mutex_);
        errors.swap(errors_);
        has_errors_.store(false, std::memory_order_relaxed);
    }
    if (errors.empty())
        return;
    if (!handler)
        end_program(errors);
    handler(exception_list(std::move(errors)));
}

void queue_impl::meet_submit_faults() {
    std::exception_ptr error;
    {
        const std::lock_guard lock(device->plan->mutex);
        device->plan->meet(fault_kind::submit, error);
        device->faults_armed = device->plan->armed();
    }
    if (error != nullptr)
        std::rethrow_exception(error);
}

bool queue_impl::meet_kernel_faults() {
    meet_submit_faults();
    std::exception_ptr error;
    {
        const std::lock_guard lock(device->plan->mutex);
        device->plan->meet(fault_kind::kernel, error);
        device->faults_armed = device->plan->armed();
    }
    if (error == nullptr)
        return true;
    report(error);
    return false;
}

void queue_memcpy(queue_impl& queue, void* target, const void* source, std::size_t bytes) {
    if (bytes == 0)
        return;
    if (target == nullptr || source == nullptr)
        throw exception(errc::invalid, "memcpy from or to a null pointer");
    queue.begin_command();
    if (queue.device->separate_memory || queue.device->faults_armed)
        if (!count_usm_copy(queue, target, source, bytes))
            return;
    copy_bytes(target, source, bytes);
}

void queue_memset(queue_impl& queue, void* target, int value, std::size_t bytes) {
    if (bytes == 0)
        return;
    if (target == nullptr)
        throw exception(errc::invalid, "memset of a null pointer");
    queue.begin_command();
    set_bytes(target, value, bytes);
}

} // namespace detail

queue::queue(const device& device, const async_handler& handler, const property_list& properties)
    : handle(std::make_shared<detail::queue_impl>(device.impl(), device.impl()->default_context, handler, properties)) {
}

queue::queue(const context& context, const device& device, const async_handler& handler,
             const property_list& properties)
    : handle(std::make_shared<detail::queue_impl>(device.impl(), context.impl(), handler, properties)) {
    const auto devices = context.get_devices();
    if (std::find(devices.begin(), devices.end(), device) == devices.end())
        throw exception(errc::invalid, "the device does not belong to the context");
}

} // namespace sycl
