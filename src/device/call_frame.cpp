#include "device/call_frame.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>

#include "device/backend.hpp"
#include "device/host_pinned_memory_pool.hpp"
#include "device/processor.hpp"

namespace tarn {

namespace {

constexpr std::uint64_t smallest_acquisition = 0x4000000; // 64 MiB
constexpr std::uint64_t probe_reserve = 0x10000000;       // 256 MiB

/// What the host is told that the run takes. On a discrete GPU the grids lie in memory that is not the host's.
std::uint64_t acquired_bytes(const sycl::device& device, std::uint64_t need) {
    return is_discrete_gpu(device) ? smallest_acquisition : std::max(need, smallest_acquisition);
}

/// Shortest text that reads back as the same number.
std::string number_text(double value) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof(text), value).ptr;
    return {text, end};
}

/// Calls acquire_memory now and release_memory at its end, however the run ends.
class AcquiredMemory {
  public:
    AcquiredMemory(const HostCallbacks& callbacks, std::uint64_t bytes)
        : release_(callbacks.release_memory), bytes_(static_cast<std::size_t>(bytes)) {
        callbacks.acquire_memory(bytes_);
    }
    ~AcquiredMemory() noexcept(false) { release_(bytes_); }
    AcquiredMemory(const AcquiredMemory&) = delete;
    AcquiredMemory& operator=(const AcquiredMemory&) = delete;

  private:
    decltype(HostCallbacks::release_memory) release_;
    std::size_t bytes_;
};

/// Time in ticks of 100 ns, and their number in a millisecond.
using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
constexpr double milliseconds_per_tick = 1000.0 / 10'000'000.0;

std::int64_t ticks_now() {
    return std::chrono::duration_cast<Ticks>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// The work and everything after it up to the status: what stands inside the barrier where there is one.
std::uint32_t run_work(const ExportFrame& frame, sycl::queue& queue, const ModuleCallbacks& module,
                       const std::function<bool()>& work) {
    const std::int64_t start = frame.logs_execution_time ? ticks_now() : 0;
    const bool cancelled = work();
    if (frame.final_wait == FinalWait::throwing)
        queue.wait_and_throw();
    else if (frame.final_wait == FinalWait::plain)
        queue.wait();
    if (frame.logs_execution_time) {
        const double elapsed = static_cast<double>(ticks_now() - start) * milliseconds_per_tick;
        module.log_info("Execution time: " + number_text(elapsed) + " ms");
    }
    release_pinned_pools(queue);
    if (frame.failure_shows && failure_flag)
        return status_failed;
    return frame.cancel_shows && cancelled ? status_cancelled : status_ok;
}

/// Logs the line that `text` makes, or, where memory for it has run out too, one that needs none.
template <class Text>
void log_failure(const ModuleCallbacks& module, const Text& text) {
    std::string line;
    try {
        line = text();
    } catch (...) {
        module.log_error("Error: out of memory");
        return;
    }
    module.log_error(line);
}

void log_device_failure(const ModuleCallbacks& module, const char* what, sycl::queue& queue,
                        const std::exception& error) {
    log_failure(module, [&] {
        return what + device_display_name(queue) + " (" + backend_name(queue.get_device()) + "): " + error.what();
    });
}

std::uint32_t run_behind_barrier(const ExportFrame& frame, sycl::queue& queue, const ModuleCallbacks& module,
                                 const std::function<bool()>& work) {
    try {
        return run_work(frame, queue, module, work);
    } catch (const sycl::exception& error) {
        if (error.code() == sycl::make_error_code(sycl::errc::memory_allocation)) {
            log_device_failure(module, "Memory allocation error on device ", queue, error);
            return status_out_of_memory;
        }
        log_device_failure(module, "Runtime error on device ", queue, error);
    } catch (const std::exception& error) {
        log_failure(module, [&] { return std::string("Error: ") + error.what(); });
    } catch (...) {
        module.log_error("Unknown exception occurred.");
    }
    return status_failed;
}

} // namespace

std::uint32_t run_in_frame(const ExportFrame& frame, sycl::queue& queue, ModuleCallbacks& module,
                           const HostCallbacks* callbacks, std::uint64_t need, const std::function<bool()>& work) {
    if (frame.probe && !is_memory_sufficient(queue, need))
        return status_out_of_memory;

    const std::uint64_t acquired = acquired_bytes(queue.get_device(), need);
    if (callbacks != nullptr)
        module.set(*callbacks);
    const auto run = [&] {
        failure_flag = false;
        return frame.barrier ? run_behind_barrier(frame, queue, module, work) : run_work(frame, queue, module, work);
    };
    if (!frame.acquire)
        return run();
    const AcquiredMemory memory(*callbacks, acquired);
    return run();
}

bool is_memory_sufficient(sycl::queue& queue, std::uint64_t need) {
    if (queue.get_device().is_cpu())
        return true;
    allocation_probe_active = true;
    void* trial = nullptr;
    try {
        trial = sycl::malloc_device(static_cast<std::size_t>(need + probe_reserve), queue);
        queue.throw_asynchronous();
    } catch (const std::exception&) {
        queue.throw_asynchronous();
        if (trial != nullptr)
            sycl::free(trial, queue);
        return false;
    }
    if (trial == nullptr)
        return false;
    sycl::free(trial, queue);
    return true;
}

void handle_asynchronous_errors(const sycl::exception_list& errors) {
    if (allocation_probe_active) {
        allocation_probe_active = false;
        return;
    }
    for (const std::exception_ptr& error : errors) {
        try {
            std::rethrow_exception(error);
        } catch (const sycl::exception& caught) {
            device_callbacks.log_error(std::string("Caught asynchronous SYCL exception: ") + caught.what());
            failure_flag = true;
        }
    }
}

std::string device_display_name(sycl::queue& queue) {
    const auto name = queue.get_device().get_info<sycl::info::device::name>();
    return name == "hipSYCL OpenMP host device" ? processor_brand() : std::string(name);
}

std::string backend_name(const sycl::device& device) {
    return backend_text(device.get_backend());
}

} // namespace tarn
