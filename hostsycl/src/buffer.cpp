#include "hostsycl/detail/buffer_impl.hpp"

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "memory.hpp"

namespace sycl::detail {

namespace {

/// An address that tells threads apart.
const void* this_thread() {
    static thread_local const char marker = 0;
    return &marker;
}

} // namespace

buffer_impl::buffer_impl(std::size_t bytes, void* target, bool in_place)
    : bytes_(bytes), target_(target), has_contents_(in_place) {
    if (in_place)
        host_ = static_cast<std::byte*>(target);
}

void* buffer_impl::host_data() {
    if (std::byte* ready = host_.load(std::memory_order_acquire))
        return ready;
    const std::lock_guard lock(data_mutex_);
    if (host_.load(std::memory_order_relaxed) == nullptr && bytes_ > 0) {
        void* block = allocate_block(bytes_, 64);
        if (block == nullptr)
            throw exception(errc::memory_allocation, "no memory for a buffer");
        owns_host_ = true;
        host_.store(static_cast<std::byte*>(block), std::memory_order_release);
    }
    return host_.load(std::memory_order_relaxed);
}

void buffer_impl::fill_from(const void* source) {
    if (bytes_ == 0)
        return;
    copy_bytes(host_data(), source, bytes_);
    has_contents_ = true;
}

buffer_impl::device_copy* buffer_impl::find_copy(const device_impl& device) {
    for (device_copy& copy : copies_)
        if (copy.device.get() == &device)
            return &copy;
    return nullptr;
}

void* buffer_impl::data_on(device_impl& device) {
    if (!device.separate_memory)
        return host_data();
    const std::lock_guard lock(data_mutex_);
    if (const device_copy* copy = find_copy(device))
        return copy->data;
    copies_.reserve(copies_.size() + 1);
    void* block = device.allocate(bytes_, 64, memory_kind::device);
    if (block == nullptr)
        throw exception(errc::memory_allocation, "the device has no memory for a buffer");
    copies_.push_back({device.shared_from_this(), static_cast<std::byte*>(block), false});
    has_copies_.store(true, std::memory_order_release);
    return block;
}

void buffer_impl::bring_to_host(queue_impl* queue) {
    if (host_valid_ || !has_contents_)
        return;
    const auto valid = std::find_if(copies_.begin(), copies_.end(), [](const device_copy& copy) { return copy.valid; });
    valid->device->copy(host_data(), valid->data, bytes_, false, queue);
    host_valid_ = true;
}

void buffer_impl::bring_to_device(queue_impl& queue, bool writes, bool discards) {
    device_copy* const copy = find_copy(*queue.device);
    if (!copy->valid && has_contents_ && !discards) {
        bring_to_host(&queue);
        copy->device->copy(copy->data, host_data(), bytes_, true, &queue);
    }
    if (writes) {
        for (device_copy& other : copies_)
            other.valid = false;
        host_valid_ = false;
        has_contents_ = true;
        modified_ = true;
    }
    copy->valid = has_contents_;
}

void buffer_impl::mark_written_on_host() {
    for (device_copy& copy : copies_)
        copy.valid = false;
    host_valid_ = true;
    has_contents_ = true;
    modified_ = true;
}

void buffer_impl::lock(bool writes) {
    for (;;) {
        int users = users_.load(std::memory_order_relaxed);
        if (writes ? users == 0 : users >= 0) {
            if (users_.compare_exchange_weak(users, writes ? -1 : users + 1, std::memory_order_acquire))
                return;
            continue;
        }
        refuse_to_wait_for_oneself();
        users_.wait(users);
    }
}

void buffer_impl::unlock(bool writes) noexcept {
    if (writes)
        users_.store(0, std::memory_order_release);
    else
        users_.fetch_sub(1, std::memory_order_release);
    users_.notify_all();
}

void buffer_impl::refuse_to_wait_for_oneself() {
    const std::lock_guard lock(host_users_mutex_);
    for (const host_user& user : host_users_)
        if (user.thread == this_thread())
            throw exception(errc::invalid, "a host accessor of this thread holds the buffer");
}

void buffer_impl::begin_access(queue_impl& queue, bool writes, bool discards) {
    lock(writes);
    if (!queue.device->separate_memory && !has_copies_.load(std::memory_order_acquire)) {
        if (writes) {
            has_contents_ = true;
            modified_ = true;
        }
        return;
    }
    try {
        const std::lock_guard moving(data_mutex_);
        last_queue_ = queue.weak_from_this();
        if (queue.device->separate_memory) {
            bring_to_device(queue, writes, discards);
        } else {
            if (!discards)
                bring_to_host(&queue);
            if (writes)
                mark_written_on_host();
        }
    } catch (...) {
        unlock(writes);
        throw;
    }
}

void buffer_impl::end_access(bool writes) noexcept {
    unlock(writes);
}

void buffer_impl::begin_host_access(bool writes, bool discards) {
    lock(writes);
    try {
        const std::lock_guard moving(data_mutex_);
        host_data();
        if (!discards)
            bring_to_host(last_queue_.lock().get());
        if (writes)
            mark_written_on_host();
        const std::lock_guard held(host_users_mutex_);
        host_users_.push_back({this_thread(), writes});
    } catch (...) {
        unlock(writes);
        throw;
    }
}

void buffer_impl::end_host_access(const void* thread, bool writes) noexcept {
    {
        const std::lock_guard held(host_users_mutex_);
        const auto user = std::find_if(host_users_.begin(), host_users_.end(), [&](const host_user& each) {
            return each.thread == thread && each.writes == writes;
        });
        host_users_.erase(user);
    }
    unlock(writes);
}

buffer_impl::~buffer_impl() {
    const auto queue = last_queue_.lock();
    try {
        if (target_ != nullptr && modified_) {
            bring_to_host(queue.get());
            if (host_.load(std::memory_order_relaxed) != target_)
                copy_bytes(target_, host_.load(std::memory_order_relaxed), bytes_);
        }
    } catch (...) {
        if (queue != nullptr)
            queue->report(std::current_exception());
    }
    if (owns_host_)
        std::free(host_.load(std::memory_order_relaxed));
    for (const device_copy& copy : copies_)
        copy.device->deallocate(copy.data, bytes_, memory_kind::device);
}

host_access::host_access(std::shared_ptr<buffer_impl> buffer, bool writes, bool discards)
    : buffer_(std::move(buffer)), thread_(this_thread()), writes_(writes) {
    buffer_->begin_host_access(writes, discards);
}

host_access::~host_access() {
    buffer_->end_host_access(thread_, writes_);
}

void requirement_list::add(const std::shared_ptr<buffer_impl>& buffer, bool writes, bool discards) {
    requirement* begin = entries();
    requirement* place = begin;
    while (place != begin + count_ && std::less<>()(place->buffer.get(), buffer.get()))
        ++place;
    if (place != begin + count_ && place->buffer == buffer) {
        place->writes = place->writes || writes;
        place->discards = place->discards && discards;
        return;
    }
    requirement fresh{buffer, writes, discards};
    if (count_ < inline_capacity) {
        std::move_backward(place, begin + count_, begin + count_ + 1);
        *place = std::move(fresh);
    } else {
        const auto position = place - begin;
        if (count_ == inline_capacity)
            more_entries_.assign(std::make_move_iterator(begin), std::make_move_iterator(begin + count_));
        more_entries_.insert(more_entries_.begin() + position, std::move(fresh));
    }
    ++count_;
}

void requirement_list::begin_access(queue_impl& queue) {
    requirement* const list = entries();
    try {
        for (; held_ < count_; ++held_)
            list[held_].buffer->begin_access(queue, list[held_].writes, list[held_].discards);
    } catch (...) {
        end_access();
        throw;
    }
}

void requirement_list::end_access() noexcept {
    requirement* const list = entries();
    while (held_ > 0) {
        --held_;
        list[held_].buffer->end_access(list[held_].writes);
    }
}

} // namespace sycl::detail
