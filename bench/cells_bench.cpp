// The cellular relief: cells of the grid per second, over lattices of several densities.
#include "support.hpp"

#include <algorithm>

namespace {

using namespace tarn_bench;

void cellular_render(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const auto density = static_cast<float>(state.range(1));
    std::vector<float> ground = terrain(side, side);
    const auto [lowest, highest] = std::minmax_element(ground.begin(), ground.end());
    const float least = *lowest, range = *highest - *lowest;
    for (float& cell : ground)
        cell = (cell - least) / range;
    Cellular3D_Parameters parameters{};
    parameters.grid_width = parameters.grid_height = side;
    parameters.cell_density = density;
    parameters.extent_x = parameters.extent_y = parameters.extent_z = 1.0f;
    parameters.jitter_x = parameters.jitter_y = parameters.jitter_z = 0.8f;
    parameters.z_unit = 1.0f;
    parameters.z_range = 0.3f;
    std::vector<float> heights, random(ground.size());
    const auto render = [&](sycl::queue& queue, const HostCallbacks& host) {
        Cellular3D_Parameters record = parameters;
        if (Cellular3D_Render(handle(queue), heights.data(), nullptr, random.data(), &record, &host) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state) {
        state.PauseTiming();
        heights = ground;
        state.ResumeTiming();
        render(cpu_queue(), silent_host());
    }
    report_cells(state, ground.size(), 12.0);
    const double points = static_cast<double>((density + 5.0f) * (density + 5.0f) * (0.3f * density + 5.0f));
    state.counters["points/s"] =
        benchmark::Counter(points * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    if (side <= 256)
        report_peak_memory(state, ground.size(), render);
}
BENCHMARK(cellular_render)
    ->ArgsProduct({{256, 512, 1024, 2048}, {16, 64, 256}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
