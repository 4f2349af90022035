#include "hostsycl/simulation.hpp"

#include <algorithm>
#include <thread>

#include "device_registry.hpp"
#include "hostsycl/detail/queue_impl.hpp"

namespace hostsycl {

using sycl::detail::fault_kind;
using sycl::detail::fault_plan;

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
    device->compute_units = std::max(1u, std::thread::hardware_concurrency());
    device->max_work_group_size = 1024;
    device->sub_group_sizes = description.sub_group_sizes;
    device->available = description.available;
    device->exec_kernel = description.exec_kernel;
    device->host_unified_memory =
        description.kind == device_kind::cpu || description.kind == device_kind::integrated_gpu;
    device->separate_memory = description.kind != device_kind::cpu;
    for (const aspect which : {kind, aspect::fp16, aspect::fp64, aspect::atomic64, aspect::usm_device_allocations,
                               aspect::usm_host_allocations, aspect::usm_shared_allocations})
        device->aspects.set(static_cast<std::size_t>(which));
    for (const aspect which : description.aspects_removed)
        device->aspects.reset(static_cast<std::size_t>(which));
    sycl::detail::attach_platform(device, description.backend, "Platform of " + description.name, description.vendor);
    return device;
}

void plan_fault(sycl::detail::device_impl& device, fault_kind kind, unsigned n, std::exception_ptr error) {
    if (n == 0)
        throw sycl::exception(sycl::errc::invalid, "planned faults count from 1");
    const std::lock_guard lock(device.plan->mutex);
    device.plan->faults.push_back({kind, n, std::move(error)});
    device.faults_armed = true;
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
    plan_fault(*impl_, fault_kind::device_allocation, n, nullptr);
}

void device_control::fail_allocations_above(std::size_t bytes) {
    const std::lock_guard lock(impl_->plan->mutex);
    impl_->plan->allocation_limit = bytes;
}

void device_control::fail_host_allocation(unsigned n) {
    plan_fault(*impl_, fault_kind::host_allocation, n, nullptr);
}

void device_control::raise_asynchronous_error(unsigned n, const std::string& message, sycl::errc code) {
    raise_asynchronous_error(n, make_error(message, code));
}

void device_control::raise_asynchronous_error(unsigned n, std::exception_ptr error) {
    plan_fault(*impl_, fault_kind::kernel, n, std::move(error));
}

void device_control::throw_on_submit(unsigned n, const std::string& message, sycl::errc code) {
    plan_fault(*impl_, fault_kind::submit, n, make_error(message, code));
}

void device_control::fail_copy(unsigned n, const std::string& message, sycl::errc code) {
    plan_fault(*impl_, fault_kind::copy, n, make_error(message, code));
}

void device_control::fail_info_queries(bool enabled) {
    impl_->info_fails = enabled;
}

void device_control::clear_faults() {
    const std::lock_guard lock(impl_->plan->mutex);
    impl_->plan->faults.clear();
    impl_->plan->allocation_limit = SIZE_MAX;
    impl_->faults_armed = false;
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

bool device_impl::copy(void* target, const void* source, std::size_t bytes, bool to_device, queue_impl* queue) {
    std::exception_ptr error;
    {
        const std::lock_guard lock(plan->mutex);
        plan->meet(fault_kind::copy, error);
        faults_armed = plan->armed();
        if (error == nullptr)
            (to_device ? plan->counters.bytes_copied_to_device : plan->counters.bytes_copied_to_host) += bytes;
    }
    if (error != nullptr) {
        if (queue != nullptr)
            queue->report(error);
        return false;
    }
    copy_bytes(target, source, bytes);
    return true;
}

} // namespace sycl::detail
