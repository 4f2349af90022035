// Queues, command groups and events. A command has ended when the call that submits it returns.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "hostsycl/access.hpp"
#include "hostsycl/buffer.hpp"
#include "hostsycl/detail/buffer_impl.hpp"
#include "hostsycl/detail/queue_impl.hpp"
#include "hostsycl/device.hpp"
#include "hostsycl/launch.hpp"
#include "hostsycl/property.hpp"
#include "hostsycl/range.hpp"
#include "hostsycl/reduction.hpp"
#include "hostsycl/work_group.hpp"

namespace sycl {

/// A command that was submitted. There is never anything to wait for; wait_and_throw delivers its queue's errors.
class event {
  public:
    event() = default;
    explicit event(std::shared_ptr<detail::queue_impl> queue) : queue_(std::move(queue)) {}

    void wait() const {}
    void wait_and_throw() const {
        if (queue_)
            queue_->throw_asynchronous();
    }

  private:
    std::shared_ptr<detail::queue_impl> queue_;
};

namespace detail {

/// A launch over `extent`; the last argument is the kernel, those before it are its reductions.
template <int D, class... Arguments>
void launch_range(queue_impl& queue, const range<D>& extent, const Arguments&... arguments) {
    check_range(extent);
    if constexpr (sizeof...(Arguments) == 1) {
        queue.run_kernel([&] { run_range(arguments..., extent); });
    } else {
        const auto all = std::forward_as_tuple(arguments...);
        [&]<std::size_t... I>(std::index_sequence<I...>) {
            static_assert((is_reduction<std::remove_cvref_t<std::tuple_element_t<I, decltype(all)>>> && ...),
                          "between the range and the kernel of a parallel_for stand reductions only");
            queue.run_kernel([&] { reduction_launch(std::get<sizeof...(I)>(all), extent, std::get<I>(all)...).run(); });
        }
        (std::make_index_sequence<sizeof...(Arguments) - 1>());
    }
}

template <int D, class Kernel>
void launch_nd_range(queue_impl& queue, const nd_range<D>& extent, std::size_t local_bytes, const Kernel& kernel) {
    check_nd_range(extent, *queue.device, local_bytes);
    queue.run_kernel([&] { run_nd_range(kernel, extent, *queue.device, local_bytes); });
}

void queue_memcpy(queue_impl& queue, void* target, const void* source, std::size_t bytes);
void queue_memset(queue_impl& queue, void* target, int value, std::size_t bytes);

template <class T>
void queue_fill(queue_impl& queue, T* target, const T& value, std::size_t count) {
    static_assert(is_device_copyable_v<T>);
    const range<1> extent(count);
    check_range(extent);
    queue.begin_command();
    run_range([target, value](item<1> place) { target[place.get_id(0)] = value; }, extent);
}

} // namespace detail

/// A command group under construction: the function given to queue::submit names what it needs and then gives one
/// command, which runs at once.
class handler {
  public:
    handler(const handler&) = delete;
    handler& operator=(const handler&) = delete;

    template <class Kernel>
    void single_task(const Kernel& kernel) {
        run([&] { queue_.run_kernel([&] { kernel(); }); });
    }
    template <class... Arguments>
    void parallel_for(const range<1>& extent, const Arguments&... arguments) {
        run_range(extent, arguments...);
    }
    template <class... Arguments>
    void parallel_for(const range<2>& extent, const Arguments&... arguments) {
        run_range(extent, arguments...);
    }
    template <class... Arguments>
    void parallel_for(const range<3>& extent, const Arguments&... arguments) {
        run_range(extent, arguments...);
    }
    template <int D, class Kernel>
    void parallel_for(const nd_range<D>& extent, const Kernel& kernel) {
        run([&] { detail::launch_nd_range(queue_, extent, local_bytes_, kernel); });
    }

    /// For this implementation's own use: accessors announce themselves here and learn where their data are.
    template <class T, int D>
    T* use_buffer(const buffer<T, D>& data, bool writes, bool discards) {
        requirements_.add(data.impl(), writes, discards);
        return static_cast<T*>(data.impl()->data_on(*queue_.device));
    }
    std::size_t reserve_local_memory(std::size_t bytes) {
        const std::size_t offset = local_bytes_;
        // Each array begins at its own cache line. More than the device has is refused by the launch.
        local_bytes_ += (std::min(bytes, queue_.device->local_mem_size + 1) + 63) / 64 * 64;
        return offset;
    }

  private:
    friend class queue;
    explicit handler(detail::queue_impl& queue) : queue_(queue) {}

    template <int D, class... Arguments>
    void run_range(const range<D>& extent, const Arguments&... arguments) {
        if (local_bytes_ > 0)
            throw exception(errc::kernel_argument, "a launch without work-groups has no local memory");
        run([&] { detail::launch_range(queue_, extent, arguments...); });
    }

    template <class Command>
    void run(const Command& command) {
        if (std::exchange(has_command_, true))
            throw exception(errc::invalid, "a command group has exactly one command");
        struct hold {
            explicit hold(handler& h) : requirements(h.requirements_) { requirements.begin_access(h.queue_); }
            ~hold() { requirements.end_access(); }
            detail::requirement_list& requirements;
        };
        const hold held(*this);
        command();
    }

    detail::queue_impl& queue_;
    detail::requirement_list requirements_;
    std::size_t local_bytes_ = 0;
    bool has_command_ = false;
};

class queue : public detail::handle<queue, detail::queue_impl> {
    template <class Selector>
    static constexpr bool is_selector =
        std::is_invocable_r_v<int, const Selector&, const device&> && !std::is_same_v<Selector, device>;

  public:
    explicit queue(const property_list& properties = {}) : queue(device(), properties) {}
    explicit queue(const device& device, const property_list& properties = {})
        : queue(device, async_handler(), properties) {}
    explicit queue(const device& device, const async_handler& handler, const property_list& properties = {});
    template <class Selector>
    requires is_selector<Selector>
    explicit queue(const Selector& selector, const property_list& properties = {})
        : queue(device(selector), properties) {}

    queue(const context& of, const device& device, const property_list& properties = {}) : queue(device, properties) {
        if (of != get_context())
            throw exception(errc::invalid, "the device does not belong to the context");
    }

    context get_context() const { return context(impl_->device); }
    device get_device() const { return device(impl_->device); }
    bool is_in_order() const { return impl_->properties.has_property<property::queue::in_order>(); }

    template <class CommandGroup>
    event submit(CommandGroup&& command_group) {
        handler command(*impl_);
        command_group(command);
        return event(impl_);
    }

    /// Every command has ended already; errors stay for wait_and_throw.
    void wait() {}
    void wait_and_throw() { impl_->throw_asynchronous(); }
    void throw_asynchronous() { impl_->throw_asynchronous(); }

    template <class Kernel>
    event single_task(const Kernel& kernel) {
        impl_->run_kernel([&] { kernel(); });
        return event(impl_);
    }
    template <class... Arguments>
    event parallel_for(const range<1>& extent, const Arguments&... arguments) {
        detail::launch_range(*impl_, extent, arguments...);
        return event(impl_);
    }
    template <class... Arguments>
    event parallel_for(const range<2>& extent, const Arguments&... arguments) {
        detail::launch_range(*impl_, extent, arguments...);
        return event(impl_);
    }
    template <class... Arguments>
    event parallel_for(const range<3>& extent, const Arguments&... arguments) {
        detail::launch_range(*impl_, extent, arguments...);
        return event(impl_);
    }
    template <int D, class Kernel>
    event parallel_for(const nd_range<D>& extent, const Kernel& kernel) {
        detail::launch_nd_range(*impl_, extent, 0, kernel);
        return event(impl_);
    }

    event memcpy(void* target, const void* source, std::size_t bytes) {
        detail::queue_memcpy(*impl_, target, source, bytes);
        return event(impl_);
    }
    event memset(void* target, int value, std::size_t bytes) {
        detail::queue_memset(*impl_, target, value, bytes);
        return event(impl_);
    }
    template <class T>
    event fill(void* target, const T& value, std::size_t count) {
        detail::queue_fill(*impl_, static_cast<T*>(target), value, count);
        return event(impl_);
    }
};

} // namespace sycl
