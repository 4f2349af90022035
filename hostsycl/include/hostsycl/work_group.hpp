// Launches in work-groups: group, sub_group, nd_item and their barriers.
//
// The items of a group run one after the other on the calling thread, as plain calls. When an item reaches a barrier it
// cannot go on before the others have come, so the rest of the group goes on in a fiber; if an item in that one stops
// as well, in the next; and so on. Once all have arrived, the stopped ones are resumed in turn. A kernel without
// barriers thus never meets a fiber, and any item may be the first to reach a barrier or a collective function of its
// sub-group.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "hostsycl/access.hpp"
#include "hostsycl/device.hpp"
#include "hostsycl/launch.hpp"
#include "hostsycl/range.hpp"

namespace sycl {

template <int D>
class nd_item;

namespace detail {

class fiber_scheduler;

/// What a collective function does once every participant has put its record down: it reads all and writes results into
/// all. The entry of a participant that never came is null.
using collective_function = void (*)(void* const* records, std::size_t count);

/// One work-group after the other on one thread.
class group_execution {
  public:
    /// `run_items` starts items at next_item and counts it up, until no item is left to start.
    group_execution(std::size_t items, std::size_t sub_group_size, void (*run_items)(void*), void* frame)
        : items_(items), sub_group_size_(sub_group_size), run_items_(run_items), frame_(frame) {}
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
    std::size_t sub_group_size() const { return sub_group_size_; }

    /// Blocks `item` until its whole group, or its whole sub-group, has come here.
    void synchronise_group(std::size_t item, void* record, collective_function function);
    void synchronise_sub_group(std::size_t item, void* record, collective_function function);

    void record_error() noexcept {
        if (error_ == nullptr)
            error_ = std::current_exception();
    }

    std::size_t next_item = 0;
    std::size_t finished = 0;

  private:
    friend class fiber_scheduler;

    void wait_for_items();
    fiber_scheduler& scheduler();

    std::size_t items_;
    std::size_t sub_group_size_;
    void (*run_items_)(void*);
    void* frame_;
    std::exception_ptr error_;
    // Made when an item first blocks.
    fiber_scheduler* scheduler_ = nullptr;
};

template <int D>
struct work_group {
    range<D> global;
    range<D> local;
    range<D> groups;
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
    using id_type = id<D>;
    using range_type = range<D>;
    using linear_id_type = std::size_t;
    static constexpr int dimensions = D;
    static constexpr memory_scope fence_scope = memory_scope::work_group;

    id<D> get_group_id() const { return group_->index; }
    std::size_t get_group_id(int dimension) const { return group_->index[dimension]; }
    std::size_t operator[](int dimension) const { return group_->index[dimension]; }
    id<D> get_local_id() const { return local_; }
    std::size_t get_local_id(int dimension) const { return local_[dimension]; }
    range<D> get_local_range() const { return group_->local; }
    std::size_t get_local_range(int dimension) const { return group_->local[dimension]; }
    range<D> get_group_range() const { return group_->groups; }
    std::size_t get_group_range(int dimension) const { return group_->groups[dimension]; }
    range<D> get_max_local_range() const { return group_->local; }
    std::size_t get_group_linear_id() const { return detail::linear_index(group_->index, group_->groups); }
    std::size_t get_local_linear_id() const { return detail::linear_index(local_, group_->local); }
    std::size_t get_group_linear_range() const { return group_->groups.size(); }
    std::size_t get_local_linear_range() const { return group_->local.size(); }
    bool leader() const { return get_local_linear_id() == 0; }

    /// For this implementation's own use.
    void synchronise(void* record, detail::collective_function function) const {
        group_->execution->synchronise_group(get_local_linear_id(), record, function);
    }

  private:
    friend class nd_item<D>;
    group(const detail::work_group<D>* work_group, const id<D>& local) : group_(work_group), local_(local) {}

    const detail::work_group<D>* group_;
    id<D> local_;
};

/// The sub-group of an item: neighbours in the linear order of the group. The last one of a group may be shorter.
class sub_group {
  public:
    using id_type = id<1>;
    using range_type = range<1>;
    using linear_id_type = std::uint32_t;
    static constexpr int dimensions = 1;
    static constexpr memory_scope fence_scope = memory_scope::sub_group;

    id<1> get_group_id() const { return item_ / size(); }
    id<1> get_local_id() const { return item_ % size(); }
    range<1> get_local_range() const {
        const std::size_t left = execution_->items() - item_ / size() * size();
        return left < size() ? left : size();
    }
    range<1> get_group_range() const { return (execution_->items() + size() - 1) / size(); }
    range<1> get_max_local_range() const { return size(); }
    linear_id_type get_group_linear_id() const { return static_cast<linear_id_type>(get_group_id()[0]); }
    linear_id_type get_local_linear_id() const { return static_cast<linear_id_type>(get_local_id()[0]); }
    linear_id_type get_group_linear_range() const { return static_cast<linear_id_type>(get_group_range()[0]); }
    linear_id_type get_local_linear_range() const { return static_cast<linear_id_type>(get_local_range()[0]); }
    bool leader() const { return get_local_linear_id() == 0; }

    /// For this implementation's own use.
    void synchronise(void* record, detail::collective_function function) const {
        execution_->synchronise_sub_group(item_, record, function);
    }

  private:
    template <int D>
    friend class nd_item;
    sub_group(detail::group_execution* execution, std::size_t item) : execution_(execution), item_(item) {}

    std::size_t size() const { return execution_->sub_group_size(); }

    detail::group_execution* execution_;
    std::size_t item_;
};

template <class T>
struct is_group : std::false_type {};
template <int D>
struct is_group<group<D>> : std::true_type {};
template <>
struct is_group<sub_group> : std::true_type {};
template <class T>
inline constexpr bool is_group_v = is_group<T>::value;

/// Returns when every item of the group has called it. Items that have ended count as having come.
template <class Group>
requires is_group_v<Group>
void group_barrier(const Group& which, memory_scope = Group::fence_scope) {
    which.synchronise(nullptr, nullptr);
}

/// A work-item of a launch in groups.
template <int D = 1>
class nd_item {
  public:
    static constexpr int dimensions = D;

    nd_item(const detail::work_group<D>* work_group, const id<D>& local) : group_(work_group), local_(local) {}

    id<D> get_global_id() const { return group_->index * group_->local + local_; }
    std::size_t get_global_id(int dimension) const {
        return group_->index[dimension] * group_->local[dimension] + local_[dimension];
    }
    std::size_t get_global_linear_id() const { return detail::linear_index(get_global_id(), group_->global); }
    id<D> get_local_id() const { return local_; }
    std::size_t get_local_id(int dimension) const { return local_[dimension]; }
    std::size_t get_local_linear_id() const { return detail::linear_index(local_, group_->local); }
    group<D> get_group() const { return {group_, local_}; }
    std::size_t get_group(int dimension) const { return group_->index[dimension]; }
    std::size_t get_group_linear_id() const { return detail::linear_index(group_->index, group_->groups); }
    range<D> get_group_range() const { return group_->groups; }
    std::size_t get_group_range(int dimension) const { return group_->groups[dimension]; }
    range<D> get_global_range() const { return group_->global; }
    std::size_t get_global_range(int dimension) const { return group_->global[dimension]; }
    range<D> get_local_range() const { return group_->local; }
    std::size_t get_local_range(int dimension) const { return group_->local[dimension]; }
    nd_range<D> get_nd_range() const { return {group_->global, group_->local}; }
    sub_group get_sub_group() const { return {group_->execution, get_local_linear_id()}; }

    void barrier(access::fence_space = access::fence_space::global_and_local) const { group_barrier(get_group()); }

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
    std::size_t sub_group_size;
    bool poison_local_memory;
};

/// The groups of one piece of a launch, on one thread. `Extra` are further arguments of the kernel: its reducers.
template <class Kernel, int D, class... Extra>
class group_runner {
  public:
    group_runner(const group_launch<Kernel, D>& launch, Extra&... extra)
        : launch_(launch), local_memory_(launch.local_bytes), kernel_(launch.kernel),
          execution_(launch.extent.get_local_range().size(), launch.sub_group_size, &group_runner::run_items, this),
          group_{launch.extent.get_global_range(),
                 launch.extent.get_local_range(),
                 launch.extent.get_group_range(),
                 {},
                 &execution_},
          extra_(extra...) {}

    void run(std::size_t begin, std::size_t end) {
        for (std::size_t linear = begin; linear < end; ++linear) {
            if (launch_.poison_local_memory)
                local_memory_.poison();
            group_.index = index_at(linear, group_.groups);
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
                const nd_item<D> place(&runner.group_, index_at(number, runner.group_.local));
                std::apply([&](Extra&... extra) { runner.kernel_(place, extra...); }, runner.extra_);
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
    std::tuple<Extra&...> extra_;
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
group_launch<Kernel, D> make_group_launch(const Kernel& kernel, const nd_range<D>& extent, const device_impl& device,
                                          std::size_t local_bytes) {
    return {kernel, extent, local_bytes, device.sub_group_size(), device.separate_memory};
}

template <class Kernel, int D>
void run_nd_range(const Kernel& kernel, const nd_range<D>& extent, const device_impl& device, std::size_t local_bytes) {
    const group_launch<Kernel, D> launch = make_group_launch(kernel, extent, device, local_bytes);
    run_adaptive(run_groups<Kernel, D>, &launch, extent.get_group_range().size(), 1);
}

} // namespace detail
} // namespace sycl
