#include "device/call_frame.hpp"
#include "device/progress_tracker.hpp"

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include "device/usm_ptr.hpp"
#include "simulated_gpu.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

constexpr std::size_t mebibyte = std::size_t{1} << 20;

class CallFrame : public ::testing::Test {
  protected:
    void SetUp() override {
        device_callbacks.set(host.callbacks());
        failure_flag = false;
        allocation_probe_active = false;
    }

    void TearDown() override { device_callbacks.set(HostCallbacks{}); }

    std::uint32_t run(
        const ExportFrame& frame, sycl::queue& queue, std::uint64_t need,
        const std::function<bool()>& work = [] { return false; }) {
        const HostCallbacks record = host.callbacks();
        return call_frame(frame, queue, module, &record, need, work);
    }

    sycl::queue cpu = library_queue(sycl::device(sycl::cpu_selector_v));
    RecordingHost host;
    ModuleCallbacks module;
    const ExportFrame& plain = frames::dune_simulation;
    const ExportFrame& cancellable = frames::thermal_simulation;
};

TEST_F(CallFrame, ProbeKeepsAReserveOf256MiB) {
    SimulatedGpu gpu(discrete_gpu(1024 * mebibyte));
    EXPECT_EQ(run(cancellable, gpu.queue, 768 * mebibyte), status_ok);
    const auto calls = host.acquired.size();
    EXPECT_EQ(run(cancellable, gpu.queue, 768 * mebibyte + 1), status_out_of_memory);
    EXPECT_EQ(host.acquired.size(), calls); // refused before the host heard of it
    EXPECT_TRUE(host.errors.empty());
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
    // A CPU is not asked.
    EXPECT_EQ(run(cancellable, cpu, std::uint64_t{1} << 60), status_ok);
}

TEST_F(CallFrame, AcquiredMemoryDependsOnTheKindOfDevice) {
    SimulatedGpu discrete, integrated(integrated_gpu());
    for (const std::size_t need : {std::size_t{1}, 64 * mebibyte, 100 * mebibyte}) {
        for (sycl::queue* queue : {&discrete.queue, &integrated.queue, &cpu})
            EXPECT_EQ(run(plain, *queue, need), status_ok);
        const std::size_t expected = std::max(need, 64 * mebibyte);
        EXPECT_EQ(host.acquired, (std::vector<std::size_t>{64 * mebibyte, expected, expected}));
        EXPECT_EQ(host.released, host.acquired);
        host.acquired.clear();
        host.released.clear();
    }
}

TEST_F(CallFrame, ExceptionsBecomeAStatusAndOneLine) {
    SimulatedGpu gpu(discrete_gpu());
    struct Case {
        std::function<void()> raise;
        std::uint32_t status;
        std::string line;
    };
    const std::vector<Case> cases = {
        {[] { throw sycl::exception(sycl::make_error_code(sycl::errc::memory_allocation), "none left"); },
         status_out_of_memory, "Memory allocation error on device Discrete GPU (Level Zero): none left"},
        {[] { throw sycl::exception(sycl::make_error_code(sycl::errc::kernel), "lost"); }, status_failed,
         "Runtime error on device Discrete GPU (Level Zero): lost"},
        {[] { throw std::runtime_error("not triangulation"); }, status_failed, "Error: not triangulation"},
        {[] { throw 42; }, status_failed, "Unknown exception occurred."},
    };
    for (const Case& failure : cases) {
        host.errors.clear();
        EXPECT_EQ(run(cancellable, gpu.queue, 1,
                      [&] {
                          failure.raise();
                          return true;
                      }),
                  failure.status);
        EXPECT_EQ(host.errors, std::vector<std::string>{failure.line});
    }
    EXPECT_EQ(host.acquired.size(), cases.size());
    EXPECT_EQ(host.released, host.acquired);
}

TEST_F(CallFrame, ExportsWithoutABarrierLetExceptionsPassAndAlwaysEndWell) {
    for (const ExportFrame* frame : {&frames::debris_simulation, &frames::median_filter}) {
        EXPECT_THROW(run(*frame, cpu, 0, []() -> bool { throw std::runtime_error("out"); }), std::runtime_error);
        EXPECT_EQ(run(*frame, cpu, 0,
                      [] {
                          failure_flag = true;
                          return true;
                      }),
                  status_ok);
    }
    EXPECT_TRUE(host.acquired.empty());
    EXPECT_TRUE(host.errors.empty());
}

TEST_F(CallFrame, CancelShowsOnlyWhereTheExportSaysSo) {
    const auto cancelled = [] {
        return true;
    };
    EXPECT_EQ(run(cancellable, cpu, 0, cancelled), status_cancelled);
    EXPECT_EQ(run(frames::shade, cpu, 0, cancelled), status_cancelled);
    EXPECT_EQ(run(plain, cpu, 0, cancelled), status_ok);
    EXPECT_EQ(run(frames::thermal_shaper_process, cpu, 0, cancelled), status_ok);
    EXPECT_EQ(host.released, host.acquired);
}

TEST_F(CallFrame, AsynchronousErrorFailsTheRunEvenWhenCancelled) {
    SimulatedGpu gpu;
    const auto one_kernel = [&] {
        const usm_ptr<float, 1> data(sycl::range<1>(1), gpu.queue); // ends the probe's tolerance
        gpu.queue.single_task([] {});
        return true;
    };
    gpu.device.raise_asynchronous_error(1, "page fault");
    EXPECT_EQ(run(cancellable, gpu.queue, 1, one_kernel), status_failed);
    EXPECT_EQ(host.errors, std::vector<std::string>{"Caught asynchronous SYCL exception: page fault"});
    EXPECT_EQ(run(cancellable, gpu.queue, 1, one_kernel), status_cancelled); // nothing is left of it
    EXPECT_EQ(host.released, host.acquired);
}

TEST_F(CallFrame, ErrorsOfATolerantAllocationAreDropped) {
    SimulatedGpu gpu;
    const auto one_kernel = [&] {
        gpu.queue.single_task([] {});
        return false;
    };
    // After a successful probe the first delivery is still taken for the probe's, the next one is not.
    gpu.device.raise_asynchronous_error(1, "late");
    EXPECT_EQ(run(plain, gpu.queue, 1, one_kernel), status_ok);
    EXPECT_TRUE(host.errors.empty());
    gpu.device.raise_asynchronous_error(1, "late");
    EXPECT_EQ(run(plain, gpu.queue, 1,
                  [&] {
                      one_kernel();
                      gpu.queue.throw_asynchronous();
                      gpu.device.raise_asynchronous_error(1, "later");
                      return one_kernel();
                  }),
              status_failed);
    EXPECT_EQ(host.errors, std::vector<std::string>{"Caught asynchronous SYCL exception: later"});
}

TEST_F(CallFrame, ForeignAsynchronousErrorsReachTheBarrier) {
    SimulatedGpu gpu;
    gpu.device.raise_asynchronous_error(1, std::make_exception_ptr(std::logic_error("foreign")));
    EXPECT_EQ(run(plain, gpu.queue, 1,
                  [&] {
                      const usm_ptr<float, 1> data(sycl::range<1>(1), gpu.queue);
                      gpu.queue.single_task([] {});
                      return false;
                  }),
              status_failed);
    EXPECT_EQ(host.errors, std::vector<std::string>{"Error: foreign"});
}

TEST_F(CallFrame, DunesAloneLogTheirTime) {
    EXPECT_EQ(run(frames::dune_simulation, cpu, 0), status_ok);
    ASSERT_EQ(host.infos.size(), 1u);
    EXPECT_EQ(host.infos[0].rfind("Execution time: ", 0), 0u);
    EXPECT_EQ(host.infos[0].substr(host.infos[0].size() - 3), " ms");
    EXPECT_EQ(run(frames::thermal_simulation, cpu, 0), status_ok);
    EXPECT_EQ(host.infos.size(), 1u);
}

TEST_F(CallFrame, ProgressIsReportedEveryFurtherFractionOfAUnit) {
    ProgressTracker tracker(host.callbacks(), cpu);
    EXPECT_EQ(host.progress, std::vector<double>{0.0});
    tracker.add_total(60.0);
    tracker.add_total(40.0);
    tracker.add(4.0); // below 5 % of the work
    EXPECT_EQ(host.progress.size(), 1u);
    for (int i = 0; i < 3; ++i)
        tracker.add(1.0); // from 5 % on, every step of more than 0.05 units reports
    EXPECT_EQ(host.progress, (std::vector<double>{0.0, 5.0, 6.0, 7.0}));
    EXPECT_EQ(host.cancel_questions, 3);
    EXPECT_FALSE(tracker.cancelled);
    host.cancel_at = 4;
    tracker.add(1.0);
    EXPECT_TRUE(tracker.cancelled);

    // Reports fall due 0.05 units after one another, not after 5 % of the work.
    ProgressTracker fine(host.callbacks(), cpu);
    host.progress.clear();
    fine.add_total(0.5);
    for (int i = 0; i < 64; ++i)
        fine.add(0.5 / 64.0);
    EXPECT_EQ(host.progress.size(), 10u);
    EXPECT_EQ(host.progress.front(), 6.25);

    // Before the first report too the host is asked now and then.
    ProgressTracker slow(host.callbacks(), cpu);
    slow.add_total(1e9);
    EXPECT_FALSE(slow.ask());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    slow.add(1.0);
    EXPECT_TRUE(slow.cancelled);
}

TEST_F(CallFrame, ThrowingCallbacksAreMetByTheBarrier) {
    HostCallbacks record = host.callbacks();
    record.is_cancelled = []() -> bool {
        throw std::runtime_error("host gave up");
    };
    EXPECT_EQ(call_frame(cancellable, cpu, module, &record, 0,
                         [&] {
                             ProgressTracker tracker(record, cpu);
                             tracker.add_total(1.0);
                             tracker.add(1.0);
                             return tracker.cancelled;
                         }),
              status_failed);
    EXPECT_EQ(host.errors, std::vector<std::string>{"Error: host gave up"});
    EXPECT_EQ(host.released, host.acquired);
}

} // namespace
