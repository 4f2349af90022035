// Accessors to buffers by what a kernel does with them.
#pragma once

#include <sycl/sycl.hpp>

namespace tarn {

template <class T, int D = 2>
using Reader = sycl::accessor<T, D, sycl::access_mode::read>;
template <class T, int D = 2>
using Writer = sycl::accessor<T, D, sycl::access_mode::write>;
template <class T, int D = 2>
using Updater = sycl::accessor<T, D, sycl::access_mode::read_write>;

template <class T, int D>
Reader<T, D> read(sycl::buffer<T, D>& buffer, sycl::handler& handler) {
    return {buffer, handler, sycl::read_only};
}

/// For kernels that write every element before anyone reads it.
template <class T, int D>
Writer<T, D> overwrite(sycl::buffer<T, D>& buffer, sycl::handler& handler) {
    return {buffer, handler, sycl::write_only, sycl::no_init};
}

template <class T, int D>
Updater<T, D> update(sycl::buffer<T, D>& buffer, sycl::handler& handler) {
    return {buffer, handler, sycl::read_write};
}

/// In the place of an accessor that a variant of a kernel has no use for: its cells are at null.
struct NoAccessor {};

inline float* cells_of(NoAccessor) {
    return nullptr;
}

template <bool is_used, class T, int D>
auto read_if(sycl::buffer<T, D>& buffer, sycl::handler& handler) {
    if constexpr (is_used)
        return read(buffer, handler);
    else
        return NoAccessor{};
}

template <bool is_used, class T, int D>
auto overwrite_if(sycl::buffer<T, D>& buffer, sycl::handler& handler) {
    if constexpr (is_used)
        return overwrite(buffer, handler);
    else
        return NoAccessor{};
}

/// The elements of a list inside a kernel.
template <class T, sycl::access_mode mode>
auto* elements_of(const sycl::accessor<T, 1, mode>& accessor) {
    return &accessor[sycl::id<1>(0)];
}

} // namespace tarn
