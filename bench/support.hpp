// What the benchmarks share: the queue, the copy bandwidth that figures are held against, and the counters.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include <benchmark/benchmark.h>
#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

namespace tarn_bench {

inline sycl::queue& cpu_queue() {
    static sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
    return queue;
}

inline SyclQueue* handle(sycl::queue& queue) {
    return reinterpret_cast<SyclQueue*>(&queue);
}

/// Seconds that a plain copy kernel over `cells` floats takes on all cores; best of many, measured once for each size.
double copy_seconds(std::size_t cells);

/// Adds cells per second, nanoseconds per cell, the bytes that have to move per cell, and how many times the time of a
/// copy of as many bytes the work took ("x_copy": 1 is the bandwidth limit). `rounds` is how often each iteration of
/// the benchmark goes over the grid.
void report_cells(benchmark::State& state, std::size_t cells, double bytes_per_cell, double rounds = 1.0);

/// Adds "peak_B/cell": the device memory that a run takes at its peak, measured on a simulated GPU of its own memory,
/// so copies of the caller's grids count. Not reported under other SYCL implementations, which do not count.
using Computation = std::function<void(sycl::queue&, const HostCallbacks&)>;
void report_peak_memory(benchmark::State& state, std::size_t cells, const Computation& run);

/// A terrain with features at every scale, heights in cells.
std::vector<float> terrain(int width, int height);

/// A host that listens to nothing.
const HostCallbacks& silent_host();

} // namespace tarn_bench
