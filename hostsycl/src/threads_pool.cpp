// Threads of the standard library, for platforms that oneTBB does not know: one for each core but the first, started
// with the first launch that is worth them and asleep between launches.

#include "threads.hpp"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace sycl::detail {

namespace {

/// A launch whose intervals are handed out by a counter.
class shared_loop {
  public:
    shared_loop(piece_function function, const void* work, const intervals& cut)
        : function_(function), work_(work), cut_(cut), next_(cut.first()) {}

    /// Runs intervals until none is left. What a kernel throws first ends the loop and is kept.
    void run() noexcept {
        try {
            for (std::size_t number = next_.fetch_add(1); number < cut_.last(); number = next_.fetch_add(1))
                function_(work_, cut_.begin(number), cut_.end(number + 1));
        } catch (...) {
            next_ = cut_.last();
            if (!has_failed_.exchange(true))
                error_ = std::current_exception();
        }
    }

    /// After the last thread has left the loop.
    void rethrow() const {
        if (error_)
            std::rethrow_exception(error_);
    }

    /// The pool's threads in this loop; under the pool's lock.
    std::size_t helpers = 0;

  private:
    piece_function function_;
    const void* work_;
    intervals cut_;
    std::atomic<std::size_t> next_;
    std::atomic<bool> has_failed_{false};
    std::exception_ptr error_;
};

/// A thread helps one loop until its intervals are gone, and a caller waits for nobody but the helpers of its own loop:
/// so launches from several threads and launches inside kernels get on, and nobody takes up unrelated work while it
/// holds a buffer.
class thread_pool {
  public:
    /// It stays until the process ends, since other threads may still run kernels while that happens.
    static thread_pool& instance() {
        static auto& pool = *new thread_pool;
        return pool;
    }

    std::size_t threads() const { return workers_ + 1; }

    void run(shared_loop& loop) {
        {
            const std::lock_guard lock(mutex_);
            loops_.push_back(&loop);
        }
        work_there_.notify_all();
        loop.run();
        std::unique_lock lock(mutex_);
        std::erase(loops_, &loop);
        helper_left_.wait(lock, [&] { return loop.helpers == 0; });
    }

  private:
    /// As many threads as can be had.
    thread_pool() {
        try {
            for (; workers_ + 1 < std::thread::hardware_concurrency(); ++workers_)
                std::thread([this] { help(); }).detach();
        } catch (const std::exception&) {
        }
    }

    void help() {
        std::unique_lock lock(mutex_);
        for (;;) {
            work_there_.wait(lock, [&] { return !loops_.empty(); });
            shared_loop& loop = *loops_.back();
            ++loop.helpers;
            lock.unlock();
            loop.run();
            lock.lock();
            // Nothing is left in it, for anyone.
            std::erase(loops_, &loop);
            if (--loop.helpers == 0)
                helper_left_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable work_there_;
    std::condition_variable helper_left_;
    std::vector<shared_loop*> loops_;
    std::size_t workers_ = 0;
};

} // namespace

void run_parallel(piece_function function, const void* work, std::size_t begin, std::size_t end, std::size_t row,
                  double nanoseconds_per_cell) {
    thread_pool& pool = thread_pool::instance();
    if (pool.threads() == 1) {
        function(work, begin, end);
        return;
    }
    shared_loop loop(function, work, intervals(begin, end, row, nanoseconds_per_cell, pool.threads()));
    pool.run(loop);
    loop.rethrow();
}

} // namespace sycl::detail
