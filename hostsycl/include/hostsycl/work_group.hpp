// Launches in work-groups: group, nd_item and the barrier.
//
// The items of a group run one after the other on the calling thread, as plain calls. When an item reaches a barrier it
// cannot go on before the others have come, so the rest of the group goes on in a fiber; if an item in that one stops
// as well, in the next; and so on. Once all have arrived, the stopped ones are resumed in turn. A kernel without
// barriers thus never meets a fiber.
#pragma once

#include <cstddef>
#include <exception>
#include <utility>

#include "hostsycl/device.hpp"
#include "hostsycl/launch.hpp"
#include "hostsycl/range.hpp"

namespace sycl {

template <int D>
class nd_item;

namespace detail {

class fiber_scheduler;

/// One work-group after the other on one thread.
class group_execution {
  public:
    /// `run_items` starts items at next_item and counts it up, until no item is left to start.
    group_execution(std::size_t items, void (*run_items)(void*), void* frame)
        : items_(items), run_items_(run_items), frame_(frame) {}
    ~group_execution();
    group_execution(const group_execution&) = delete;
    group_execution& operator=(const group_execution&) = delete;

    void run_group() {
        next_item = 0;
        finished = 0;
        run_items_(frame_);
        if (finished < items_) [[unlikely]]
            wait_for_items();
        if (error_ != nullptr) [[unlikely]]
            std::rethrow_exception(std::exchange(error_, nullptr));
    }

    std::size_t items() const { return items_; }

    /// Blocks the item until its whole group has come here.
    void wait_at_barrier();

    void record_error() noexcept {
        if (error_ == nullptr)
            error_ = std::current_exception();
    }

    std::size_t next_item = 0;
    std::size_t finished = 0;

  private:
    friend class fiber_scheduler;

    void wait_for_items();

    std::size_t items_;
    void (*run_items_)(void*);
    void* frame_;
    std::exception_ptr error_;
    // Made when an item first blocks.
    fiber_scheduler* scheduler_ = nullptr;
};

template <int D>
struct work_group {
    range<D> local;
    id<D> index;
    group_execution* execution;
};

/// Local memory of the group that the calling thread runs; null outside a launch.
std::byte* local_memory() noexcept;

/// Gives the calling thread `bytes` of local memory for the length of a piece of a launch.
class local_memory_scope {
  public:
    explicit local_memory_scope(std::size_t bytes);
    ~local_memory_scope();
    local_memory_scope(const local_memory_scope&) = delete;
    local_memory_scope& operator=(const local_memory_scope&) = delete;

    /// Overwrites it with bytes that make no number.
    void poison() noexcept;

  private:
    std::size_t bytes_;
};

} // namespace detail

/// The work-group of an item.
template <int D = 1>
class group {
  public:
    explicit group(detail::group_execution* execution) : execution_(execution) {}

  private:
    template <int E>
    friend void group_barrier(const group<E>& which);

    detail::group_execution* execution_;
};

/// Returns when every item of the group has called it. Items that have ended count as having come.
template <int D>
void group_barrier(const group<D>& which) {
    which.execution_->wait_at_barrier();
}

/// A work-item of a launch in groups.
template <int D = 1>
class nd_item {
  public:
    nd_item(const detail::work_group<D>* work_group, const id<D>& local) : group_(work_group), local_(local) {}

    id<D> get_global_id() const { return group_->index * group_->local + local_; }
    std::size_t get_global_id(int dimension) const {
        return group_->index[dimension] * group_->local[dimension] + local_[dimension];
    }
    id<D> get_local_id() const { return local_; }
    std::size_t get_local_id(int dimension) const { return local_[dimension]; }
    group<D> get_group() const { return group<D>(group_->execution); }
    std::size_t get_group(int dimension) const { return group_->index[dimension]; }

  private:
    const detail::work_group<D>* group_;
    id<D> local_;
};

namespace detail {

template <class Kernel, int D>
struct group_launch {
    const Kernel& kernel;
    nd_range<D> extent;
    std::size_t local_bytes;
    bool poison_local_memory;
};

/// The groups of one piece of a launch, on one thread.
template <class Kernel, int D>
class group_runner {
  public:
    explicit group_runner(const group_launch<Kernel, D>& launch)
        : launch_(launch), local_memory_(launch.local_bytes), kernel_(launch.kernel),
          execution_(launch.extent.get_local_range().size(), &group_runner::run_items, this),
          group_{launch.extent.get_local_range(), {}, &execution_} {}

    void run(std::size_t begin, std::size_t end) {
        for (std::size_t linear = begin; linear < end; ++linear) {
            if (launch_.poison_local_memory)
                local_memory_.poison();
            group_.index = index_at(linear, launch_.extent.get_group_range());
            execution_.run_group();
        }
    }

  private:
    [[gnu::flatten]] static void run_items(void* self) {
        auto& runner = *static_cast<group_runner*>(self);
        group_execution& execution = runner.execution_;
        while (execution.next_item < execution.items()) {
            const std::size_t number = execution.next_item++;
            try {
                runner.kernel_(nd_item<D>(&runner.group_, index_at(number, runner.group_.local)));
            } catch (...) {
                execution.record_error();
            }
            ++execution.finished;
        }
    }

    const group_launch<Kernel, D>& launch_;
    local_memory_scope local_memory_;
    // Copied while the local memory is in place: this is when the local accessors it holds learn where theirs is.
    const Kernel kernel_;
    group_execution execution_;
    work_group<D> group_;
};

template <class Kernel, int D>
[[gnu::noinline]] void run_groups(const void* work, std::size_t begin, std::size_t end) {
    group_runner<Kernel, D> runner(*static_cast<const group_launch<Kernel, D>*>(work));
    runner.run(begin, end);
}

void check_work_group(const device_impl& device, std::size_t group_size, std::size_t local_bytes);

template <int D>
void check_nd_range(const nd_range<D>& extent, const device_impl& device, std::size_t local_bytes) {
    check_range(extent.get_global_range());
    for (int d = 0; d < D; ++d) {
        const std::size_t global = extent.get_global_range()[d];
        const std::size_t local = extent.get_local_range()[d];
        if (local == 0 || global % local != 0)
            refuse_launch("a global size of " + std::to_string(global) + " is no multiple of the work-group size " +
                          std::to_string(local));
        check_work_group(device, local, 0);
    }
    check_work_group(device, extent.get_local_range().size(), local_bytes);
}

template <class Kernel, int D>
void run_nd_range(const Kernel& kernel, const nd_range<D>& extent, const device_impl& device, std::size_t local_bytes) {
    const group_launch<Kernel, D> launch{kernel, extent, local_bytes, device.separate_memory};
    run_adaptive(run_groups<Kernel, D>, &launch, extent.get_group_range().size(), 1);
}

} // namespace detail
} // namespace sycl
