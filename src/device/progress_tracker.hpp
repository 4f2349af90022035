// How a run tells the host how far it is, and asks whether to go on.
#pragma once

#include <chrono>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

namespace tarn {

/// First member of every simulation object: counts work, reports progress, asks for a cancel. Its end, the last act of
/// the object's destruction, lets the pinned pools of the run go.
class ProgressTracker {
  public:
    /// Reports 0 %.
    ProgressTracker(const HostCallbacks& record, sycl::queue& caller_queue);
    ~ProgressTracker();
    ProgressTracker(const ProgressTracker&) = delete;
    ProgressTracker& operator=(const ProgressTracker&) = delete;

    /// Plans `work` more units, before the first `add`.
    void add_total(double work);

    /// Counts `work` units as done. When a report is due it waits for the device, reports the percentage and asks
    /// whether to cancel. The first report is due after 5 % of the work; from then on every further 0.05 units make one
    /// due. Between reports it asks as `ask` does.
    void add(double work);

    /// Asks whether to cancel if the last question lies a tenth of a second back; waits for the device first. For work
    /// that takes long from one `add` to the next. Whether the run is cancelled.
    bool ask();

    HostCallbacks callbacks;
    double done_work = 0.0;
    double total_work = 0.0;
    double report_step = 0.05;
    double next_report = 0.0;
    decltype(HostCallbacks::progress) progress;
    sycl::queue queue;
    sycl::queue* queue_ref;
    bool cancelled = false;

  private:
    void ask_now();

    std::chrono::steady_clock::time_point last_question_ = std::chrono::steady_clock::now();
};

} // namespace tarn
