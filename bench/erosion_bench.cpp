// Hydraulic erosion: rounds of particles on a single level, the shaping alone, and whole runs.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "support.hpp"

namespace {

using namespace tarn_bench;

/// The options of the tool's defaults.
parallel_erosion_Parameters parameters(int side, float feature_size, float iterations) {
    parallel_erosion_Parameters p{};
    p.Resolution = {static_cast<std::uint32_t>(side), static_cast<std::uint32_t>(side)};
    p.terrain_size = static_cast<float>(side);
    p.terrain_height = 1.0f;
    p.feature_size = feature_size;
    p.iterations = iterations;
    p.seed = 1;
    p.erosion_strength = 0.5f;
    p.shaping_strength = 0.5f;
    p.shaping_sharpness = 0.5f;
    p.fill_slope_scale = 1.0f;
    p.fill_angle = 20.0f;
    p.plain_deposition = 0.2f;
    p.plain_angle = 8.0f;
    return p;
}

/// Features of four cells ask for exactly one level, of full weight.
constexpr float one_level = 4.0f;

struct Grids {
    explicit Grids(std::size_t cells) : height(cells), flow(cells), sediment(cells), wear(cells) {}
    std::vector<float> height, flow, sediment, wear;
};

void erode(benchmark::State& state, sycl::queue& queue, const HostCallbacks& host, Grids& grids,
           const parallel_erosion_Parameters& p, const std::vector<float>* spawn_map = nullptr) {
    if (ParallelErosionSimulation(handle(queue), grids.height.data(),
                                  spawn_map != nullptr ? spawn_map->data() : nullptr, grids.flow.data(),
                                  grids.sediment.data(), nullptr, grids.wear.data(), &p, &host) != status_ok)
        state.SkipWithError("refused");
}

/// Times runs over `input`. The particle steps of one run.
double run(benchmark::State& state, const std::vector<float>& input, const parallel_erosion_Parameters& p,
           const std::vector<float>* spawn_map = nullptr) {
    Grids grids(input.size());
    for (auto _ : state) {
        state.PauseTiming();
        grids.height = input;
        state.ResumeTiming();
        erode(state, cpu_queue(), silent_host(), grids, p, spawn_map);
    }
    // Every step is a visit, and 1000 of them make 1.0.
    return std::accumulate(grids.flow.begin(), grids.flow.end(), 0.0) * 1000.0;
}

void report_rounds(benchmark::State& state, double rounds) {
    state.counters["s/round"] = benchmark::Counter(rounds * static_cast<double>(state.iterations()),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

/// Rounds of particles without shaping. What stands before and after them is in the figure too.
void erosion_rounds(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const float rounds = std::max(16.0f, 4096.0f / static_cast<float>(side));
    parallel_erosion_Parameters p = parameters(side, one_level, rounds);
    p.shaping_strength = 0.0f;
    const double steps = run(state, terrain(side, side), p);
    report_rounds(state, static_cast<double>(rounds));
    state.counters["steps/s"] =
        benchmark::Counter(steps * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["steps/round"] = steps / static_cast<double>(rounds);
}
BENCHMARK(erosion_rounds)->RangeMultiplier(2)->Range(16, 2048)->UseRealTime()->Unit(benchmark::kMillisecond);

/// Rounds of shaping: on flat ground particles end where they are born. With a map of zeros none is born.
template <bool with_reach>
void erosion_shaping(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    constexpr float rounds = 64.0f;
    const std::vector<float> flat(static_cast<std::size_t>(side) * static_cast<std::size_t>(side), 1.0f);
    const std::vector<float> zeros(flat.size(), 0.0f);
    run(state, flat, parameters(side, one_level, rounds), with_reach ? &zeros : nullptr);
    report_rounds(state, static_cast<double>(rounds));
    // Heights read, wear updated, change written; heights updated by the change. With reach: reach updated by flow; the
    // same read and the next one written.
    report_cells(state, flat.size(), 4.0 * (4 + 3 + (with_reach ? 5 : 0)), static_cast<double>(rounds));
}
BENCHMARK(erosion_shaping<false>)->RangeMultiplier(2)->Range(64, 2048)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(erosion_shaping<true>)->RangeMultiplier(2)->Range(64, 2048)->UseRealTime()->Unit(benchmark::kMillisecond);

void erosion_run(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const parallel_erosion_Parameters p = parameters(side, static_cast<float>(side) * 0.25f, 200.0f);
    const std::vector<float> input = terrain(side, side);
    run(state, input, p);
    report_peak_memory(state, input.size(), [&](sycl::queue& queue, const HostCallbacks& host) {
        Grids grids(input.size());
        grids.height = input;
        erode(state, queue, host, grids, p);
    });
}
BENCHMARK(erosion_run)->Arg(256)->Arg(512)->Arg(1024)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
