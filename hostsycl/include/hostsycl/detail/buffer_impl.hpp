// What all handles of one buffer share: the data, where it is up to date, and who is using it.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "hostsycl/detail/queue_impl.hpp"

namespace sycl::detail {

class buffer_impl {
  public:
    using write_back_function = std::function<void(const void* data, std::size_t bytes)>;

    /// No contents yet; host memory is made when it is first needed.
    explicit buffer_impl(std::size_t bytes) : bytes_(bytes) {}
    /// Over host memory that is there. `keep_alive` owns it, or is empty if the user does.
    buffer_impl(std::size_t bytes, void* host, std::shared_ptr<const void> keep_alive, bool has_contents)
        : bytes_(bytes), host_(static_cast<std::byte*>(host)), keep_alive_(std::move(keep_alive)),
          has_contents_(has_contents) {}
    /// Writes back what has to be written back. An error in this goes to the queue that used the buffer last.
    ~buffer_impl();
    buffer_impl(const buffer_impl&) = delete;
    buffer_impl& operator=(const buffer_impl&) = delete;

    std::size_t bytes() const { return bytes_; }

    /// Copies initial contents into memory of the buffer's own.
    void fill_from(const void* source);

    /// Where the data go at the end, unless nobody has written to the buffer.
    void write_back_to(write_back_function target) { final_data_ = std::move(target); }
    /// Where the data go at the end in any case; an empty function means nowhere.
    void set_final_data(write_back_function target);
    void set_write_back(bool enabled) { write_back_ = enabled; }
    /// The host memory is the user's and must be up to date at the end.
    void use_in_place() { in_place_ = true; }

    /// The address of the data in kernels on `device`; stays the same for the life of the buffer.
    void* data_on(device_impl& device);
    void* host_data();

    /// Between these two calls a command may use the data. Waits for conflicting users in other threads.
    void begin_access(queue_impl& queue, bool writes, bool discards, bool on_host);
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
    std::atomic<std::byte*> host_{nullptr};
    std::shared_ptr<const void> keep_alive_;
    bool has_contents_ = false;
    bool host_valid_ = true;
    bool modified_ = false;
    bool in_place_ = false;
    bool write_back_ = true;
    bool explicit_final_data_ = false;
    write_back_function final_data_;

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
    void add(const std::shared_ptr<buffer_impl>& buffer, bool writes, bool discards, bool on_host);
    void begin_access(queue_impl& queue);
    void end_access() noexcept;

  private:
    struct requirement {
        std::shared_ptr<buffer_impl> buffer;
        bool writes = false;
        bool discards = false;
        bool on_host = false;
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
