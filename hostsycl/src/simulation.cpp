#include "hostsycl/simulation.hpp"

#include "device_registry.hpp"
#include "hostsycl/detail/queue_impl.hpp"

namespace hostsycl {

using sycl::detail::fault_kind;

namespace {

std::shared_ptr<sycl::detail::device_impl> make_device(const simulated_device& description) {
    using sycl::aspect;
    auto device = std::make_shared<sycl::detail::device_impl>();
    aspect kind = aspect::gpu;
    switch (description.kind) {
    case device_kind::cpu:
        device->type = sycl::info::device_type::cpu;
        kind = aspect::cpu;
        break;
    case device_kind::integrated_gpu:
    case device_kind::discrete_gpu:
        device->type = sycl::info::device_type::gpu;
        break;
    case device_kind::accelerator:
        device->type = sycl::info::device_type::accelerator;
        kind = aspect::accelerator;
        break;
    }
    device->name = description.name;
    device->vendor = description.vendor;
    device->vendor_id = description.vendor_id;
    device->driver_version = description.driver_version;
    device->global_mem_size = description.global_mem_size;
    device->local_mem_size = std::size_t{64} << 10;
    device->max_work_group_size = 1024;
    device->sub_group_sizes = description.sub_group_sizes;
    device->available = description.available;
    device->exec_kernel = description.exec_kernel;
    device->host_unified_memory =
        description.kind == device_kind::cpu || description.kind == device_kind::integrated_gpu;
    device->separate_memory = description.kind != device_kind::cpu;
    for (const aspect which : {kind, aspect::fp16, aspect::fp64, aspect::atomic64, aspect::usm_device_allocations,
                               aspect::usm_host_allocations})
        device->aspects.set(static_cast<std::size_t>(which));
    for (const aspect which : description.aspects_removed)
        device->aspects.reset(static_cast<std::size_t>(which));
    device->backend = description.backend;
    return device;
}

std::exception_ptr make_error(const std::string& message, sycl::errc code) {
    return std::make_exception_ptr(sycl::exception(code, message));
}

} // namespace

device_control::device_control(const sycl::device& device) : impl_(device.impl()) {}

device_counters device_control::counters() const {
    const std::lock_guard lock(impl_->plan->mutex);
    device_counters result = impl_->plan->counters;
    result.kernels_launched = impl_->kernels.load();
    return result;
}

void device_control::reset_peak() {
    const std::lock_guard lock(impl_->plan->mutex);
    impl_->plan->counters.peak_bytes_in_use = impl_->plan->counters.bytes_in_use;
}

void device_control::fail_allocation(unsigned n) {
    impl_->plan->add(fault_kind::device_allocation, n, nullptr);
}

void device_control::fail_allocations_above(std::size_t bytes) {
    const std::lock_guard lock(impl_->plan->mutex);
    impl_->plan->allocation_limit = bytes;
}

void device_control::fail_host_allocation(unsigned n) {
    impl_->plan->add(fault_kind::host_allocation, n, nullptr);
}

void device_control::raise_asynchronous_error(unsigned n, const std::string& message, sycl::errc code) {
    raise_asynchronous_error(n, make_error(message, code));
}

void device_control::raise_asynchronous_error(unsigned n, std::exception_ptr error) {
    impl_->plan->add(fault_kind::kernel, n, std::move(error));
}

void device_control::throw_on_submit(unsigned n, const std::string& message, sycl::errc code) {
    impl_->plan->add(fault_kind::submit, n, make_error(message, code));
}

void device_control::fail_copy(unsigned n, const std::string& message, sycl::errc code) {
    impl_->plan->add(fault_kind::copy, n, make_error(message, code));
}

void device_control::fail_info_queries(bool enabled) {
    impl_->info_fails = enabled;
}

void device_control::clear_faults() {
    impl_->plan->clear();
    impl_->info_fails = false;
}

simulated_device_guard::simulated_device_guard(const simulated_device& description)
    : device_control(sycl::device(make_device(description))) {
    sycl::detail::device_registry::instance().add(impl_);
}

simulated_device_guard::~simulated_device_guard() {
    remove();
}

void simulated_device_guard::remove() {
    sycl::detail::device_registry::instance().remove(*impl_);
}

hidden_cpu_guard::hidden_cpu_guard() {
    sycl::detail::device_registry::instance().hide_cpu(true);
}
hidden_cpu_guard::~hidden_cpu_guard() {
    sycl::detail::device_registry::instance().hide_cpu(false);
}

} // namespace hostsycl

namespace sycl::detail {

void device_impl::copy(void* target, const void* source, std::size_t bytes, bool to_device, queue_impl* queue) {
    if (const auto error = plan->meet(fault_kind::copy)) {
        if (queue != nullptr)
            queue->report(*error);
        return;
    }
    {
        const std::lock_guard lock(plan->mutex);
        (to_device ? plan->counters.bytes_copied_to_device : plan->counters.bytes_copied_to_host) += bytes;
    }
    copy_bytes(target, source, bytes);
}

} // namespace sycl::detail
