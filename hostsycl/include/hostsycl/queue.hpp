// Queues, command groups and events. A command has ended when the call that submits it returns.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

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

namespace info::event {
struct command_execution_status {
    using return_type = info::event_command_status;
};
} // namespace info::event

/// A command that was submitted. There is never anything to wait for; wait_and_throw delivers its queue's errors.
class event : public detail::handle<event, detail::queue_impl> {
  public:
    event() = default;
    explicit event(std::shared_ptr<detail::queue_impl> queue) : handle(std::move(queue)) {}

    backend get_backend() const noexcept {
        return this->impl_ ? this->impl_->device->platform->backend : backend::hostsycl;
    }
    void wait() const {}
    void wait_and_throw() const {
        if (this->impl_)
            this->impl_->throw_asynchronous();
    }
    static void wait(const std::vector<event>&) {}
    static void wait_and_throw(const std::vector<event>& events) {
        for (const event& each : events)
            each.wait_and_throw();
    }
    std::vector<event> get_wait_list() const { return {}; }

    template <class Parameter>
    requires std::is_same_v<Parameter, info::event::command_execution_status> info::event_command_status get_info()
    const { return info::event_command_status::complete; }
};

/// What a host task may be given; there is no native object to reach through it.
class interop_handle {};

namespace detail {

template <class T>
inline constexpr bool is_event_argument = std::is_same_v<T, event> || std::is_same_v<T, std::vector<event>>;

/// Calls `launch(kernel, reductions...)` with the arguments of a parallel_for, where the kernel comes last and events
/// to wait for, which have all ended, may come first.
template <class Launch, class... Arguments>
void with_kernel(const Launch& launch, Arguments&&... arguments) {
    auto all = std::forward_as_tuple(arguments...);
    using first_type = std::remove_cvref_t<std::tuple_element_t<0, decltype(all)>>;
    constexpr std::size_t skipped = is_event_argument<first_type> ? 1 : 0;
    constexpr std::size_t last = sizeof...(Arguments) - 1;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        static_assert((is_reduction<std::remove_cvref_t<std::tuple_element_t<I + skipped, decltype(all)>>> && ...),
                      "between the range and the kernel of a parallel_for stand reductions only");
        launch(std::as_const(std::get<last>(all)), std::as_const(std::get<I + skipped>(all))...);
    }
    (std::make_index_sequence<last - skipped>());
}

template <int D, class... Arguments>
void launch_range(queue_impl& queue, const range<D>& extent, Arguments&&... arguments) {
    check_range(extent);
    with_kernel(
        [&](const auto& kernel, const auto&... reductions) {
            queue.run_kernel([&] {
                if constexpr (sizeof...(reductions) == 0)
                    run_range(kernel, extent);
                else
                    run_range_reduction(kernel, extent, reductions...);
            });
        },
        arguments...);
}

template <int D, class... Arguments>
void launch_nd_range(queue_impl& queue, const nd_range<D>& extent, std::size_t local_bytes, Arguments&&... arguments) {
    check_nd_range(extent, *queue.device, local_bytes);
    with_kernel(
        [&](const auto& kernel, const auto&... reductions) {
            queue.run_kernel([&] {
                if constexpr (sizeof...(reductions) == 0)
                    run_nd_range(kernel, extent, *queue.device, local_bytes);
                else
                    run_nd_range_reduction(kernel, extent, *queue.device, local_bytes, reductions...);
            });
        },
        arguments...);
}

void queue_memcpy(queue_impl& queue, void* target, const void* source, std::size_t bytes);
void queue_memset(queue_impl& queue, void* target, int value, std::size_t bytes);

template <class T>
void queue_fill(queue_impl& queue, T* target, const T& value, std::size_t count) {
    static_assert(is_device_copyable_v<T>);
    queue.begin_command();
    const auto fill = [target, value](item<1> place) {
        target[place.get_id(0)] = value;
    };
    const range<1> extent(count);
    const cell_launch<decltype(fill), 1> launch{fill, extent};
    run_adaptive(run_cells<decltype(fill), 1>, &launch, count, count);
}

struct unnamed_kernel;

} // namespace detail

/// A command group under construction: the function given to queue::submit names what it needs and then gives one
/// command, which runs at once.
class handler {
  public:
    handler(const handler&) = delete;
    handler& operator=(const handler&) = delete;

    // Everything submitted before has ended.
    void depends_on(const event&) {}
    void depends_on(const std::vector<event>&) {}
    /// Accessors are bound when they are made, so there is nothing left to require.
    template <class Accessor>
    void require(const Accessor&) {}

    template <class Name = detail::unnamed_kernel, class Kernel>
    void single_task(const Kernel& kernel) {
        run([&] { queue_.run_kernel([&] { kernel(); }); });
    }

    template <class Name = detail::unnamed_kernel, class... Arguments>
    void parallel_for(const range<1>& extent, Arguments&&... arguments) {
        run([&] { detail::launch_range(queue_, extent, arguments...); });
    }
    template <class Name = detail::unnamed_kernel, class... Arguments>
    void parallel_for(const range<2>& extent, Arguments&&... arguments) {
        run([&] { detail::launch_range(queue_, extent, arguments...); });
    }
    template <class Name = detail::unnamed_kernel, class... Arguments>
    void parallel_for(const range<3>& extent, Arguments&&... arguments) {
        run([&] { detail::launch_range(queue_, extent, arguments...); });
    }
    template <class Name = detail::unnamed_kernel, int D, class... Arguments>
    void parallel_for(const nd_range<D>& extent, Arguments&&... arguments) {
        run([&] { detail::launch_nd_range(queue_, extent, local_bytes_, arguments...); });
    }

    void memcpy(void* target, const void* source, std::size_t bytes) {
        run([&] { detail::queue_memcpy(queue_, target, source, bytes); });
    }
    template <class T>
    void copy(const T* source, T* target, std::size_t count) {
        memcpy(target, source, count * sizeof(T));
    }
    void memset(void* target, int value, std::size_t bytes) {
        run([&] { detail::queue_memset(queue_, target, value, bytes); });
    }
    template <class T>
    void fill(void* target, const T& value, std::size_t count) {
        run([&] { detail::queue_fill(queue_, static_cast<T*>(target), value, count); });
    }
    void prefetch(const void*, std::size_t) {
        run([&] { queue_.begin_command(); });
    }
    void mem_advise(const void*, std::size_t, int) {
        run([&] { queue_.begin_command(); });
    }

    // Copies between accessors and host memory, element by element in row-major order.
    template <class T, int D, access_mode Mode, target Target, access::placeholder Placeholder, class Out>
    void copy(accessor<T, D, Mode, Target, Placeholder> source, Out* target) {
        run([&] {
            queue_.begin_command();
            for (const auto& element : source)
                *target++ = element;
        });
    }
    template <class In, class T, int D, access_mode Mode, target Target, access::placeholder Placeholder>
    void copy(const In* source, accessor<T, D, Mode, Target, Placeholder> target) {
        run([&] {
            queue_.begin_command();
            for (auto& element : target)
                element = *source++;
        });
    }
    template <class T, int D, access_mode Mode, target Target, access::placeholder Placeholder, class U, int E,
              access_mode OtherMode, target OtherTarget, access::placeholder OtherPlaceholder>
    void copy(accessor<T, D, Mode, Target, Placeholder> source,
              accessor<U, E, OtherMode, OtherTarget, OtherPlaceholder> target) {
        if (source.size() > target.size())
            throw exception(make_error_code(errc::invalid), "the target of a copy is smaller than its source");
        run([&] {
            queue_.begin_command();
            std::copy(source.begin(), source.end(), target.begin());
        });
    }
    template <class T, int D, access_mode Mode, target Target, access::placeholder Placeholder>
    void fill(accessor<T, D, Mode, Target, Placeholder> target, const std::type_identity_t<T>& value) {
        run([&] {
            queue_.begin_command();
            for (auto& element : target)
                element = value;
        });
    }

    template <class Function>
    void host_task(Function&& function) {
        run([&] {
            try {
                if constexpr (std::is_invocable_v<Function, interop_handle>)
                    function(interop_handle());
                else
                    function();
            } catch (...) {
                queue_.report(std::current_exception());
            }
        });
    }

    /// For this implementation's own use: accessors announce themselves here and learn where their data are.
    template <class T, int D, class Allocator>
    auto* use_buffer(const buffer<T, D, Allocator>& data, bool writes, bool discards, bool on_host) {
        const auto& impl = data.impl();
        void* address = on_host ? impl->host_data() : impl->data_on(*queue_.device);
        requirements_.add(impl, writes, discards, on_host);
        return static_cast<std::remove_const_t<T>*>(address) + data.offset();
    }
    std::size_t reserve_local_memory(std::size_t bytes) {
        const std::size_t offset = local_bytes_;
        // Each array begins at its own cache line.
        local_bytes_ += (bytes + 63) / 64 * 64;
        return offset;
    }

  private:
    friend class queue;
    explicit handler(detail::queue_impl& queue) : queue_(queue) {}

    template <class Command>
    void run(const Command& command) {
        if (std::exchange(has_command_, true))
            throw exception(make_error_code(errc::invalid), "a command group has exactly one command");
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

/// The contents of the buffer's first element take part unless initialize_to_identity is given.
template <class T, int D, class Allocator, class Operation>
auto reduction(buffer<T, D, Allocator> target, handler& command, Operation operation,
               const property_list& properties = {}) {
    const bool fresh = properties.has_property<property::reduction::initialize_to_identity>();
    return reduction(command.use_buffer(target, true, fresh, false), operation, properties);
}
template <class T, int D, class Allocator, class Operation>
auto reduction(buffer<T, D, Allocator> target, handler& command, const T& identity, Operation operation,
               const property_list& properties = {}) {
    const bool fresh = properties.has_property<property::reduction::initialize_to_identity>();
    return reduction(command.use_buffer(target, true, fresh, false), identity, operation, properties);
}

class queue : public detail::handle<queue, detail::queue_impl> {
    template <class Selector>
    static constexpr bool is_selector =
        std::is_invocable_r_v<int, const Selector&, const device&> && !std::is_same_v<Selector, device>;

  public:
    explicit queue(const property_list& properties = {}) : queue(device(), async_handler(), properties) {}
    explicit queue(const async_handler& handler, const property_list& properties = {})
        : queue(device(), handler, properties) {}
    explicit queue(const device& device, const property_list& properties = {})
        : queue(device, async_handler(), properties) {}
    explicit queue(const device& device, const async_handler& handler, const property_list& properties = {});
    template <class Selector>
    requires is_selector<Selector>
    explicit queue(const Selector& selector, const property_list& properties = {})
        : queue(device(selector), properties) {}
    template <class Selector>
    requires is_selector<Selector>
    explicit queue(const Selector& selector, const async_handler& handler, const property_list& properties = {})
        : queue(device(selector), handler, properties) {}
    explicit queue(const context& context, const device& device, const property_list& properties = {})
        : queue(context, device, async_handler(), properties) {}
    explicit queue(const context& context, const device& device, const async_handler& handler,
                   const property_list& properties = {});

    backend get_backend() const noexcept { return impl_->device->platform->backend; }
    context get_context() const { return context(impl_->context); }
    device get_device() const { return device(impl_->device); }
    bool is_in_order() const { return has_property<property::queue::in_order>(); }
    template <class Property>
    bool has_property() const noexcept {
        return impl_->properties.has_property<Property>();
    }
    template <class Property>
    Property get_property() const {
        return impl_->properties.get_property<Property>();
    }

    template <class CommandGroup>
    event submit(CommandGroup&& command_group) {
        handler command(*impl_);
        command_group(command);
        return event(impl_);
    }
    template <class CommandGroup>
    event submit(CommandGroup&& command_group, const queue&) {
        return submit(command_group);
    }

    /// Every command has ended already; errors stay for wait_and_throw.
    void wait() {}
    void wait_and_throw() { impl_->throw_asynchronous(); }
    void throw_asynchronous() { impl_->throw_asynchronous(); }

    template <class Name = detail::unnamed_kernel, class Kernel>
    event single_task(const Kernel& kernel) {
        impl_->run_kernel([&] { kernel(); });
        return event(impl_);
    }
    template <class Name = detail::unnamed_kernel, class Events, class Kernel>
    requires detail::is_event_argument<Events> event single_task(const Events&, const Kernel& kernel) {
        return single_task<Name>(kernel);
    }

    template <class Name = detail::unnamed_kernel, class... Arguments>
    event parallel_for(const range<1>& extent, Arguments&&... arguments) {
        detail::launch_range(*impl_, extent, arguments...);
        return event(impl_);
    }
    template <class Name = detail::unnamed_kernel, class... Arguments>
    event parallel_for(const range<2>& extent, Arguments&&... arguments) {
        detail::launch_range(*impl_, extent, arguments...);
        return event(impl_);
    }
    template <class Name = detail::unnamed_kernel, class... Arguments>
    event parallel_for(const range<3>& extent, Arguments&&... arguments) {
        detail::launch_range(*impl_, extent, arguments...);
        return event(impl_);
    }
    template <class Name = detail::unnamed_kernel, int D, class... Arguments>
    event parallel_for(const nd_range<D>& extent, Arguments&&... arguments) {
        detail::launch_nd_range(*impl_, extent, 0, arguments...);
        return event(impl_);
    }

    // The events that the following may end with have all ended.

    template <class... Events>
    event memcpy(void* target, const void* source, std::size_t bytes, const Events&...) {
        detail::queue_memcpy(*impl_, target, source, bytes);
        return event(impl_);
    }
    template <class T, class... Events>
    event copy(const T* source, T* target, std::size_t count, const Events&...) {
        static_assert(is_device_copyable_v<T>);
        return memcpy(target, source, count * sizeof(T));
    }
    template <class... Events>
    event memset(void* target, int value, std::size_t bytes, const Events&...) {
        detail::queue_memset(*impl_, target, value, bytes);
        return event(impl_);
    }
    template <class T, class... Events>
    event fill(void* target, const T& value, std::size_t count, const Events&...) {
        detail::queue_fill(*impl_, static_cast<T*>(target), value, count);
        return event(impl_);
    }
    template <class... Events>
    event prefetch(const void*, std::size_t, const Events&...) {
        impl_->begin_command();
        return event(impl_);
    }
    template <class... Events>
    event mem_advise(const void*, std::size_t, int, const Events&...) {
        impl_->begin_command();
        return event(impl_);
    }
};

} // namespace sycl

template <>
struct std::hash<sycl::queue> : sycl::detail::handle_hash<sycl::queue> {};
template <>
struct std::hash<sycl::event> : sycl::detail::handle_hash<sycl::event> {};
