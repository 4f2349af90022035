// Buffers: data that moves to where it is used, and back into the user's memory at the end.
//
// A buffer over host memory with use_host_ptr works in that memory; without it, in a copy. On a device with separate
// memory there is one more copy, made and fetched when needed. When the last handle goes, data that were written go
// back to the host memory they came from, or to where set_final_data says.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "hostsycl/access.hpp"
#include "hostsycl/detail/buffer_impl.hpp"
#include "hostsycl/property.hpp"
#include "hostsycl/range.hpp"
#include "hostsycl/vec.hpp"

namespace sycl {

class handler;

template <class T, int D, access_mode Mode, target Target, access::placeholder Placeholder>
class accessor;
template <class T, int D, access_mode Mode>
class host_accessor;

namespace detail {

/// An allocator of memory aligned for any vector instruction.
template <class T>
struct aligned_allocator {
    using value_type = T;

    aligned_allocator() = default;
    template <class U>
    aligned_allocator(const aligned_allocator<U>&) {}

    T* allocate(std::size_t count) {
        return static_cast<T*>(::operator new(count * sizeof(T), std::align_val_t(alignment)));
    }
    void deallocate(T* block, std::size_t) { ::operator delete(block, std::align_val_t(alignment)); }

    friend bool operator==(const aligned_allocator&, const aligned_allocator&) { return true; }

  private:
    static constexpr std::size_t alignment = alignof(T) > 64 ? alignof(T) : 64;
};

} // namespace detail

template <class T>
using buffer_allocator = std::allocator<T>;

template <class T, int D = 1, class Allocator = buffer_allocator<std::remove_const_t<T>>>
class buffer : public detail::handle<buffer<T, D, Allocator>, detail::buffer_impl> {
    using base = detail::handle<buffer, detail::buffer_impl>;
    using mutable_type = std::remove_const_t<T>;

  public:
    using value_type = T;
    using reference = T&;
    using const_reference = const T&;
    using allocator_type = Allocator;
    static constexpr int dimensions = D;

    /// Without contents, and without write-back until set_final_data.
    buffer(const range<D>& extent, const property_list& properties = {}) : buffer(extent, Allocator(), properties) {}
    buffer(const range<D>& extent, Allocator allocator, const property_list& properties = {})
        : extent_(extent), allocator_(allocator), properties_(properties) {
        this->impl_ = make_storage();
    }

    /// Over the user's memory, which gets the data back.
    buffer(T* host, const range<D>& extent, const property_list& properties = {}) requires(!std::is_const_v<T>)
        : buffer(host, extent, Allocator(), properties) {}
    buffer(T* host, const range<D>& extent, Allocator allocator,
           const property_list& properties = {}) requires(!std::is_const_v<T>)
        : extent_(extent), allocator_(allocator), properties_(properties) {
        adopt(host, nullptr);
        if (!in_place())
            this->impl_->write_back_to([host](const void* data, std::size_t bytes) { copy_out(host, data, bytes); });
    }

    /// A copy of the user's data, which stay as they are.
    buffer(const T* host, const range<D>& extent, const property_list& properties = {})
        : buffer(host, extent, Allocator(), properties) {}
    buffer(const T* host, const range<D>& extent, Allocator allocator, const property_list& properties = {})
        : extent_(extent), allocator_(allocator), properties_(properties) {
        this->impl_ = make_storage();
        this->impl_->fill_from(host);
    }

    /// Over memory shared with the user; the data go back to it, whoever holds it then.
    buffer(const std::shared_ptr<T>& host, const range<D>& extent, const property_list& properties = {})
        : buffer(host, host.get(), extent, Allocator(), properties) {}
    buffer(const std::shared_ptr<T>& host, const range<D>& extent, Allocator allocator,
           const property_list& properties = {})
        : buffer(host, host.get(), extent, allocator, properties) {}
    buffer(const std::shared_ptr<T[]>& host, const range<D>& extent, const property_list& properties = {})
        : buffer(host, host.get(), extent, Allocator(), properties) {}
    buffer(const std::shared_ptr<T[]>& host, const range<D>& extent, Allocator allocator,
           const property_list& properties = {})
        : buffer(host, host.get(), extent, allocator, properties) {}

    /// A copy of [first, last); no write-back until set_final_data.
    template <std::input_iterator Iterator>
    requires(D == 1) buffer(Iterator first, Iterator last, const property_list& properties = {})
        : buffer(first, last, Allocator(), properties) {}
    template <std::input_iterator Iterator>
    requires(D == 1) buffer(Iterator first, Iterator last, Allocator allocator, const property_list& properties = {})
        : allocator_(allocator), properties_(properties) {
        const std::vector<mutable_type> contents(first, last);
        extent_ = range<1>(contents.size());
        this->impl_ = make_storage();
        this->impl_->fill_from(contents.data());
    }

    /// Over the elements of a contiguous container, which must live on; they get the data back.
    template <class Container>
    requires(D == 1 &&
             requires(Container & c) {
                 { std::data(c) } -> std::convertible_to<const T*>;
                 { std::size(c) } -> std::convertible_to<std::size_t>;
             }) buffer(Container& container, const property_list& properties = {})
        : buffer(std::data(container), range<1>(std::size(container)), properties) {}

    /// A part of another buffer, which must be contiguous in it.
    buffer(buffer& whole, const id<D>& first, const range<D>& extent)
        : base(whole.impl_), extent_(extent), offset_(whole.offset_ + detail::linear_index(first, whole.extent_)),
          is_part_(true), allocator_(whole.allocator_), properties_(whole.properties_) {
        bool must_be_whole = false;
        for (int d = 0; d < D; ++d) {
            if (first[d] + extent[d] > whole.extent_[d] || (must_be_whole && extent[d] != whole.extent_[d]))
                throw exception(make_error_code(errc::invalid), "a sub-buffer must be a contiguous part of its buffer");
            must_be_whole = must_be_whole || extent[d] != 1;
        }
    }

    range<D> get_range() const { return extent_; }
    std::size_t size() const noexcept { return extent_.size(); }
    std::size_t get_count() const { return size(); }
    std::size_t byte_size() const noexcept { return size() * sizeof(T); }
    std::size_t get_size() const { return byte_size(); }
    Allocator get_allocator() const { return allocator_; }
    bool is_sub_buffer() const { return is_part_; }

    template <class Property>
    bool has_property() const noexcept {
        return properties_.template has_property<Property>();
    }
    template <class Property>
    Property get_property() const {
        return properties_.template get_property<Property>();
    }

    /// Where the data go when the last handle is destroyed: memory, an output iterator, or a weak_ptr that may have
    /// expired by then. Null means nowhere.
    template <class Destination = std::nullptr_t>
    void set_final_data(Destination destination = nullptr) {
        if constexpr (std::is_same_v<Destination, std::nullptr_t>) {
            this->impl_->set_final_data({});
        } else if constexpr (std::is_pointer_v<Destination>) {
            if (destination == nullptr)
                this->impl_->set_final_data({});
            else
                this->impl_->set_final_data(
                    [destination](const void* data, std::size_t bytes) { copy_elements(data, bytes, destination); });
        } else if constexpr (requires { destination.lock(); }) {
            this->impl_->set_final_data([destination](const void* data, std::size_t bytes) {
                if (const auto alive = destination.lock())
                    copy_elements(data, bytes, alive.get());
            });
        } else if constexpr (requires { std::weak_ptr(destination); }) {
            set_final_data(std::weak_ptr(destination));
        } else {
            this->impl_->set_final_data(
                [destination](const void* data, std::size_t bytes) { copy_elements(data, bytes, destination); });
        }
    }

    void set_write_back(bool enabled = true) { this->impl_->set_write_back(enabled); }

    template <access_mode Mode = access_mode::read_write>
    auto get_access(handler& command) {
        return accessor<T, D, Mode, target::device, access::placeholder::false_t>(*this, command);
    }
    template <access_mode Mode = access_mode::read_write>
    auto get_access(handler& command, const range<D>& extent, const id<D>& offset = {}) {
        return accessor<T, D, Mode, target::device, access::placeholder::false_t>(*this, command, extent, offset);
    }
    template <class... Arguments>
    requires(sizeof...(Arguments) > 0) auto get_access(handler& command, const Arguments&... arguments) {
        return accessor(*this, command, arguments...);
    }
    template <class... Arguments>
    auto get_host_access(const Arguments&... arguments) {
        return host_accessor(*this, arguments...);
    }

    /// The same data seen as elements of another type.
    template <class Other, int OtherD = std::is_same_v<std::remove_const_t<Other>, mutable_type> ? D : 1>
    buffer<Other, OtherD, typename std::allocator_traits<Allocator>::template rebind_alloc<std::remove_const_t<Other>>>
    reinterpret(const range<OtherD>& extent) const {
        if (extent.size() * sizeof(Other) != byte_size() || offset_ * sizeof(T) % sizeof(Other) != 0)
            throw exception(make_error_code(errc::invalid), "the reinterpreted buffer would have another size");
        return {this->impl_, extent, offset_ * sizeof(T) / sizeof(Other), is_part_, properties_};
    }

    /// For this implementation's own use.
    std::size_t offset() const { return offset_; }
    buffer(std::shared_ptr<detail::buffer_impl> impl, const range<D>& extent, std::size_t offset, bool is_part,
           const property_list& properties)
        : base(std::move(impl)), extent_(extent), offset_(offset), is_part_(is_part), properties_(properties) {}

  private:
    static_assert(is_device_copyable_v<mutable_type>, "the elements of a buffer must be device copyable");

    buffer(std::shared_ptr<const void> owner, T* host, const range<D>& extent, Allocator allocator,
           const property_list& properties)
        : extent_(extent), allocator_(allocator), properties_(properties) {
        adopt(const_cast<mutable_type*>(host), owner);
        if constexpr (!std::is_const_v<T>)
            if (!in_place())
                this->impl_->write_back_to([owner = std::move(owner), host](const void* data, std::size_t bytes) {
                    copy_out(host, data, bytes);
                });
    }

    bool in_place() const { return has_property<property::buffer::use_host_ptr>(); }

    void adopt(mutable_type* host, std::shared_ptr<const void> owner) {
        if (in_place()) {
            this->impl_ = std::make_shared<detail::buffer_impl>(byte_size(), host, std::move(owner), true);
            this->impl_->use_in_place();
        } else {
            this->impl_ = make_storage();
            this->impl_->fill_from(host);
        }
    }

    /// Memory of the buffer's own: from a custom allocator at once, from the default one when it is needed.
    std::shared_ptr<detail::buffer_impl> make_storage() const {
        if constexpr (std::is_same_v<Allocator, std::allocator<mutable_type>>) {
            return std::make_shared<detail::buffer_impl>(byte_size());
        } else {
            using traits = std::allocator_traits<Allocator>;
            Allocator allocator = allocator_;
            const std::size_t count = size();
            if (count == 0)
                return std::make_shared<detail::buffer_impl>(std::size_t{0});
            auto* block = traits::allocate(allocator, count);
            const std::shared_ptr<const void> owner(
                block, [allocator, block, count](void*) mutable { traits::deallocate(allocator, block, count); });
            return std::make_shared<detail::buffer_impl>(byte_size(), block, owner, false);
        }
    }

    static void copy_out(mutable_type* target, const void* data, std::size_t bytes) {
        detail::copy_bytes(target, data, bytes);
    }

    template <class Output>
    static void copy_elements(const void* data, std::size_t bytes, Output output) {
        const auto* elements = static_cast<const mutable_type*>(data);
        std::copy(elements, elements + bytes / sizeof(T), output);
    }

    range<D> extent_;
    std::size_t offset_ = 0;
    bool is_part_ = false;
    [[no_unique_address]] Allocator allocator_;
    property_list properties_;
};

template <class T, int D, class... Rest>
buffer(const T*, const range<D>&, const Rest&...) -> buffer<T, D>;
template <class T, int D, class... Rest>
buffer(T*, const range<D>&, const Rest&...) -> buffer<T, D>;
template <class T, int D, class... Rest>
buffer(const std::shared_ptr<T>&, const range<D>&, const Rest&...) -> buffer<std::remove_extent_t<T>, D>;
template <std::input_iterator Iterator>
buffer(Iterator, Iterator, const property_list& = {}) -> buffer<std::iter_value_t<Iterator>, 1>;
template <class Container>
buffer(Container&, const property_list& = {}) -> buffer<typename Container::value_type, 1>;

} // namespace sycl

template <class T, int D, class Allocator>
struct std::hash<sycl::buffer<T, D, Allocator>> : sycl::detail::handle_hash<sycl::buffer<T, D, Allocator>> {};
