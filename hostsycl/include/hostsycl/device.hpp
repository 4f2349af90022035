// Devices: what there is to run on and what it can do.
#pragma once

#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "hostsycl/exception.hpp"

namespace sycl {

class device;

enum class backend {
    opencl = 1,
    ext_oneapi_level_zero = 2,
    ext_oneapi_cuda = 3,
    ext_oneapi_hip = 6,
    ext_oneapi_native_cpu = 7,
    /// The CPU device of this implementation.
    hostsycl = 100,
};

enum class aspect {
    cpu,
    gpu,
    accelerator,
    fp16,
    fp64,
    atomic64,
    usm_device_allocations,
    usm_host_allocations,
};

namespace info {

enum class device_type { cpu, gpu, accelerator, all };
enum class execution_capability { exec_kernel, exec_native_kernel };

namespace device {
#define HOSTSYCL_DEVICE_INFO(name, type)                                                                               \
    struct name {                                                                                                      \
        using return_type = type;                                                                                      \
    };
HOSTSYCL_DEVICE_INFO(device_type, info::device_type)
HOSTSYCL_DEVICE_INFO(name, std::string)
HOSTSYCL_DEVICE_INFO(vendor, std::string)
HOSTSYCL_DEVICE_INFO(vendor_id, std::uint32_t)
HOSTSYCL_DEVICE_INFO(driver_version, std::string)
HOSTSYCL_DEVICE_INFO(execution_capabilities, std::vector<info::execution_capability>)
HOSTSYCL_DEVICE_INFO(host_unified_memory, bool)
HOSTSYCL_DEVICE_INFO(is_available, bool)
HOSTSYCL_DEVICE_INFO(global_mem_size, std::uint64_t)
HOSTSYCL_DEVICE_INFO(max_compute_units, std::uint32_t)
HOSTSYCL_DEVICE_INFO(sub_group_sizes, std::vector<std::size_t>)
#undef HOSTSYCL_DEVICE_INFO
} // namespace device

} // namespace info

namespace detail {

class fault_plan;

enum class memory_kind { host, device };

struct device_impl : std::enable_shared_from_this<device_impl> {
    device_impl();
    ~device_impl();
    device_impl(const device_impl&) = delete;
    device_impl& operator=(const device_impl&) = delete;

    info::device_type type = info::device_type::cpu;
    std::string name;
    std::string vendor;
    std::uint32_t vendor_id = 0;
    std::string driver_version;
    sycl::backend backend = sycl::backend::hostsycl;
    std::size_t global_mem_size = 0;
    std::size_t local_mem_size = 0;
    std::size_t max_work_group_size = 1;
    std::uint32_t max_compute_units = 1;
    std::vector<std::size_t> sub_group_sizes;
    std::bitset<32> aspects;
    bool available = true;
    bool exec_kernel = true;
    bool host_unified_memory = true;
    /// Buffers and USM of this device live in blocks of its own; data must be copied to it and back.
    bool separate_memory = false;

    std::atomic<std::uint64_t> kernels{0};
    /// Set while anything is planned to fail, so that a launch looks at one flag only.
    std::atomic<bool> faults_armed{false};
    std::atomic<bool> info_fails{false};
    std::unique_ptr<fault_plan> plan;

    bool has(aspect which) const { return aspects[static_cast<std::size_t>(which)]; }

    /// Memory that counts as this device's; null if it has not enough or a fault is planned.
    void* allocate(std::size_t bytes, std::size_t alignment, memory_kind kind);
    void deallocate(void* block, std::size_t bytes, memory_kind kind) noexcept;
    /// A transfer between the host and this device. If a planned fault comes in its place, `queue` gets the error.
    void copy(void* target, const void* source, std::size_t bytes, bool to_device, queue_impl* queue);
};

/// By-reference semantics: a handle is equal to its copies and to nothing else.
template <class Self, class Impl>
class handle {
  public:
    friend bool operator==(const Self& a, const Self& b) { return a.impl_ == b.impl_; }

    const std::shared_ptr<Impl>& impl() const noexcept { return impl_; }

  protected:
    handle() = default;
    explicit handle(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

    std::shared_ptr<Impl> impl_;
};

/// What get_info checks before it answers.
void require_info(const device_impl& device);

} // namespace detail

class device : public detail::handle<device, detail::device_impl> {
  public:
    device();
    template <class Selector>
    requires(std::is_invocable_r_v<int, const Selector&, const device&> &&
             !std::is_same_v<std::remove_cvref_t<Selector>, device>) explicit device(const Selector& selector)
        : device(select([&](const device& d) { return int{selector(d)}; })) {}
    explicit device(std::shared_ptr<detail::device_impl> impl) : handle(std::move(impl)) {}

    bool is_cpu() const { return has(aspect::cpu); }
    bool is_gpu() const { return has(aspect::gpu); }
    bool is_accelerator() const { return has(aspect::accelerator); }
    bool has(aspect which) const { return impl_->has(which); }
    backend get_backend() const noexcept { return impl_->backend; }

    template <class Parameter>
    typename Parameter::return_type get_info() const;

    static std::vector<device> get_devices(info::device_type type = info::device_type::all);

  private:
    static device select(const std::function<int(const device&)>& score);
};

/// What queues on one device share: all of them are in the device's own context.
class context : public detail::handle<context, detail::device_impl> {
  public:
    explicit context(std::shared_ptr<detail::device_impl> impl) : handle(std::move(impl)) {}
};

// Selectors: the device with the highest score wins, a negative score rules a device out.

inline int default_selector_v(const device& candidate) {
    return candidate.is_gpu() ? 500 : candidate.is_cpu() ? 300 : 75;
}
inline int cpu_selector_v(const device& candidate) {
    return candidate.is_cpu() ? 1000 : -1;
}

template <class Parameter>
typename Parameter::return_type device::get_info() const {
    namespace query = info::device;
    const detail::device_impl& d = *impl_;
    detail::require_info(d);
    if constexpr (std::is_same_v<Parameter, query::device_type>)
        return d.type;
    else if constexpr (std::is_same_v<Parameter, query::name>)
        return d.name;
    else if constexpr (std::is_same_v<Parameter, query::vendor>)
        return d.vendor;
    else if constexpr (std::is_same_v<Parameter, query::vendor_id>)
        return d.vendor_id;
    else if constexpr (std::is_same_v<Parameter, query::driver_version>)
        return d.driver_version;
    else if constexpr (std::is_same_v<Parameter, query::execution_capabilities>) {
        if (d.exec_kernel)
            return {info::execution_capability::exec_kernel};
        return {};
    } else if constexpr (std::is_same_v<Parameter, query::host_unified_memory>)
        return d.host_unified_memory;
    else if constexpr (std::is_same_v<Parameter, query::is_available>)
        return d.available;
    else if constexpr (std::is_same_v<Parameter, query::global_mem_size>)
        return d.global_mem_size;
    else if constexpr (std::is_same_v<Parameter, query::max_compute_units>)
        return d.max_compute_units;
    else
        return d.sub_group_sizes;
}

} // namespace sycl
