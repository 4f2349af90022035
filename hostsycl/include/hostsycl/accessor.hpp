// Accessors: how kernels and host code reach the data of buffers, and work-groups their local memory.
#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#include "hostsycl/access.hpp"
#include "hostsycl/buffer.hpp"
#include "hostsycl/queue.hpp"
#include "hostsycl/range.hpp"
#include "hostsycl/work_group.hpp"

namespace sycl {

namespace detail {

/// What all accessors have in common: an address and an extent.
template <class T, int D>
class element_access {
    // What accessor[y] of two dimensions gives.
    struct row_access {
        T* data;
        T& operator[](std::size_t index) const { return data[index]; }
    };

  public:
    using value_type = T;

    T& operator[](const id<D>& index) const { return data_[linear_index(index, extent_)]; }
    // Nothing here may hold the address of an accessor, or the kernel's copy could not stay in registers.
    row_access operator[](std::size_t row) const requires(D == 2) { return {data_ + row * extent_[1]}; }

    range<D> get_range() const { return extent_; }
    std::size_t size() const noexcept { return extent_.size(); }

  protected:
    element_access() = default;
    element_access(T* data, const range<D>& extent) : data_(data), extent_(extent) {}

    T* data_ = nullptr;
    range<D> extent_;
};

/// The elements that an accessor hands out: constant ones when it only reads.
template <class T, access_mode Mode>
using accessed = std::conditional_t<Mode == access_mode::read, const T, T>;

} // namespace detail

/// Access to a buffer from a kernel. It is an address and a few sizes, so captures cost nothing.
template <class T, int D = 1, access_mode Mode = access_mode::read_write>
class accessor : public detail::element_access<detail::accessed<T, Mode>, D> {
    using base = detail::element_access<detail::accessed<T, Mode>, D>;

  public:
    accessor() = default;
    accessor(buffer<T, D>& data, handler& command, const property_list& properties = {})
        : base(command.use_buffer(data, detail::writes(Mode), properties.has_property<property::no_init>()),
               data.get_range()) {}
    accessor(buffer<T, D>& data, handler& command, mode_tag<Mode>, const property_list& properties = {})
        : accessor(data, command, properties) {}
};

template <class T, int D>
accessor(buffer<T, D>&, handler&, const property_list& = {}) -> accessor<T, D, access_mode::read_write>;
template <class T, int D, access_mode Mode>
accessor(buffer<T, D>&, handler&, mode_tag<Mode>, const property_list& = {}) -> accessor<T, D, Mode>;

/// Access to a buffer from host code for the life of the accessor and its copies. Commands of other threads that
/// conflict with it wait; those of the same thread would wait for ever and are refused.
template <class T, int D = 1, access_mode Mode = access_mode::read_write>
class host_accessor : public detail::element_access<detail::accessed<T, Mode>, D> {
  public:
    using iterator = detail::accessed<T, Mode>*;

    host_accessor(buffer<T, D>& data, const property_list& properties = {})
        : hold_(std::make_shared<detail::host_access>(data.impl(), detail::writes(Mode),
                                                      properties.has_property<property::no_init>())) {
        this->data_ = static_cast<T*>(data.impl()->host_data());
        this->extent_ = data.get_range();
    }
    host_accessor(buffer<T, D>& data, mode_tag<Mode>, const property_list& properties = {})
        : host_accessor(data, properties) {}

    iterator begin() const { return this->data_; }
    iterator end() const { return this->data_ + this->size(); }

  private:
    std::shared_ptr<detail::host_access> hold_;
};

template <class T, int D>
host_accessor(buffer<T, D>&, const property_list& = {}) -> host_accessor<T, D, access_mode::read_write>;
template <class T, int D, access_mode Mode>
host_accessor(buffer<T, D>&, mode_tag<Mode>, const property_list& = {}) -> host_accessor<T, D, Mode>;

/// An array that the items of a work-group share. It has no contents when a group begins.
template <class T, int D = 1>
class local_accessor : public detail::element_access<T, D> {
    static_assert(std::is_trivially_destructible_v<T> && alignof(T) <= 64);
    using base = detail::element_access<T, D>;

  public:
    local_accessor() = default;
    local_accessor(const range<D>& extent, handler& command)
        : base(nullptr, extent), offset_(command.reserve_local_memory(detail::checked_bytes(extent, sizeof(T)))) {}

    // The copy that a thread makes of the kernel finds the local memory of that thread.
    local_accessor(const local_accessor& other) : base(other), offset_(other.offset_) {
        if (this->data_ == nullptr)
            if (std::byte* memory = detail::local_memory())
                this->data_ = reinterpret_cast<T*>(memory + offset_);
    }
    local_accessor& operator=(const local_accessor&) = default;

  private:
    std::size_t offset_ = 0;
};

template <class T, int D>
struct is_device_copyable<local_accessor<T, D>> : std::true_type {};

} // namespace sycl
