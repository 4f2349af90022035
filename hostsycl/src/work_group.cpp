#include "hostsycl/work_group.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <vector>

#include <boost/context/fiber.hpp>
#include <boost/context/preallocated.hpp>
#include <boost/context/stack_context.hpp>
#include <sys/mman.h>
#include <unistd.h>

#include "sanitizers.hpp"

namespace sycl::detail {

namespace {

/// Stacks of fibers. A page that faults stands below each of the first ones: such a stack takes two of the 65,530
/// mappings that a process may have by default, where stacks without the page share one.
class stack_pool {
  public:
    static constexpr std::size_t stack_bytes = std::size_t{256} << 10;
    static constexpr int most_guarded_stacks = 8192;

    ~stack_pool() {
        for (void* stack : free_)
            munmap(stack, stack_bytes);
    }

    boost::context::stack_context take() {
        void* memory = nullptr;
        if (!free_.empty()) {
            memory = free_.back();
            free_.pop_back();
        } else {
            memory = mmap(nullptr, stack_bytes, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
            if (memory == MAP_FAILED)
                throw std::bad_alloc();
            static std::atomic<int> guarded_stacks{0};
            if (guarded_stacks.fetch_add(1, std::memory_order_relaxed) < most_guarded_stacks)
                static_cast<void>(mprotect(memory, static_cast<std::size_t>(getpagesize()), PROT_NONE));
        }
        boost::context::stack_context stack;
        stack.size = stack_bytes;
        stack.sp = static_cast<std::byte*>(memory) + stack_bytes;
        return stack;
    }

    void give_back(const boost::context::stack_context& stack) noexcept {
        void* memory = static_cast<std::byte*>(stack.sp) - stack.size;
        try {
            free_.push_back(memory);
        } catch (...) {
            munmap(memory, stack_bytes);
        }
    }

  private:
    std::vector<void*> free_;
};

stack_pool& this_thread_stacks() {
    static thread_local stack_pool pool;
    return pool;
}

/// Boost.Context's view of the pool. A stack is given back by the thread that took it.
struct pooled_stack {
    boost::context::stack_context allocate() { return this_thread_stacks().take(); }
    void deallocate(boost::context::stack_context& stack) noexcept { this_thread_stacks().give_back(stack); }
};

} // namespace

/// The items of one group that have stopped, and what they wait for. All of it happens on one thread.
///
/// A context is a stack on which items run: context 0 is the thread's own, the others are fibers. A context runs items
/// until one of them stops; from then on it belongs to that item until the item has ended.
class fiber_scheduler {
  public:
    explicit fiber_scheduler(group_execution& execution)
        : execution_(execution),
          barriers_(1 + (execution.items_ + execution.sub_group_size_ - 1) / execution.sub_group_size_) {
        contexts_.emplace_back();
        barriers_[0].size = execution.items_;
        for (std::size_t i = 1; i < barriers_.size(); ++i)
            barriers_[i].size =
                std::min(execution.sub_group_size_, execution.items_ - (i - 1) * execution.sub_group_size_);
    }

    /// Barrier 0 is that of the group, 1 + i that of sub-group i. What fails for want of memory fails before the item
    /// counts as having come.
    void synchronise(std::size_t barrier_number, std::size_t rank, void* record, collective_function function) {
        barrier& meeting = barriers_[barrier_number];
        meeting.function = function;
        if (record != nullptr) {
            meeting.records.resize(meeting.size);
            meeting.records[rank] = record;
        }
        if (meeting.arrived + 1 == meeting.size) {
            open(meeting);
            return;
        }
        const bool starts_items = ready_.empty() && execution_.next_item < execution_.items_;
        const std::size_t fiber = starts_items ? make_fiber() : none;
        ++meeting.arrived;
        append(meeting.waiting, current_);
        const std::size_t next = starts_items ? fiber : take_ready();
        if (next != current_)
            switch_to(next);
    }

    /// Called on the thread's own stack when it has no items left to start: returns when all items have ended.
    void wait_for_items() {
        while (execution_.finished < execution_.items_)
            switch_to(take_ready());
    }

  private:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    /// Contexts in the order of their coming, linked by their own fields: a context is in one list at most, and moving
    /// it needs no memory.
    struct context_list {
        std::size_t first = none;
        std::size_t last = none;

        bool empty() const { return first == none; }
    };

    struct barrier {
        std::size_t size = 0;
        std::size_t arrived = 0;
        collective_function function = nullptr;
        std::vector<void*> records;
        context_list waiting;
    };

    struct stack_of_items {
        boost::context::fiber suspended;
        std::size_t next = none;
#if defined(HOSTSYCL_ADDRESS_SANITIZER)
        void* fake_stack = nullptr;
        const void* bottom = nullptr;
        std::size_t bytes = 0;
#endif
#if defined(HOSTSYCL_THREAD_SANITIZER)
        void* sanitizer_fiber = nullptr;
#endif
    };

    void open(barrier& meeting) {
        if (meeting.function != nullptr && !meeting.records.empty())
            meeting.function(meeting.records.data(), meeting.records.size());
        std::fill(meeting.records.begin(), meeting.records.end(), nullptr);
        meeting.arrived = 0;
        while (!meeting.waiting.empty())
            append(ready_, take(meeting.waiting));
    }

    void append(context_list& list, std::size_t number) {
        contexts_[number].next = none;
        (list.empty() ? list.first : contexts_[list.last].next) = number;
        list.last = number;
    }

    std::size_t take(context_list& list) {
        const std::size_t number = list.first;
        list.first = contexts_[number].next;
        return number;
    }

    /// A context that can go on. If there is none, some items of a group have ended and the others wait for them, which
    /// SYCL does not allow; rather than hang, the barriers open.
    std::size_t take_ready() {
        if (ready_.empty())
            for (barrier& meeting : barriers_)
                if (!meeting.waiting.empty())
                    open(meeting);
        return take(ready_);
    }

    std::size_t make_fiber() {
        if (unused_.empty()) {
            contexts_.emplace_back();
            append(unused_, contexts_.size() - 1);
        }
        const auto stack = this_thread_stacks().take();
        const std::size_t number = take(unused_);
        contexts_[number].suspended =
            boost::context::fiber(std::allocator_arg, boost::context::preallocated(stack.sp, stack.size, stack),
                                  pooled_stack(), [this, number](boost::context::fiber&& from) {
                                      arrive(number, std::move(from));
                                      execution_.run_items_(execution_.frame_);
                                      return leave(number);
                                  });
#if defined(HOSTSYCL_ADDRESS_SANITIZER)
        contexts_[number].fake_stack = nullptr;
        contexts_[number].bottom = static_cast<const std::byte*>(stack.sp) - stack.size;
        contexts_[number].bytes = stack.size;
#endif
#if defined(HOSTSYCL_THREAD_SANITIZER)
        contexts_[number].sanitizer_fiber = __tsan_create_fiber(0);
#endif
        return number;
    }

    void switch_to(std::size_t target) {
        const std::size_t self = current_;
        previous_ = self;
        announce_switch(target, false);
        boost::context::fiber next = std::move(contexts_[target].suspended);
        arrive(self, std::move(next).resume());
    }

    /// On the stack of context `self`, which has just been switched to from context `previous_`.
    void arrive(std::size_t self, boost::context::fiber&& from) {
#if defined(HOSTSYCL_ADDRESS_SANITIZER)
        const void* bottom = nullptr;
        std::size_t bytes = 0;
        __sanitizer_finish_switch_fiber(contexts_[self].fake_stack, &bottom, &bytes);
        contexts_[previous_].bottom = bottom;
        contexts_[previous_].bytes = bytes;
#endif
        if (from) {
            contexts_[previous_].suspended = std::move(from);
        } else {
#if defined(HOSTSYCL_THREAD_SANITIZER)
            __tsan_destroy_fiber(contexts_[previous_].sanitizer_fiber);
#endif
            append(unused_, previous_);
        }
        current_ = self;
    }

    /// The end of a fiber: where to go on.
    boost::context::fiber leave(std::size_t self) {
        const std::size_t next = execution_.finished == execution_.items_ ? 0 : take_ready();
        previous_ = self;
        announce_switch(next, true);
        return std::move(contexts_[next].suspended);
    }

    void announce_switch([[maybe_unused]] std::size_t target, [[maybe_unused]] bool for_good) {
#if defined(HOSTSYCL_ADDRESS_SANITIZER)
        __sanitizer_start_switch_fiber(for_good ? nullptr : &contexts_[previous_].fake_stack, contexts_[target].bottom,
                                       contexts_[target].bytes);
#endif
#if defined(HOSTSYCL_THREAD_SANITIZER)
        if (contexts_[previous_].sanitizer_fiber == nullptr)
            contexts_[previous_].sanitizer_fiber = __tsan_get_current_fiber();
        __tsan_switch_to_fiber(contexts_[target].sanitizer_fiber, 0);
#endif
    }

    group_execution& execution_;
    std::vector<barrier> barriers_;
    // References to contexts must stay valid while more are made.
    std::deque<stack_of_items> contexts_;
    context_list unused_;
    context_list ready_;
    std::size_t current_ = 0;
    std::size_t previous_ = 0;
};

group_execution::~group_execution() {
    delete scheduler_;
}

fiber_scheduler& group_execution::scheduler() {
    if (scheduler_ == nullptr)
        scheduler_ = new fiber_scheduler(*this);
    return *scheduler_;
}

void group_execution::synchronise_group(std::size_t item, void* record, collective_function function) {
    scheduler().synchronise(0, item, record, function);
}

void group_execution::synchronise_sub_group(std::size_t item, void* record, collective_function function) {
    scheduler().synchronise(1 + item / sub_group_size_, item % sub_group_size_, record, function);
}

void group_execution::wait_for_items() {
    scheduler().wait_for_items();
}

namespace {

struct local_arena {
    ~local_arena() { std::free(block); }

    std::byte* block = nullptr;
    std::size_t bytes = 0;
};

thread_local local_arena arena;
thread_local bool arena_in_use = false;

} // namespace

std::byte* local_memory() noexcept {
    return arena_in_use ? arena.block : nullptr;
}

local_memory_scope::local_memory_scope(std::size_t bytes) : bytes_(bytes) {
    if (bytes == 0)
        return;
    if (arena.bytes < bytes) {
        std::free(arena.block);
        arena.bytes = 0;
        arena.block = static_cast<std::byte*>(std::aligned_alloc(64, (bytes + 63) / 64 * 64));
        if (arena.block == nullptr)
            throw std::bad_alloc();
        arena.bytes = bytes;
    }
    arena_in_use = true;
}

local_memory_scope::~local_memory_scope() {
    arena_in_use = false;
}

void local_memory_scope::poison() noexcept {
    if (bytes_ > 0)
        std::memset(arena.block, 0xFF, bytes_);
}

void check_work_group(const device_impl& device, std::size_t group_size, std::size_t local_bytes) {
    if (group_size > device.max_work_group_size)
        refuse_launch("a work-group of " + std::to_string(group_size) + " exceeds the device's limit of " +
                      std::to_string(device.max_work_group_size));
    if (local_bytes > device.local_mem_size)
        throw exception(errc::memory_allocation, "a work-group needs " + std::to_string(local_bytes) +
                                                     " bytes of local memory and the device has " +
                                                     std::to_string(device.local_mem_size));
}

} // namespace sycl::detail
