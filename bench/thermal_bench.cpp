// The thermal simulation: iterations of one level, and a whole run.
#include "support.hpp"

#include <algorithm>

namespace {

using namespace tarn_bench;

thermal_Parameters parameters(int side, float feature_size, float duration) {
    thermal_Parameters p{};
    p.width = p.height = side;
    p.duration = duration;
    p.erosion_rate = 40.0f;
    p.curvature_bias = 0.5f;
    p.repose_angle = 35.0f;
    p.terrain_size = static_cast<float>(side);
    p.terrain_height = 1.0f;
    p.feature_size = feature_size;
    p.absorption = 0.05f;
    return p;
}

void run(benchmark::State& state, const thermal_Parameters& p, double rounds) {
    const std::vector<float> input = terrain(p.width, p.height);
    std::vector<float> heights, depth(input.size()), wear(input.size());
    const auto weather = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (ThermalSimulation(handle(queue), heights.data(), depth.data(), wear.data(), nullptr, nullptr, &p, &host) !=
            status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state) {
        state.PauseTiming();
        heights = input;
        state.ResumeTiming();
        weather(cpu_queue(), silent_host());
    }
    // Read: heights, depth, wear; then heights, depth, falls, outflow. Written: depth, wear, falls, outflow; then
    // heights, depth.
    report_cells(state, input.size(), 4.0 * 13.0, rounds);
    report_peak_memory(state, input.size(), weather);
}

/// A pyramid of one level settles from the start: all its iterations are plain ones.
void thermal_iteration(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const double iterations = std::max(64.0, 4e6 / (static_cast<double>(side) * side));
    // A feature of two cells asks for exactly one level, of full weight.
    run(state, parameters(side, 2.0f, static_cast<float>(iterations / 2560.0)), iterations);
    state.counters["s/iteration"] = benchmark::Counter(iterations * static_cast<double>(state.iterations()),
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(thermal_iteration)
    ->Arg(16)
    ->Arg(32)
    ->Arg(64)
    ->Arg(128)
    ->Arg(256)
    ->Arg(512)
    ->Arg(1024)
    ->Arg(2048)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void thermal_run(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    run(state, parameters(side, static_cast<float>(side) / 4.0f, 0.2f), 1.0);
}
BENCHMARK(thermal_run)->Arg(256)->Arg(512)->Arg(1024)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
