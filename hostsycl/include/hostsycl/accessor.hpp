// Accessors: how kernels and host code reach the data of buffers, and work-groups their local memory.
#pragma once

#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>

#include "hostsycl/access.hpp"
#include "hostsycl/buffer.hpp"
#include "hostsycl/queue.hpp"
#include "hostsycl/range.hpp"
#include "hostsycl/work_group.hpp"

namespace sycl {

/// A pointer that knows its address space, which on a CPU is always the same.
template <class T, access::address_space Space, access::decorated Decorated = access::decorated::legacy>
class multi_ptr {
  public:
    using value_type = T;
    using pointer = T*;
    using reference = T&;
    static constexpr access::address_space address_space = Space;

    constexpr multi_ptr() = default;
    constexpr explicit(Decorated != access::decorated::legacy) multi_ptr(T* address) : pointer_(address) {}

    constexpr T* get() const { return pointer_; }
    constexpr T* get_raw() const { return pointer_; }
    constexpr T* get_decorated() const { return pointer_; }
    constexpr operator T*() const { return pointer_; }
    constexpr T& operator*() const { return *pointer_; }
    constexpr T* operator->() const { return pointer_; }

  private:
    T* pointer_ = nullptr;
};

template <class T, access::decorated Decorated = access::decorated::legacy>
using global_ptr = multi_ptr<T, access::address_space::global_space, Decorated>;
template <class T, access::decorated Decorated = access::decorated::legacy>
using local_ptr = multi_ptr<T, access::address_space::local_space, Decorated>;

namespace detail {

/// What all accessors have in common: an address and the extent that indices refer to.
template <class T, int D>
class element_access {
    // What accessor[y] of two dimensions and accessor[z] of three give.
    struct row_access {
        T* data;
        T& operator[](std::size_t index) const { return data[index]; }
    };
    struct plane_access {
        T* data;
        std::size_t columns;
        row_access operator[](std::size_t index) const { return {data + index * columns}; }
    };

  public:
    using pointer = T*;

    T& operator[](const id<D>& index) const { return data_[linear_index(index, extent_)]; }

    decltype(auto) operator[](std::size_t index) const requires(D > 1) {
        // Nothing here may hold the address of an accessor, or the kernel's copy could not stay in registers.
        if constexpr (D == 2)
            return row_access{data_ + index * extent_[1]};
        else
            return plane_access{data_ + index * extent_[1] * extent_[2], extent_[2]};
    }

    /// The address of the first element of the whole buffer.
    T* data() const { return data_; }

  protected:
    element_access() = default;
    element_access(T* data, const range<D>& extent) : data_(data), extent_(extent) {}

    T* data_ = nullptr;
    range<D> extent_;
};

/// Walks the accessed part of a buffer in row-major order.
template <class T, int D>
class element_iterator {
  public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::remove_const_t<T>;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    element_iterator() = default;
    element_iterator(T* data, const range<D>& whole, const range<D>& part, const id<D>& offset, std::size_t position)
        : data_(data), whole_(whole), part_(part), offset_(offset), position_(position) {}

    T& operator*() const { return data_[linear_index(index_at(position_, part_) + offset_, whole_)]; }
    T* operator->() const { return &**this; }
    element_iterator& operator++() {
        ++position_;
        return *this;
    }
    element_iterator operator++(int) {
        element_iterator before = *this;
        ++position_;
        return before;
    }
    friend bool operator==(const element_iterator& a, const element_iterator& b) { return a.position_ == b.position_; }

  private:
    T* data_ = nullptr;
    range<D> whole_;
    range<D> part_;
    id<D> offset_;
    std::size_t position_ = 0;
};

/// The elements that an accessor hands out: constant ones when it only reads.
template <class T, access_mode Mode>
using accessed = std::conditional_t<Mode == access_mode::read, const T, T>;

} // namespace detail

/// Access to a buffer from a kernel. It is an address and a few sizes, so captures cost nothing. Indices count from the
/// beginning of the buffer, also where a part of it is asked for.
template <class T, int D = 1, access_mode Mode = std::is_const_v<T> ? access_mode::read : access_mode::read_write,
          target Target = target::device, access::placeholder Placeholder = access::placeholder::false_t>
class accessor : public detail::element_access<detail::accessed<T, Mode>, D> {
    using element = detail::accessed<T, Mode>;
    using base = detail::element_access<element, D>;
    using mutable_type = std::remove_const_t<T>;

  public:
    using value_type = element;
    using reference = element&;
    using const_reference = const T&;
    using size_type = std::size_t;
    using iterator = detail::element_iterator<element, D>;
    static constexpr int dimensions = D;

    accessor() = default;

    template <class Allocator>
    accessor(buffer<mutable_type, D, Allocator>& data, handler& command, const property_list& properties = {})
        : accessor(data, command, data.get_range(), id<D>(), properties) {}
    template <class Allocator>
    accessor(buffer<mutable_type, D, Allocator>& data, handler& command, mode_tag<Mode, Target>,
             const property_list& properties = {})
        : accessor(data, command, data.get_range(), id<D>(), properties) {}
    template <class Allocator>
    accessor(buffer<mutable_type, D, Allocator>& data, handler& command, const range<D>& part,
             const property_list& properties = {})
        : accessor(data, command, part, id<D>(), properties) {}
    template <class Allocator>
    accessor(buffer<mutable_type, D, Allocator>& data, handler& command, const range<D>& part, mode_tag<Mode, Target>,
             const property_list& properties = {})
        : accessor(data, command, part, id<D>(), properties) {}
    template <class Allocator>
    accessor(buffer<mutable_type, D, Allocator>& data, handler& command, const range<D>& part, const id<D>& offset,
             mode_tag<Mode, Target>, const property_list& properties = {})
        : accessor(data, command, part, offset, properties) {}
    template <class Allocator>
    accessor(buffer<mutable_type, D, Allocator>& data, handler& command, const range<D>& part, const id<D>& offset,
             const property_list& properties = {})
        : base(command.use_buffer(data, detail::writes(Mode),
                                  detail::discards(Mode) || properties.has_property<property::no_init>(),
                                  Target == target::host_task),
               data.get_range()),
          part_(part), offset_(offset) {
        for (int d = 0; d < D; ++d)
            if (offset[d] > data.get_range()[d] || part[d] > data.get_range()[d] - offset[d])
                throw exception(make_error_code(errc::invalid), "an accessor reaches beyond its buffer");
    }

    /// Reading through an accessor that may also write, and the two ways to spell a reading one.
    template <class U, access_mode OtherMode>
    requires((!std::is_same_v<U, T> || OtherMode != Mode) && std::is_same_v<std::remove_const_t<U>, mutable_type> &&
             Mode == access_mode::read && (OtherMode == access_mode::read || OtherMode == access_mode::read_write))
        accessor(const accessor<U, D, OtherMode, Target, Placeholder>& other)
        : base(other.data(), other.whole()), part_(other.get_range()), offset_(other.get_offset()) {}

    range<D> get_range() const { return part_; }
    id<D> get_offset() const { return offset_; }
    std::size_t size() const noexcept { return part_.size(); }
    std::size_t get_count() const { return size(); }
    std::size_t byte_size() const noexcept { return size() * sizeof(T); }
    std::size_t max_size() const noexcept { return size(); }
    bool empty() const noexcept { return size() == 0; }
    bool is_placeholder() const { return false; }

    global_ptr<element> get_pointer() const { return this->data_; }
    template <access::decorated Decorated>
    global_ptr<element, Decorated> get_multi_ptr() const {
        return global_ptr<element, Decorated>(this->data_);
    }

    iterator begin() const { return {this->data_, this->extent_, part_, offset_, 0}; }
    iterator end() const { return {this->data_, this->extent_, part_, offset_, size()}; }

    void swap(accessor& other) { std::swap(*this, other); }
    friend bool operator==(const accessor& a, const accessor& b) {
        return a.data_ == b.data_ && a.part_ == b.part_ && a.offset_ == b.offset_;
    }

    /// For this implementation's own use: the extent of the whole buffer.
    const range<D>& whole() const { return this->extent_; }

  private:
    range<D> part_;
    id<D> offset_;
};

template <class T, int D, class Allocator>
accessor(buffer<T, D, Allocator>&, handler&, const property_list& = {})
    -> accessor<T, D, access_mode::read_write, target::device>;
template <class T, int D, class Allocator, access_mode Mode, target Target>
accessor(buffer<T, D, Allocator>&, handler&, mode_tag<Mode, Target>, const property_list& = {})
    -> accessor<T, D, Mode, Target>;
template <class T, int D, class Allocator>
accessor(buffer<T, D, Allocator>&, handler&, const range<D>&, const property_list& = {})
    -> accessor<T, D, access_mode::read_write, target::device>;
template <class T, int D, class Allocator, access_mode Mode, target Target>
accessor(buffer<T, D, Allocator>&, handler&, const range<D>&, mode_tag<Mode, Target>, const property_list& = {})
    -> accessor<T, D, Mode, Target>;
template <class T, int D, class Allocator>
accessor(buffer<T, D, Allocator>&, handler&, const range<D>&, const id<D>&, const property_list& = {})
    -> accessor<T, D, access_mode::read_write, target::device>;
template <class T, int D, class Allocator, access_mode Mode, target Target>
accessor(buffer<T, D, Allocator>&, handler&, const range<D>&, const id<D>&, mode_tag<Mode, Target>,
         const property_list& = {}) -> accessor<T, D, Mode, Target>;

/// Access to a buffer from host code for the life of the accessor and its copies. Commands of other threads that
/// conflict with it wait; those of the same thread would wait for ever and are refused.
template <class T, int D = 1, access_mode Mode = std::is_const_v<T> ? access_mode::read : access_mode::read_write>
class host_accessor : public detail::element_access<detail::accessed<T, Mode>, D> {
    using element = detail::accessed<T, Mode>;
    using base = detail::element_access<element, D>;
    using mutable_type = std::remove_const_t<T>;

  public:
    using value_type = element;
    using reference = element&;
    using const_reference = const T&;
    using size_type = std::size_t;
    using iterator = detail::element_iterator<element, D>;
    static constexpr int dimensions = D;

    host_accessor() = default;

    template <class Allocator>
    host_accessor(buffer<mutable_type, D, Allocator>& data, const property_list& properties = {})
        : host_accessor(data, data.get_range(), id<D>(), properties) {}
    template <class Allocator, target Target>
    host_accessor(buffer<mutable_type, D, Allocator>& data, mode_tag<Mode, Target>,
                  const property_list& properties = {})
        : host_accessor(data, data.get_range(), id<D>(), properties) {}
    template <class Allocator>
    host_accessor(buffer<mutable_type, D, Allocator>& data, const range<D>& part, const property_list& properties = {})
        : host_accessor(data, part, id<D>(), properties) {}
    template <class Allocator, target Target>
    host_accessor(buffer<mutable_type, D, Allocator>& data, const range<D>& part, mode_tag<Mode, Target>,
                  const property_list& properties = {})
        : host_accessor(data, part, id<D>(), properties) {}
    template <class Allocator, target Target>
    host_accessor(buffer<mutable_type, D, Allocator>& data, const range<D>& part, const id<D>& offset,
                  mode_tag<Mode, Target>, const property_list& properties = {})
        : host_accessor(data, part, offset, properties) {}
    template <class Allocator>
    host_accessor(buffer<mutable_type, D, Allocator>& data, const range<D>& part, const id<D>& offset,
                  const property_list& properties = {})
        : part_(part), offset_(offset) {
        for (int d = 0; d < D; ++d)
            if (offset[d] > data.get_range()[d] || part[d] > data.get_range()[d] - offset[d])
                throw exception(make_error_code(errc::invalid), "an accessor reaches beyond its buffer");
        hold_ = std::make_shared<detail::host_access>(
            data.impl(), detail::writes(Mode), detail::discards(Mode) || properties.has_property<property::no_init>());
        this->data_ = static_cast<mutable_type*>(data.impl()->host_data()) + data.offset();
        this->extent_ = data.get_range();
    }

    range<D> get_range() const { return part_; }
    id<D> get_offset() const { return offset_; }
    std::size_t size() const noexcept { return part_.size(); }
    std::size_t get_count() const { return size(); }
    std::size_t byte_size() const noexcept { return size() * sizeof(T); }
    std::size_t max_size() const noexcept { return size(); }
    bool empty() const noexcept { return size() == 0; }
    element* get_pointer() const { return this->data_; }

    iterator begin() const { return {this->data_, this->extent_, part_, offset_, 0}; }
    iterator end() const { return {this->data_, this->extent_, part_, offset_, size()}; }

    void swap(host_accessor& other) { std::swap(*this, other); }
    friend bool operator==(const host_accessor& a, const host_accessor& b) {
        return a.hold_ == b.hold_ && a.part_ == b.part_ && a.offset_ == b.offset_;
    }

  private:
    range<D> part_;
    id<D> offset_;
    std::shared_ptr<detail::host_access> hold_;
};

template <class T, int D, class Allocator>
host_accessor(buffer<T, D, Allocator>&, const property_list& = {}) -> host_accessor<T, D, access_mode::read_write>;
template <class T, int D, class Allocator, access_mode Mode, target Target>
host_accessor(buffer<T, D, Allocator>&, mode_tag<Mode, Target>, const property_list& = {}) -> host_accessor<T, D, Mode>;
template <class T, int D, class Allocator>
host_accessor(buffer<T, D, Allocator>&, const range<D>&, const property_list& = {})
    -> host_accessor<T, D, access_mode::read_write>;
template <class T, int D, class Allocator, access_mode Mode, target Target>
host_accessor(buffer<T, D, Allocator>&, const range<D>&, mode_tag<Mode, Target>, const property_list& = {})
    -> host_accessor<T, D, Mode>;
template <class T, int D, class Allocator, access_mode Mode, target Target>
host_accessor(buffer<T, D, Allocator>&, const range<D>&, const id<D>&, mode_tag<Mode, Target>,
              const property_list& = {}) -> host_accessor<T, D, Mode>;

/// An array that the items of a work-group share. It has no contents when a group begins.
template <class T, int D = 1>
class local_accessor : public detail::element_access<T, D> {
    using base = detail::element_access<T, D>;

  public:
    using value_type = T;
    using reference = T&;
    using const_reference = const T&;
    using size_type = std::size_t;
    using iterator = T*;
    static constexpr int dimensions = D;

    local_accessor() = default;
    local_accessor(const range<D>& extent, handler& command, const property_list& = {})
        : base(nullptr, extent), offset_(command.reserve_local_memory(extent.size() * sizeof(T))) {
        static_assert(std::is_trivially_destructible_v<T> && alignof(T) <= 64);
    }

    // The copy that a thread makes of the kernel finds the local memory of that thread.
    local_accessor(const local_accessor& other) : base(other), offset_(other.offset_) {
        if (this->data_ == nullptr)
            if (std::byte* memory = detail::local_memory())
                this->data_ = reinterpret_cast<T*>(memory + offset_);
    }
    local_accessor& operator=(const local_accessor&) = default;

    range<D> get_range() const { return this->extent_; }
    std::size_t size() const noexcept { return this->extent_.size(); }
    std::size_t byte_size() const noexcept { return size() * sizeof(T); }
    std::size_t max_size() const noexcept { return size(); }
    bool empty() const noexcept { return size() == 0; }
    local_ptr<T> get_pointer() const { return this->data_; }
    template <access::decorated Decorated>
    local_ptr<T, Decorated> get_multi_ptr() const {
        return local_ptr<T, Decorated>(this->data_);
    }

    iterator begin() const { return this->data_; }
    iterator end() const { return this->data_ + size(); }

    friend bool operator==(const local_accessor& a, const local_accessor& b) {
        return a.offset_ == b.offset_ && a.extent_ == b.extent_;
    }

  private:
    std::size_t offset_ = 0;
};

template <class T, int D>
struct is_device_copyable<local_accessor<T, D>> : std::true_type {};

} // namespace sycl
