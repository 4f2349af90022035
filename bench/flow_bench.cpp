// Flow maps and colour transport: whole runs, and what seeding and shuffling take of them.
#include "flow/flow.hpp"
#include "flow/particles.hpp"

#include <algorithm>

#include "support.hpp"

namespace {

using namespace tarn_bench;

std::vector<float> unit_terrain(int side) {
    std::vector<float> heights = terrain(side, side);
    const auto [lowest, highest] = std::minmax_element(heights.begin(), heights.end());
    const float least = *lowest, range = *highest - *lowest;
    for (float& height : heights)
        height = (height - least) / range;
    return heights;
}

/// The host's part before the first batch.
void seed_and_shuffle(benchmark::State& state) {
    const auto side = static_cast<std::size_t>(state.range(0));
    tarn::flow::Grid no_mask(sycl::range<2>(1, 1));
    for (auto _ : state) {
        auto particles = tarn::flow::seed_particles(no_mask, sycl::range<2>(side, side), 1);
        tarn::flow::shuffle_particles(particles, 1);
        benchmark::DoNotOptimize(particles.data());
    }
    report_cells(state, side * side, 8.0);
}
BENCHMARK(seed_and_shuffle)->Arg(512)->Arg(1024)->Arg(2048)->UseRealTime()->Unit(benchmark::kMillisecond);

/// Steps at most: those of the trails that end nowhere before.
double most_steps(int side, float flow_length) {
    const double particles = static_cast<double>(side) * side, long_trails = std::min(262144.0, particles);
    return (particles - long_trails) * 15.0 +
           long_trails * (static_cast<double>(side) * static_cast<double>(flow_length));
}

void flow_map(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const std::vector<float> heights = unit_terrain(side);
    std::vector<float> map(heights.size());
    const flow_Parameters parameters{side, side, 0.5f, 1.0f, 1};
    const auto run = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (FlowSimulation(handle(queue), heights.data(), map.data(), nullptr, &parameters, &host) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state)
        run(cpu_queue(), silent_host());
    report_cells(state, heights.size(), 32.0 * 24.0);
    state.counters["most_steps/s"] =
        benchmark::Counter(most_steps(side, parameters.flow_length) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
    if (side <= 1024)
        report_peak_memory(state, heights.size(), run);
}
BENCHMARK(flow_map)->Arg(512)->Arg(1024)->Arg(2048)->UseRealTime()->Unit(benchmark::kMillisecond);

void color_transport(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const std::vector<float> heights = unit_terrain(side);
    std::vector<float> red = heights, green = heights, blue = heights;
    color_transport_Parameters parameters{};
    parameters.width = parameters.height = side;
    parameters.flow_length = 0.5f;
    parameters.persistence = 0.5f;
    parameters.blend = 0.5f;
    parameters.spread = 1.0f;
    parameters.transport = 0.5f;
    const auto run = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (ColorTransportSimulation(handle(queue), heights.data(), red.data(), green.data(), blue.data(), nullptr,
                                     nullptr, &parameters, &host) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state)
        run(cpu_queue(), silent_host());
    report_cells(state, heights.size(), 32.0 * 52.0);
    state.counters["most_steps/s"] =
        benchmark::Counter(most_steps(side, parameters.flow_length) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
    if (side <= 1024)
        report_peak_memory(state, heights.size(), run);
}
BENCHMARK(color_transport)->Arg(512)->Arg(1024)->Arg(2048)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
