#include "hostsycl/work_group.hpp"

#include <atomic>
#include <cstddef>
#include <deque>
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
    explicit fiber_scheduler(group_execution& execution) : execution_(execution) { contexts_.emplace_back(); }

    /// What fails for want of memory fails before the item counts as having come.
    void wait_at_barrier() {
        if (arrived_ + 1 == execution_.items_) {
            open_barrier();
            return;
        }
        const bool starts_items = ready_.empty() && execution_.next_item < execution_.items_;
        const std::size_t fiber = starts_items ? make_fiber() : none;
        ++arrived_;
        append(waiting_, current_);
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

    struct stack_of_items {
        boost::context::fiber suspended;
        std::size_t next = none;
        watched_stack watched;
    };

    void open_barrier() {
        arrived_ = 0;
        while (!waiting_.empty())
            append(ready_, take(waiting_));
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

    /// A context that can go on. If there is none, some items of the group have ended and the others wait for them,
    /// which SYCL does not allow; rather than hang, the barrier opens.
    std::size_t take_ready() {
        if (ready_.empty())
            open_barrier();
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
        watch_fiber(contexts_[number].watched, static_cast<const std::byte*>(stack.sp) - stack.size, stack.size);
        return number;
    }

    void switch_to(std::size_t target) {
        const std::size_t self = current_;
        previous_ = self;
        begin_switch(contexts_[self].watched, contexts_[target].watched, false);
        boost::context::fiber next = std::move(contexts_[target].suspended);
        arrive(self, std::move(next).resume());
    }

    /// On the stack of context `self`, which has just been switched to from context `previous_`.
    void arrive(std::size_t self, boost::context::fiber&& from) {
        const bool has_ended = !from;
        end_switch(contexts_[previous_].watched, contexts_[self].watched, has_ended);
        if (has_ended)
            append(unused_, previous_);
        else
            contexts_[previous_].suspended = std::move(from);
        current_ = self;
    }

    /// The end of a fiber: where to go on.
    boost::context::fiber leave(std::size_t self) {
        const std::size_t next = execution_.finished == execution_.items_ ? 0 : take_ready();
        previous_ = self;
        begin_switch(contexts_[self].watched, contexts_[next].watched, true);
        return std::move(contexts_[next].suspended);
    }

    group_execution& execution_;
    // References to contexts must stay valid while more are made.
    std::deque<stack_of_items> contexts_;
    context_list unused_;
    context_list ready_;
    context_list waiting_;
    std::size_t arrived_ = 0;
    std::size_t current_ = 0;
    std::size_t previous_ = 0;
};

group_execution::~group_execution() {
    delete scheduler_;
}

void group_execution::wait_at_barrier() {
    if (scheduler_ == nullptr)
        scheduler_ = new fiber_scheduler(*this);
    scheduler_->wait_at_barrier();
}

void group_execution::wait_for_items() {
    scheduler_->wait_for_items();
}

} // namespace sycl::detail
