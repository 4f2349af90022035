// Platforms, devices, contexts: what there is to run on and what it can do.
#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "hostsycl/exception.hpp"
#include "hostsycl/property.hpp"
#include "hostsycl/range.hpp"

namespace sycl {

class device;
class platform;

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
    custom,
    emulated,
    host_debuggable,
    fp16,
    fp64,
    atomic64,
    image,
    online_compiler,
    online_linker,
    queue_profiling,
    usm_device_allocations,
    usm_host_allocations,
    usm_atomic_host_allocations,
    usm_shared_allocations,
    usm_atomic_shared_allocations,
    usm_system_allocations,
};

namespace usm {
enum class alloc { host, device, shared, unknown };
} // namespace usm

namespace detail {

inline constexpr std::size_t aspect_count = static_cast<std::size_t>(aspect::usm_system_allocations) + 1;

} // namespace detail

namespace info {

enum class device_type { cpu, gpu, accelerator, custom, automatic, host, all };
enum class execution_capability { exec_kernel, exec_native_kernel };
enum class local_mem_type { none, local, global };
enum class event_command_status { submitted, running, complete };

namespace device {
#define HOSTSYCL_DEVICE_INFO(name, type)                                                                               \
    struct name {                                                                                                      \
        using return_type = type;                                                                                      \
    };
HOSTSYCL_DEVICE_INFO(device_type, info::device_type)
HOSTSYCL_DEVICE_INFO(name, std::string)
HOSTSYCL_DEVICE_INFO(vendor, std::string)
HOSTSYCL_DEVICE_INFO(vendor_id, std::uint32_t)
HOSTSYCL_DEVICE_INFO(version, std::string)
HOSTSYCL_DEVICE_INFO(driver_version, std::string)
HOSTSYCL_DEVICE_INFO(backend_version, std::string)
HOSTSYCL_DEVICE_INFO(platform, sycl::platform)
HOSTSYCL_DEVICE_INFO(aspects, std::vector<sycl::aspect>)
HOSTSYCL_DEVICE_INFO(execution_capabilities, std::vector<info::execution_capability>)
HOSTSYCL_DEVICE_INFO(host_unified_memory, bool)
HOSTSYCL_DEVICE_INFO(is_available, bool)
HOSTSYCL_DEVICE_INFO(global_mem_size, std::uint64_t)
HOSTSYCL_DEVICE_INFO(max_mem_alloc_size, std::uint64_t)
HOSTSYCL_DEVICE_INFO(local_mem_size, std::uint64_t)
HOSTSYCL_DEVICE_INFO(local_mem_type, info::local_mem_type)
HOSTSYCL_DEVICE_INFO(global_mem_cache_line_size, std::uint32_t)
HOSTSYCL_DEVICE_INFO(mem_base_addr_align, std::uint32_t)
HOSTSYCL_DEVICE_INFO(max_compute_units, std::uint32_t)
HOSTSYCL_DEVICE_INFO(max_work_item_dimensions, std::uint32_t)
HOSTSYCL_DEVICE_INFO(max_work_group_size, std::size_t)
HOSTSYCL_DEVICE_INFO(max_num_sub_groups, std::uint32_t)
HOSTSYCL_DEVICE_INFO(sub_group_sizes, std::vector<std::size_t>)
HOSTSYCL_DEVICE_INFO(sub_group_independent_forward_progress, bool)
HOSTSYCL_DEVICE_INFO(address_bits, std::uint32_t)
HOSTSYCL_DEVICE_INFO(error_correction_support, bool)
#undef HOSTSYCL_DEVICE_INFO
template <int D = 3>
struct max_work_item_sizes {
    using return_type = sycl::id<D>;
};
} // namespace device

namespace platform {
struct name {
    using return_type = std::string;
};
struct vendor {
    using return_type = std::string;
};
struct version {
    using return_type = std::string;
};
} // namespace platform

} // namespace info

namespace detail {

struct fault_plan;

struct platform_impl {
    sycl::backend backend = sycl::backend::hostsycl;
    std::string name;
    std::string vendor;
};

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
    std::size_t global_mem_size = 0;
    std::size_t local_mem_size = 0;
    std::uint32_t compute_units = 1;
    std::size_t max_work_group_size = 1;
    std::vector<std::size_t> sub_group_sizes;
    std::bitset<aspect_count> aspects;
    bool available = true;
    bool exec_kernel = true;
    bool host_unified_memory = true;
    /// Buffers and USM of this device live in blocks of its own; data must be copied to it and back.
    bool separate_memory = false;
    std::shared_ptr<platform_impl> platform;
    std::shared_ptr<context_impl> default_context;

    std::atomic<std::uint64_t> kernels{0};
    /// Set while anything is planned to fail, so that a launch looks at one flag only.
    std::atomic<bool> faults_armed{false};
    std::atomic<bool> info_fails{false};
    std::unique_ptr<fault_plan> plan;

    bool has(aspect which) const { return aspects[static_cast<std::size_t>(which)]; }
    /// The size of the sub-groups that launches are cut into: the last of the sizes it offers.
    std::size_t sub_group_size() const { return sub_group_sizes.empty() ? 1 : sub_group_sizes.back(); }

    /// Memory that counts as this device's; null if it has not enough or a fault is planned.
    void* allocate(std::size_t bytes, std::size_t alignment, usm::alloc kind);
    void deallocate(void* block, std::size_t bytes, usm::alloc kind) noexcept;
    /// A transfer between the host and this device. False if a planned fault came in its place; `queue`, if there is
    /// one, gets the error.
    bool copy(void* target, const void* source, std::size_t bytes, bool to_device, queue_impl* queue);
};

struct context_impl {
    std::shared_ptr<platform_impl> platform;
    // Weak: a device owns its default context.
    std::vector<std::weak_ptr<device_impl>> devices;
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

template <class Handle>
struct handle_hash {
    std::size_t operator()(const Handle& object) const noexcept {
        return std::hash<const void*>()(object.impl().get());
    }
};

template <class Parameter, template <int> class Template>
inline constexpr bool is_sized = false;
template <int D, template <int> class Template>
inline constexpr bool is_sized<Template<D>, Template> = true;

/// What get_info checks before it answers.
void require_info(const device_impl& device);

} // namespace detail

class platform : public detail::handle<platform, detail::platform_impl> {
  public:
    platform();
    template <class Selector>
    requires std::is_invocable_r_v<int, const Selector&, const device&>
    explicit platform(const Selector& selector);
    explicit platform(std::shared_ptr<detail::platform_impl> impl) : handle(std::move(impl)) {}

    backend get_backend() const noexcept { return impl_->backend; }
    std::vector<device> get_devices(info::device_type type = info::device_type::all) const;
    bool has(aspect which) const;
    bool has_extension(const std::string&) const { return false; }

    template <class Parameter>
    typename Parameter::return_type get_info() const {
        if constexpr (std::is_same_v<Parameter, info::platform::name>)
            return impl_->name;
        else if constexpr (std::is_same_v<Parameter, info::platform::vendor>)
            return impl_->vendor;
        else
            return "SYCL 2020";
    }

    static std::vector<platform> get_platforms();
};

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
    bool has_extension(const std::string&) const { return false; }
    backend get_backend() const noexcept { return impl_->platform->backend; }
    platform get_platform() const { return platform(impl_->platform); }

    template <class Parameter>
    typename Parameter::return_type get_info() const;

    static std::vector<device> get_devices(info::device_type type = info::device_type::all);

  private:
    static device select(const std::function<int(const device&)>& score);
};

class context : public detail::handle<context, detail::context_impl> {
  public:
    explicit context(const property_list& = {});
    explicit context(async_handler, const property_list& = {});
    explicit context(const device& device, const property_list& = {});
    explicit context(const device& device, async_handler, const property_list& = {});
    explicit context(const platform& platform, const property_list& = {});
    explicit context(const std::vector<device>& devices, const property_list& = {});
    explicit context(std::shared_ptr<detail::context_impl> impl) : handle(std::move(impl)) {}

    backend get_backend() const noexcept { return impl_->platform->backend; }
    platform get_platform() const { return platform(impl_->platform); }
    std::vector<device> get_devices() const;
};

// Selectors: the device with the highest score wins, a negative score rules a device out.

namespace detail {

struct default_selector {
    int operator()(const device& candidate) const;
};
struct cpu_selector {
    int operator()(const device& candidate) const;
};
struct gpu_selector {
    int operator()(const device& candidate) const;
};
struct accelerator_selector {
    int operator()(const device& candidate) const;
};

} // namespace detail

inline constexpr detail::default_selector default_selector_v;
inline constexpr detail::cpu_selector cpu_selector_v;
inline constexpr detail::gpu_selector gpu_selector_v;
inline constexpr detail::accelerator_selector accelerator_selector_v;

/// A selector for devices that have every one of `wanted` and none of `refused`.
inline auto aspect_selector(std::vector<aspect> wanted, std::vector<aspect> refused = {}) {
    return [wanted = std::move(wanted), refused = std::move(refused)](const device& candidate) {
        for (const aspect which : wanted)
            if (!candidate.has(which))
                return -1;
        for (const aspect which : refused)
            if (candidate.has(which))
                return -1;
        return default_selector_v(candidate);
    };
}

template <class Selector>
requires std::is_invocable_r_v<int, const Selector&, const device&> platform::platform(const Selector& selector)
    : platform(device(selector).get_platform()) {}

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
    else if constexpr (std::is_same_v<Parameter, query::version> || std::is_same_v<Parameter, query::backend_version>)
        return "SYCL 2020";
    else if constexpr (std::is_same_v<Parameter, query::driver_version>)
        return d.driver_version;
    else if constexpr (std::is_same_v<Parameter, query::platform>)
        return get_platform();
    else if constexpr (std::is_same_v<Parameter, query::aspects>) {
        std::vector<aspect> list;
        for (std::size_t i = 0; i < detail::aspect_count; ++i)
            if (d.aspects[i])
                list.push_back(static_cast<aspect>(i));
        return list;
    } else if constexpr (std::is_same_v<Parameter, query::execution_capabilities>) {
        if (d.exec_kernel)
            return {info::execution_capability::exec_kernel};
        return {};
    } else if constexpr (std::is_same_v<Parameter, query::host_unified_memory>)
        return d.host_unified_memory;
    else if constexpr (std::is_same_v<Parameter, query::is_available>)
        return d.available;
    else if constexpr (std::is_same_v<Parameter, query::global_mem_size> ||
                       std::is_same_v<Parameter, query::max_mem_alloc_size>)
        return d.global_mem_size;
    else if constexpr (std::is_same_v<Parameter, query::local_mem_size>)
        return d.local_mem_size;
    else if constexpr (std::is_same_v<Parameter, query::local_mem_type>)
        return d.separate_memory ? info::local_mem_type::local : info::local_mem_type::global;
    else if constexpr (std::is_same_v<Parameter, query::global_mem_cache_line_size>)
        return 64;
    else if constexpr (std::is_same_v<Parameter, query::mem_base_addr_align>)
        return 512; // in bits
    else if constexpr (std::is_same_v<Parameter, query::max_compute_units>)
        return d.compute_units;
    else if constexpr (std::is_same_v<Parameter, query::max_work_item_dimensions>)
        return 3;
    else if constexpr (std::is_same_v<Parameter, query::max_work_group_size>)
        return d.max_work_group_size;
    else if constexpr (std::is_same_v<Parameter, query::max_num_sub_groups>)
        return static_cast<std::uint32_t>(d.max_work_group_size / d.sub_group_size());
    else if constexpr (std::is_same_v<Parameter, query::sub_group_sizes>)
        return d.sub_group_sizes;
    else if constexpr (std::is_same_v<Parameter, query::address_bits>)
        return 64;
    else if constexpr (std::is_same_v<Parameter, query::sub_group_independent_forward_progress> ||
                       std::is_same_v<Parameter, query::error_correction_support>)
        return false;
    else {
        static_assert(detail::is_sized<Parameter, query::max_work_item_sizes>, "no such device descriptor");
        typename Parameter::return_type sizes;
        for (int i = 0; i < Parameter::return_type::dimensions; ++i)
            sizes[i] = d.max_work_group_size;
        return sizes;
    }
}

} // namespace sycl

template <>
struct std::hash<sycl::device> : sycl::detail::handle_hash<sycl::device> {};
template <>
struct std::hash<sycl::platform> : sycl::detail::handle_hash<sycl::platform> {};
template <>
struct std::hash<sycl::context> : sycl::detail::handle_hash<sycl::context> {};
