#include "device/progress_tracker.hpp"

#include "device/host_pinned_memory_pool.hpp"

namespace tarn {

ProgressTracker::ProgressTracker(const HostCallbacks& record, sycl::queue& caller_queue)
    : callbacks(record), progress(record.progress), queue(caller_queue), queue_ref(&caller_queue) {
    progress(0.0);
}

ProgressTracker::~ProgressTracker() {
    try {
        release_pinned_pools(queue);
    } catch (...) {
        // A driver that refuses to free host memory has nobody to tell here; the run's own errors have been reported.
    }
}

void ProgressTracker::add_total(double work) {
    total_work += work;
    next_report = total_work * report_step;
}

void ProgressTracker::add(double work) {
    done_work += work;
    if (done_work < next_report) {
        ask();
        return;
    }
    next_report += report_step;
    queue_ref->wait_and_throw();
    progress(done_work * 100.0 / total_work);
    ask_now();
}

bool ProgressTracker::ask() {
    constexpr auto patience = std::chrono::milliseconds(100);
    if (!cancelled && std::chrono::steady_clock::now() - last_question_ >= patience) {
        queue_ref->wait_and_throw();
        ask_now();
    }
    return cancelled;
}

void ProgressTracker::ask_now() {
    if (callbacks.is_cancelled())
        cancelled = true;
    last_question_ = std::chrono::steady_clock::now();
}

} // namespace tarn
