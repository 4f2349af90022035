// The median filter: one pass at each radius.
#include "support.hpp"

namespace {

using namespace tarn_bench;

/// No peak memory: the kernel for GPUs sorts 256 entries in each cell, which a simulated one would be long about.
void median_pass(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    std::vector<float> cells = terrain(side, side);
    // Two passes a call, so that no copy back from the scratch buffer is in the figure.
    const median_filter_Parameters parameters{static_cast<std::uint32_t>(side), static_cast<int>(state.range(1)), 2u};
    for (auto _ : state)
        MedianFilter(handle(cpu_queue()), cells.data(), &parameters);
    report_cells(state, cells.size(), 8.0, 2.0);
}
BENCHMARK(median_pass)->ArgsProduct({{256, 512, 1024, 2048}, {1, 3, 8}})->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
