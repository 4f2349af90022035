#include "hostsycl/device.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <unistd.h>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "device_registry.hpp"

namespace sycl {
namespace detail {

namespace {

#if defined(__x86_64__) || defined(__i386__)

std::string cpu_vendor() {
    unsigned a = 0;
    char text[13] = {};
    unsigned registers[3] = {};
    if (__get_cpuid(0, &a, &registers[0], &registers[2], &registers[1]))
        std::memcpy(text, registers, 12);
    return text;
}

std::string cpu_name() {
    char text[49] = {};
    for (unsigned leaf = 0; leaf < 3; ++leaf) {
        unsigned registers[4] = {};
        if (!__get_cpuid(0x80000002u + leaf, &registers[0], &registers[1], &registers[2], &registers[3]))
            return {};
        std::memcpy(text + 16 * leaf, registers, 16);
    }
    const std::string name = text;
    const auto first = name.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : name.substr(first, name.find_last_not_of(' ') - first + 1);
}

#else

std::string cpu_vendor() {
    return {};
}
std::string cpu_name() {
    return {};
}

#endif

std::size_t physical_memory() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long page_size = sysconf(_SC_PAGESIZE);
    return pages > 0 && page_size > 0 ? static_cast<std::size_t>(pages) * static_cast<std::size_t>(page_size)
                                      : std::size_t{4} << 30;
}

std::shared_ptr<device_impl> make_cpu() {
    auto cpu = std::make_shared<device_impl>();
    cpu->type = info::device_type::cpu;
    cpu->name = cpu_name();
    if (cpu->name.empty())
        cpu->name = "hostsycl CPU device";
    cpu->vendor = cpu_vendor();
    if (cpu->vendor.empty())
        cpu->vendor = "hostsycl";
    cpu->driver_version = "0.1.0";
    cpu->global_mem_size = physical_memory();
    cpu->local_mem_size = std::size_t{1} << 20;
    cpu->max_work_group_size = 4096;
    cpu->max_compute_units = std::max(1u, std::thread::hardware_concurrency());
    cpu->sub_group_sizes = {16};
    for (const aspect which :
         {aspect::cpu, aspect::fp64, aspect::atomic64, aspect::usm_device_allocations, aspect::usm_host_allocations})
        cpu->aspects.set(static_cast<std::size_t>(which));
    return cpu;
}

bool matches(const device_impl& device, info::device_type type) {
    return type == info::device_type::all || type == device.type;
}

} // namespace

device_impl::device_impl() : plan(std::make_unique<fault_plan>(faults_armed)) {}
device_impl::~device_impl() = default;

void fault_plan::add(fault_kind kind, unsigned n, std::exception_ptr error) {
    if (n == 0)
        throw exception(errc::invalid, "planned faults count from 1");
    const std::lock_guard lock(mutex);
    faults_.push_back({kind, n, std::move(error)});
    armed_ = true;
}

void fault_plan::clear() {
    const std::lock_guard lock(mutex);
    faults_.clear();
    allocation_limit = SIZE_MAX;
    armed_ = false;
}

std::optional<std::exception_ptr> fault_plan::meet(fault_kind kind) {
    const std::lock_guard lock(mutex);
    std::optional<std::exception_ptr> met;
    std::erase_if(faults_, [&](fault& each) {
        if (each.kind != kind || --each.countdown != 0)
            return false;
        met = each.error;
        return true;
    });
    armed_ = !faults_.empty();
    return met;
}

device_registry::device_registry() : cpu_(make_cpu()) {}

device_registry& device_registry::instance() {
    // Never destroyed: queues in static objects may outlive anything with a destructor.
    static auto* registry = new device_registry;
    return *registry;
}

std::vector<std::shared_ptr<device_impl>> device_registry::devices() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<device_impl>> list;
    if (cpu_hidden_ == 0)
        list.push_back(cpu_);
    list.insert(list.end(), added_.begin(), added_.end());
    return list;
}

void device_registry::add(std::shared_ptr<device_impl> device) {
    const std::lock_guard lock(mutex_);
    added_.push_back(std::move(device));
}

void device_registry::remove(const device_impl& device) {
    const std::lock_guard lock(mutex_);
    std::erase_if(added_, [&](const auto& each) { return each.get() == &device; });
}

void device_registry::hide_cpu(bool hidden) {
    const std::lock_guard lock(mutex_);
    cpu_hidden_ += hidden ? 1 : -1;
}

void require_info(const device_impl& device) {
    if (device.info_fails.load(std::memory_order_relaxed))
        throw exception(errc::runtime, "the device does not answer");
}

} // namespace detail

device::device() : device(default_selector_v) {}

std::vector<device> device::get_devices(info::device_type type) {
    std::vector<device> list;
    for (auto& each : detail::device_registry::instance().devices())
        if (detail::matches(*each, type))
            list.emplace_back(std::move(each));
    return list;
}

device device::select(const std::function<int(const device&)>& score) {
    std::shared_ptr<detail::device_impl> best;
    int best_score = -1;
    for (auto& each : detail::device_registry::instance().devices()) {
        const int its_score = score(device(each));
        if (its_score > best_score) {
            best_score = its_score;
            best = std::move(each);
        }
    }
    if (best == nullptr)
        throw exception(errc::runtime, "no device fits the selector");
    return device(std::move(best));
}

} // namespace sycl
