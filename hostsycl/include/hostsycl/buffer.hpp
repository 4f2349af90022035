// Buffers: data that moves to where it is used, and back into the user's memory at the end.
//
// A buffer over host memory with use_host_ptr works in that memory; without it, in a copy. On a device with separate
// memory there is one more copy, made and fetched when needed. When the last handle goes, data that were written go
// back to the host memory they came from.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>

#include "hostsycl/detail/buffer_impl.hpp"
#include "hostsycl/property.hpp"
#include "hostsycl/range.hpp"
#include "hostsycl/vec.hpp"

namespace sycl {

template <class T, int D = 1>
class buffer : public detail::handle<buffer<T, D>, detail::buffer_impl> {
    static_assert(is_device_copyable_v<T>, "the elements of a buffer must be device copyable");

  public:
    using value_type = T;

    /// Without contents.
    buffer(const range<D>& extent) : buffer(extent, nullptr, nullptr, false) {}

    /// Over the user's memory, which gets the data back.
    buffer(T* host, const range<D>& extent, const property_list& properties = {})
        : buffer(extent, host, host, properties.has_property<property::buffer::use_host_ptr>()) {}

    /// A copy of the user's data, which stay as they are.
    buffer(const T* host, const range<D>& extent) : buffer(extent, host, nullptr, false) {}
    template <std::contiguous_iterator Iterator>
    requires(D == 1) buffer(Iterator first, Iterator last)
        : buffer(static_cast<const T*>(std::to_address(first)), range<1>(static_cast<std::size_t>(last - first))) {}

    range<D> get_range() const { return extent_; }
    std::size_t size() const noexcept { return extent_.size(); }
    std::size_t byte_size() const noexcept { return size() * sizeof(T); }

    /// The data go nowhere at the end.
    void set_final_data(std::nullptr_t) { this->impl_->forget_target(); }

  private:
    buffer(const range<D>& extent, const T* contents, T* target, bool in_place) : extent_(extent) {
        this->impl_ = std::make_shared<detail::buffer_impl>(detail::checked_bytes(extent, sizeof(T)), target, in_place);
        if (contents != nullptr && !in_place)
            this->impl_->fill_from(contents);
    }

    range<D> extent_;
};

template <class T, int D>
buffer(const T*, const range<D>&) -> buffer<T, D>;
template <class T, int D>
buffer(T*, const range<D>&, const property_list& = {}) -> buffer<T, D>;

} // namespace sycl
