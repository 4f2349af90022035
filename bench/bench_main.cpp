#include "support.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>

#ifdef HOSTSYCL
#include <hostsycl/simulation.hpp>
#endif

namespace tarn_bench {

namespace {

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

double copy_seconds(std::size_t cells) {
    static std::map<std::size_t, double> known;
    const auto found = known.find(cells);
    if (found != known.end())
        return found->second;
    std::vector<float> source(cells, 1.0f), destination(cells, 0.0f);
    double best = 1e9;
    const double start = seconds();
    for (int round = 0; round < 20 || seconds() - start < 0.2; ++round) {
        const double before = seconds();
        cpu_queue()
            .parallel_for(sycl::range<1>(cells),
                          [from = source.data(), to = destination.data()](sycl::id<1> i) { to[i] = from[i]; })
            .wait();
        best = std::min(best, seconds() - before);
    }
    return known[cells] = best;
}

void report_cells(benchmark::State& state, std::size_t cells, double bytes_per_cell, double rounds) {
    const double total = static_cast<double>(cells) * rounds * static_cast<double>(state.iterations());
    state.counters["cells/s"] = benchmark::Counter(total, benchmark::Counter::kIsRate);
    state.counters["s/cell"] = benchmark::Counter(total, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["B/cell"] = bytes_per_cell;
    // A copy moves 8 bytes for each of its cells.
    const double limit = copy_seconds(cells) * bytes_per_cell / 8.0 * rounds;
    state.counters["x_copy"] = benchmark::Counter(limit * static_cast<double>(state.iterations()),
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void report_peak_memory([[maybe_unused]] benchmark::State& state, [[maybe_unused]] std::size_t cells,
                        [[maybe_unused]] const Computation& run) {
#ifdef HOSTSYCL
    static hostsycl::device_control* device;
    hostsycl::simulated_device_guard gpu;
    device = &gpu;
    sycl::queue queue(gpu.get(), sycl::property_list{sycl::property::queue::in_order()});
    HostCallbacks host = silent_host();
    // The trial allocation before this is no part of the run.
    host.acquire_memory = [](std::size_t) {
        device->reset_peak();
    };
    run(queue, host);
    state.counters["peak_B/cell"] = static_cast<double>(gpu.counters().peak_bytes_in_use) / static_cast<double>(cells);
#endif
}

std::vector<float> terrain(int width, int height) {
    std::vector<float> cells;
    cells.reserve(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            float sum = 0.0f;
            for (float wave = 2.0f; wave < 512.0f; wave *= 1.7f)
                sum += wave * 0.3f * std::sin(static_cast<float>(x) / wave + wave) *
                       std::cos(static_cast<float>(y) / wave - wave);
            cells.push_back(sum);
        }
    }
    return cells;
}

const HostCallbacks& silent_host() {
    static const HostCallbacks record = [] {
        HostCallbacks callbacks{};
        callbacks.progress = [](double) {
        };
        callbacks.is_cancelled = [] {
            return false;
        };
        callbacks.log_info = [](const char*) {
        };
        callbacks.log_error = [](const char*) {
        };
        callbacks.acquire_memory = [](std::size_t) {
        };
        callbacks.release_memory = [](std::size_t) {
        };
        return callbacks;
    }();
    return record;
}

} // namespace tarn_bench

BENCHMARK_MAIN();
