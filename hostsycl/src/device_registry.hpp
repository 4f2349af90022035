// The devices of the process, and what is planned to go wrong with them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "hostsycl/device.hpp"
#include "hostsycl/simulation.hpp"

namespace sycl::detail {

enum class fault_kind { device_allocation, host_allocation, kernel, submit, copy };

/// Counts and faults of one device.
struct fault_plan {
    struct fault {
        fault_kind kind;
        unsigned countdown;
        std::exception_ptr error;
    };

    std::mutex mutex;
    hostsycl::device_counters counters;
    std::vector<fault> faults;
    std::size_t allocation_limit = SIZE_MAX;

    /// Counts one event of this kind. True if a fault was planned for it; `error` then gets its exception.
    bool meet(fault_kind kind, std::exception_ptr& error);
    /// Whether anything is left that a launch has to look at.
    bool armed() const { return !faults.empty(); }
};

class device_registry {
  public:
    static device_registry& instance();

    std::shared_ptr<device_impl> cpu() const { return cpu_; }
    std::vector<std::shared_ptr<device_impl>> devices() const;
    void add(std::shared_ptr<device_impl> device);
    void remove(const device_impl& device);
    void hide_cpu(bool hidden);

  private:
    device_registry();

    std::shared_ptr<device_impl> cpu_;
    mutable std::mutex mutex_;
    int cpu_hidden_ = 0;
    std::vector<std::shared_ptr<device_impl>> added_;
};

/// Gives a device its platform and its default context.
void attach_platform(const std::shared_ptr<device_impl>& device, backend device_backend, std::string name,
                     std::string vendor);

} // namespace sycl::detail
