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

} // namespace tarn
