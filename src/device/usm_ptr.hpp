// Grids and lists in device memory: usm_ptr owns a USM allocation by reference count, create_buffer makes the buffers
// of the simulations that work with accessors, usm_host_accessor lends a usm_ptr's data to host code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include <sycl/sycl.hpp>

#include "device/callbacks.hpp"
#include "device/host_pinned_memory_pool.hpp"

namespace tarn {

template <int D>
struct Extent;

/// A grid's shape as kernels see it: x cells in a row, y rows. Cell (i, j) lies at index j * x + i.
template <>
struct Extent<2> {
    Extent() = default;
    Extent(std::uint32_t width, std::uint32_t height) : cells(width, height) {}
    explicit Extent(const sycl::range<2>& shape)
        : cells(static_cast<std::uint32_t>(shape[1]), static_cast<std::uint32_t>(shape[0])) {}

    std::uint32_t x() const { return cells.x(); }
    std::uint32_t y() const { return cells.y(); }
    /// The same shape as the host writes it: {height, width}.
    sycl::range<2> shape() const { return {y(), x()}; }

    sycl::vec<std::uint32_t, 2> cells{0u, 0u};
};

/// Device memory for `count` elements, not initialised; null for a count of 0. Throws sycl::exception with
/// errc::memory_allocation when the device has not enough.
template <class T>
T* allocate_memory(std::size_t count, sycl::queue& queue) {
    if (count == 0)
        return nullptr;
    queue.throw_asynchronous(); // errors of kernels before this are not the allocation's own
    allocation_probe_active = true;
    void* data = sycl::aligned_alloc_device(alignof(T), count * sizeof(T), queue.get_device(), queue.get_context());
    queue.throw_asynchronous();
    allocation_probe_active = false;
    if (data == nullptr)
        throw sycl::exception(sycl::make_error_code(sycl::errc::memory_allocation),
                              "Failed to allocate memory on device");
    return static_cast<T*>(data);
}

/// What all copies of one usm_ptr share. Its end writes the data back to `host_ptr` and frees what was allocated here.
template <class T, int D>
struct shared_state {
    shared_state(const sycl::range<D>& grid_shape, const sycl::queue& device_queue)
        : queue(device_queue), shape(grid_shape), is_cpu(device_queue.get_device().is_cpu()) {}
    shared_state(const shared_state&) = delete;
    shared_state& operator=(const shared_state&) = delete;

    /// Late device errors come to the asynchronous handler; what is thrown here is noted, for there is no way out.
    ~shared_state() {
        try {
            queue.wait();
            if (data != nullptr && host_ptr != nullptr && data != host_ptr)
                queue.memcpy(host_ptr, data, shape.size() * sizeof(T)).wait();
        } catch (...) {
            note_failure("Error: a grid could not be copied back from the device");
        }
        try {
            if (owned)
                sycl::free(data, queue);
        } catch (...) {
        }
    }

    T* data = nullptr;
    T* host_ptr = nullptr;
    sycl::queue queue;
    sycl::range<D> shape;
    bool is_cpu;
    bool owned = false;
};

template <class T, int D>
class usm_ptr {
  public:
    /// A scratch grid: allocated, not initialised.
    usm_ptr(const sycl::range<D>& shape, const sycl::queue& queue)
        : state_(std::make_shared<shared_state<T, D>>(shape, queue)) {
        state_->data = allocate_memory<T>(shape.size(), state_->queue);
        state_->owned = state_->data != nullptr;
    }

    /// The caller's data on the device. On a CPU with `wrap_on_cpu` kernels work in the caller's memory; everywhere
    /// else it is uploaded and, with `write_back`, copied back when the last usm_ptr to it goes. A null `host` gives an
    /// empty usm_ptr on any device.
    usm_ptr(const sycl::range<D>& shape, const sycl::queue& queue, T* host, bool write_back, bool wrap_on_cpu)
        : state_(std::make_shared<shared_state<T, D>>(shape, queue)) {
        if (host == nullptr || (wrap_on_cpu && state_->is_cpu)) {
            state_->data = host;
            state_->queue.wait_and_throw();
            return;
        }
        state_->data = allocate_memory<T>(shape.size(), state_->queue);
        state_->owned = state_->data != nullptr;
        state_->queue.wait_and_throw();
        state_->queue.memcpy(state_->data, host, shape.size() * sizeof(T));
        state_->queue.wait_and_throw();
        // Last, so that an upload that failed never overwrites the caller's data.
        state_->host_ptr = write_back ? host : nullptr;
    }

    usm_ptr(const Extent<2>& extent, const sycl::queue& queue) requires(D == 2) : usm_ptr(extent.shape(), queue) {}

    usm_ptr(const Extent<2>& extent, const sycl::queue& queue, T* host, bool write_back,
            bool wrap_on_cpu) requires(D == 2)
        : usm_ptr(extent.shape(), queue, host, write_back, wrap_on_cpu) {}

    /// The caller's data for reading alone: wrapped on a CPU, uploaded elsewhere, never written back.
    static usm_ptr input(const sycl::range<D>& shape, const sycl::queue& queue, const T* host) {
        return usm_ptr(shape, queue, const_cast<T*>(host), false, true); // no kernel writes to it
    }

    T* data() const { return state_->data; }
    T* host_ptr() const { return state_->host_ptr; }
    /// Where the data goes when the last usm_ptr to it goes; null for nowhere.
    void set_host_ptr(T* host) const { state_->host_ptr = host; }
    sycl::queue& queue() const { return state_->queue; }
    const sycl::range<D>& shape() const { return state_->shape; }
    std::size_t size() const { return state_->shape.size(); }
    bool is_cpu() const { return state_->is_cpu; }
    bool owned() const { return state_->owned; }
    explicit operator bool() const { return state_->data != nullptr; }

    Extent<2> extent() const requires(D == 2) { return Extent<2>(state_->shape); }

  private:
    std::shared_ptr<shared_state<T, D>> state_;
};

/// The caller's grid as a buffer: in place on a CPU, a copy elsewhere, written back on destruction only with
/// `write_back`. A null `host` gives a 1 x 1 buffer, so that kernels can take an accessor to an absent grid.
template <class T>
sycl::buffer<T, 2> create_buffer(T* host, const sycl::range<2>& shape, sycl::queue& queue, bool write_back) {
    if (host == nullptr)
        return sycl::buffer<T, 2>(sycl::range<2>(1, 1));
    auto buffer = queue.get_device().is_cpu()
                      ? sycl::buffer<T, 2>(host, shape, {sycl::property::buffer::use_host_ptr()})
                      : sycl::buffer<T, 2>(host, shape);
    if (!write_back)
        buffer.set_final_data(nullptr);
    return buffer;
}

/// The caller's grid as a buffer that is only ever read.
template <class T>
sycl::buffer<T, 2> create_input(const T* host, const sycl::range<2>& shape, sycl::queue& queue) {
    return create_buffer(const_cast<T*>(host), shape, queue, false); // no kernel writes to it
}

/// Lends the data of a usm_ptr to host code for its lifetime: the data itself where the host can reach it, else a
/// staging block that is filled for reading. What is written reaches the device by `hand_back`.
template <class T>
class usm_host_accessor {
  public:
    template <int D>
    usm_host_accessor(const usm_ptr<T, D>& source, sycl::access::mode mode)
        : queue_(source.queue()), count_(source.size()), data_(source.data()) {
        queue_.wait();
        const bool reads = mode == sycl::access::mode::read || mode == sycl::access::mode::read_write;
        if (source.is_cpu() && (source.host_ptr() == nullptr || mode == sycl::access::mode::read)) {
            handed_out_ = data_;
        } else {
            auto pool = HostPinnedMemoryPool::for_queue(queue_);
            T* block = static_cast<T*>(pool->rent(count_ * sizeof(T)));
            staging_ = {block, HostPinnedMemoryPool::Deleter(std::move(pool))};
            handed_out_ = block;
            if (reads)
                queue_.memcpy(block, data_, count_ * sizeof(T)).wait();
        }
        queue_.wait();
    }

    usm_host_accessor(const usm_host_accessor&) = delete;
    usm_host_accessor& operator=(const usm_host_accessor&) = delete;

    /// Throws where the device cannot take the data: what works on it must not start then.
    void hand_back() {
        if (staging_ != nullptr)
            queue_.memcpy(data_, staging_.get(), count_ * sizeof(T));
        queue_.wait_and_throw();
    }

    T* data() const { return handed_out_; }
    std::size_t size() const { return count_; }
    T& operator[](std::size_t index) const { return handed_out_[index]; }

  private:
    sycl::queue queue_;
    std::size_t count_;
    T* data_;
    std::unique_ptr<T, std::function<void(void*)>> staging_{nullptr, [](void*) {
                                                            }};
    T* handed_out_ = nullptr;
};

} // namespace tarn
