#include "hostsycl/queue.hpp"

#include <cstdio>
#include <exception>

#include "device_registry.hpp"

namespace sycl {
namespace detail {

void copy_usm(queue_impl& queue, void* target, const void* source, std::size_t bytes);

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

queue_impl::queue_impl(std::shared_ptr<device_impl> queue_device, async_handler queue_handler,
                       const property_list& queue_properties)
    : device(std::move(queue_device)), handler(std::move(queue_handler)), properties(queue_properties) {}

queue_impl::~queue_impl() {
    try {
        if (handler)
            throw_asynchronous();
    } catch (...) {
        // What a handler throws has no way out of a destructor.
    }
}

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
    if (const auto error = device->plan->meet(fault_kind::submit))
        std::rethrow_exception(*error);
}

bool queue_impl::meet_kernel_faults() {
    meet_submit_faults();
    const auto error = device->plan->meet(fault_kind::kernel);
    if (error)
        report(*error);
    return !error;
}

void queue_memcpy(queue_impl& queue, void* target, const void* source, std::size_t bytes) {
    if (bytes == 0)
        return;
    if (target == nullptr || source == nullptr)
        throw exception(errc::invalid, "memcpy from or to a null pointer");
    queue.begin_command();
    if (queue.device->separate_memory || queue.device->faults_armed)
        copy_usm(queue, target, source, bytes);
    else
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
    : handle(std::make_shared<detail::queue_impl>(device.impl(), handler, properties)) {}

} // namespace sycl
