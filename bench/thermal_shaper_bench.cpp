// The thermal shaper: one level's iterations, and a whole run.
#include "support.hpp"

#include <cmath>

namespace {

using namespace tarn_bench;

thermal_shaper_Parameters parameters(int side, float ratio) {
    thermal_shaper_Parameters p{};
    p.width = p.height = side;
    p.level_divisor = 1.0f;
    p.scale_numerator = static_cast<float>(side);
    p.level_multiplier = ratio / static_cast<float>(side);
    p.blend = 1.0f;
    p.rate = -0.5f;
    p.detail_gain = 1.0f;
    return p;
}

void run(benchmark::State& state, const thermal_shaper_Parameters& p, double bytes_per_cell, double rounds) {
    const std::vector<float> input = terrain(p.width, p.height);
    std::vector<float> cells = input;
    const auto shape = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (ThermalShaper_Process(handle(queue), cells.data(), nullptr, &p, &host) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state) {
        state.PauseTiming();
        cells = input;
        state.ResumeTiming();
        shape(cpu_queue(), silent_host());
    }
    report_cells(state, input.size(), bytes_per_cell, rounds);
    report_peak_memory(state, input.size(), shape);
}

/// A single level with 64 iterations but for a little: the time of the copies around them is in the figure.
void shaper_iteration(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    constexpr float ratio = 1.99f;
    const double levels = std::tanh(std::log2(ratio) - 1.0f) + 1.0f;
    run(state, parameters(side, ratio), 8.0, std::ceil(64.0 * levels));
}
BENCHMARK(shaper_iteration)->Arg(256)->Arg(512)->Arg(1024)->Arg(2048)->UseRealTime()->Unit(benchmark::kMillisecond);

void shaper_run(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    run(state, parameters(side, 0.4f * static_cast<float>(side)), 8.0, 1.0);
}
BENCHMARK(shaper_run)->Arg(256)->Arg(512)->Arg(1024)->Arg(2048)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
