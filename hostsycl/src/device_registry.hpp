// The devices of the process, and what is planned to go wrong with them.
#pragma once

#include <atomic>
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
class fault_plan {
  public:
    /// `armed` is true while anything is planned.
    explicit fault_plan(std::atomic<bool>& armed) : armed_(armed) {}

    /// The n-th event of this kind from now fails with `error`.
    void add(fault_kind kind, unsigned n, std::exception_ptr error);
    void clear();
    /// Counts one event of this kind. If a fault was planned for it, its error.
    std::optional<std::exception_ptr> meet(fault_kind kind);

    std::mutex mutex;
    // Under the mutex.
    hostsycl::device_counters counters;
    std::size_t allocation_limit = SIZE_MAX;

  private:
    struct fault {
        fault_kind kind;
        unsigned countdown;
        std::exception_ptr error;
    };

    std::atomic<bool>& armed_;
    std::vector<fault> faults_;
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

} // namespace sycl::detail
