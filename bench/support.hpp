// What the benchmarks share: the queue, the copy bandwidth that figures are held against, and the counters.
#pragma once

#include <cstddef>
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

/// A terrain with features at every scale, heights in cells.
std::vector<float> terrain(int width, int height);

/// A host that listens to nothing.
const HostCallbacks& silent_host();

} // namespace tarn_bench
