// What all handles of one buffer share: the data, where it is up to date, and who is using it.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "hostsycl/detail/queue_impl.hpp"

namespace sycl::detail {

class buffer_impl {
  public:
    /// `target`, if there is one, gets the data at the end if they were written. With `in_place` it holds the contents
    /// and is the buffer's host memory; else that is made when it is first needed.
    buffer_impl(std::size_t bytes, void* target, bool in_place);
    /// Writes back what has to be written back. An error in this goes to the queue that used the buffer last.
    ~buffer_impl();
    buffer_impl(const buffer_impl&) = delete;
    buffer_impl& operator=(const buffer_impl&) = delete;

    /// Copies initial contents into memory of the buffer's own.
    void fill_from(const void* source);
    void forget_target() { target_ = nullptr; }

    /// The address of the data in kernels on `device`; stays the same for the life of the buffer.
    void* data_on(device_impl& device);
    void* host_data();

    /// Between these two calls a command may use the data. Waits for conflicting users in other threads.
    void begin_access(queue_impl& queue, bool writes, bool discards);
    void end_access(bool writes) noexcept;
    void begin_host_access(bool writes, bool discards);
    void end_host_access(const void* thread, bool writes) noexcept;

  private:
    struct device_copy {
        std::shared_ptr<device_impl> device;
        std::byte* data;
        bool valid;
    };
    struct host_user {
        const void* thread;
        bool writes;
    };

    void lock(bool writes);
    void unlock(bool writes) noexcept;
    void refuse_to_wait_for_oneself();
    device_copy* find_copy(const device_impl& device);
    void bring_to_host(queue_impl* queue);
    void bring_to_device(queue_impl& queue, bool writes, bool discards);
    void mark_written_on_host();

    const std::size_t bytes_;
    void* target_;
    std::atomic<std::byte*> host_{nullptr};
    bool owns_host_ = false;
    bool has_contents_;
    bool host_valid_ = true;
    bool modified_ = false;

    // Copies on devices with separate memory. The flag spares the common case the mutex, under which several readers
    // take turns at moving data.
    std::atomic<bool> has_copies_{false};
    std::recursive_mutex data_mutex_;
    std::vector<device_copy> copies_;
    std::weak_ptr<queue_impl> last_queue_;

    // Number of readers, or -1 for a writer.
    std::atomic<int> users_{0};
    std::mutex host_users_mutex_;
    std::vector<host_user> host_users_;
};

/// The buffers that a command group uses, each once, in the order of their addresses: all threads lock in this order.
class requirement_list {
  public:
    void add(const std::shared_ptr<buffer_impl>& buffer, bool writes, bool discards);
    void begin_access(queue_impl& queue);
    void end_access() noexcept;

  private:
    struct requirement {
        std::shared_ptr<buffer_impl> buffer;
        bool writes = false;
        bool discards = false;
    };

    // Command groups with more buffers are rare.
    static constexpr std::size_t inline_capacity = 12;

    requirement* entries() { return count_ <= inline_capacity ? inline_entries_ : more_entries_.data(); }

    requirement inline_entries_[inline_capacity];
    std::vector<requirement> more_entries_;
    std::size_t count_ = 0;
    std::size_t held_ = 0;
};

/// The use of a buffer by host code.
class host_access {
  public:
    host_access(std::shared_ptr<buffer_impl> buffer, bool writes, bool discards);
    ~host_access();
    host_access(const host_access&) = delete;
    host_access& operator=(const host_access&) = delete;

  private:
    std::shared_ptr<buffer_impl> buffer_;
    const void* thread_;
    bool writes_;
};

} // namespace sycl::detail
