// The dunes: the blur's half passes, and rounds of a run.
#include "grid/blur.hpp"

#include <algorithm>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_bench;

template <bool straight>
void blur_half_pass(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    std::vector<float> source = terrain(side, side), destination(source.size());
    for (auto _ : state) {
        blur::detail::fastblur_half_pass<true, straight>(cpu_queue(), source.data(), destination.data(), side, 12.0f);
        cpu_queue().wait();
    }
    report_cells(state, source.size(), 8.0);
}
BENCHMARK(blur_half_pass<true>)->Arg(256)->Arg(512)->Arg(1000)->Arg(1024)->Arg(2048)->UseRealTime();
BENCHMARK(blur_half_pass<false>)->Arg(256)->Arg(512)->Arg(1000)->Arg(1024)->Arg(2048)->UseRealTime();

/// Rounds in each run; what stands before and after them is in the figure too.
constexpr int rounds = 16;

/// The least that a round has to move, each grid read or written once a kernel: four passes of the blur, the wind, the
/// shelter, the grains' flights and their landings, and two sweeps of avalanches.
constexpr double bytes_per_round = 4.0 * (4 * 2 + 3 + 6 + 6 + 6 + 4 + 4);

void run(benchmark::State& state, float depth) {
    const auto side = static_cast<int>(state.range(0));
    arrakis_Parameters p{};
    p.width = p.height = side;
    p.duration = static_cast<float>(rounds) / 2560.0f;
    p.repose_angle = 34.0f;
    p.terrain_size = static_cast<float>(side);
    p.terrain_height = 1.0f;
    std::vector<float> ground = terrain(side, side);
    for (float& cell : ground)
        cell *= 0.05f;
    std::vector<float> height(ground.size()), sand(ground.size()), wind_trace(ground.size());
    const auto blow = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (DuneSimulation(handle(queue), height.data(), sand.data(), wind_trace.data(), &p, &host) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state) {
        state.PauseTiming();
        height = ground;
        std::fill(sand.begin(), sand.end(), depth);
        state.ResumeTiming();
        blow(cpu_queue(), silent_host());
    }
    report_cells(state, ground.size(), bytes_per_round, rounds);
    state.counters["s/round"] =
        benchmark::Counter(static_cast<double>(rounds) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    report_peak_memory(state, ground.size(), blow);
}

/// A sheet of sand half a cell deep on hills.
void dune_rounds(benchmark::State& state) {
    run(state, 0.5f);
}
BENCHMARK(dune_rounds)->Arg(16)->Arg(64)->Arg(256)->Arg(512)->Arg(1024)->UseRealTime()->Unit(benchmark::kMillisecond);

/// Without sand no grain flies.
void dune_rounds_bare(benchmark::State& state) {
    run(state, 0.0f);
}
BENCHMARK(dune_rounds_bare)->Arg(512)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
