// Stamps: cells of stamps per second, with stamps of several sizes that cover the grid four times over.
#include "support.hpp"

namespace {

using namespace tarn_bench;

void stamp_populate(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const auto stamp_side = static_cast<int>(state.range(1));
    const std::vector<float> ground = terrain(side, side), stamps = terrain(stamp_side, stamp_side);
    std::vector<stamp_instancer_Instance> instances;
    std::uint32_t random = 1;
    const int count = 4 * side * side / (stamp_side * stamp_side);
    for (int n = 0; n < count; ++n) {
        stamp_instancer_Instance instance{};
        for (float* coordinate : {&instance.position.x, &instance.position.y}) {
            random = random * 1664525u + 1013904223u;
            *coordinate = static_cast<float>(random >> 8) * 0x1p-24f * static_cast<float>(side);
        }
        instances.push_back(instance);
    }
    const stamp_instancer_Parameters parameters{side, side, stamp_side, stamp_side, stamp_side, stamp_side, count};
    std::vector<float> heights, ids(ground.size());
    const auto populate = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (StampInstancer_Populate(handle(queue), heights.data(), ids.data(), stamps.data(), instances.data(),
                                    &parameters, &host) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state) {
        state.PauseTiming();
        heights = ground;
        state.ResumeTiming();
        populate(cpu_queue(), silent_host());
    }
    report_peak_memory(state, ground.size(), populate);
    // Of each stamped cell the stamp and the height are read; height and id are written where it is higher.
    report_cells(state, instances.size() * static_cast<std::size_t>(stamp_side * stamp_side), 16.0);
}
BENCHMARK(stamp_populate)
    ->ArgsProduct({{256, 512, 1024, 2048}, {16, 64}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
