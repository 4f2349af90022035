#include "threads.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <latch>
#include <thread>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "sanitizers.hpp"

namespace sycl::detail {

namespace {

std::size_t thread_count() {
    const std::size_t allowed = tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism);
    return std::min(allowed, static_cast<std::size_t>(std::max(1, tbb::this_task_arena::max_concurrency())));
}

/// Whether the system lets this process have `threads` threads. TBB is not asked to find out: a worker that it cannot
/// start ends the loop halfway, or the process. Until the answer has been yes the question is asked again every time,
/// since limits and other processes change.
bool can_start_workers(std::size_t threads) {
    static std::atomic<std::size_t> proven{1};
    if (threads <= proven.load(std::memory_order_relaxed))
        return true;
    std::latch all_started(1);
    std::vector<std::jthread> trial;
    bool possible = true;
    try {
        trial.reserve(threads);
        while (trial.size() + 1 < threads)
            trial.emplace_back([&] { all_started.wait(); });
    } catch (const std::exception&) {
        possible = false;
    }
    all_started.count_down();
    if (possible)
        proven.store(threads, std::memory_order_relaxed);
    return possible;
}

} // namespace

void run_parallel(piece_function function, const void* work, std::size_t begin, std::size_t end, std::size_t row,
                  double nanoseconds_per_cell) {
    const std::size_t threads = thread_count();
    if (threads == 1 || !can_start_workers(threads)) {
        function(work, begin, end);
        return;
    }
    const intervals cut(begin, end, row, nanoseconds_per_cell, threads);
    // The sanitizer cannot look into TBB: it is told that tasks begin after this point and end before the next.
    char fork = 0;
    char join = 0;
    HOSTSYCL_TSAN_RELEASE(&fork);
    const auto run_intervals = [=, &fork, &join](const tbb::blocked_range<std::size_t>& numbers) {
        HOSTSYCL_TSAN_ACQUIRE(&fork);
        function(work, cut.begin(numbers.begin()), cut.end(numbers.end()));
        HOSTSYCL_TSAN_RELEASE(&join);
    };
    // Isolated: while this thread waits it must not take up an unrelated task, which might want a buffer that this
    // command holds.
    tbb::this_task_arena::isolate(
        [&] { tbb::parallel_for(tbb::blocked_range<std::size_t>(cut.first(), cut.last()), run_intervals); });
    HOSTSYCL_TSAN_ACQUIRE(&join);
}

} // namespace sycl::detail
