// Debris: rocks sliding, pixels stamped, and whole runs.
#include "debris/debris.hpp"

#include "support.hpp"

namespace {

using namespace tarn_bench;

struct Case {
    Case(int side, std::uint32_t count, float radius) : ground(terrain(side, side)) {
        for (float& cell : ground)
            cell *= 0.05f;
        parameters.resolution = static_cast<std::uint32_t>(side);
        parameters.terrain_size = static_cast<float>(side);
        parameters.terrain_height = 1.0f;
        parameters.count = count;
        parameters.max_size = radius;
        parameters.min_size = radius * 0.25f;
        parameters.friction = 0.4f;
        parameters.restitution = 0.2f;
        parameters.draw_unmoved = 1;
        parameters.seed = 3;
    }

    tarn::debris::CallerGrids grids() { return {height.data(), rock_id.data(), coverage.data(), speed.data()}; }

    std::vector<float> ground;
    std::vector<float> height = ground, rock_id = ground, coverage = ground, speed = ground;
    debris_Parameters parameters{};
};

/// Batches that slide; nothing is drawn.
void rocks_sliding(benchmark::State& state) {
    Case c(static_cast<int>(state.range(0)), 0, 4.0f);
    tarn::debris::Debris rocks(c.parameters, cpu_queue(), silent_host(), c.grids());
    std::uint32_t seed = 1;
    for (auto _ : state) {
        rocks.place_particles(tarn::debris::batch_size, seed++);
        rocks.simulation_async(tarn::debris::batch_size);
        cpu_queue().wait();
    }
    state.counters["rocks/s"] =
        benchmark::Counter(static_cast<double>(tarn::debris::batch_size) * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate);
}
BENCHMARK(rocks_sliding)->Arg(256)->Arg(1024)->Arg(2048)->UseRealTime()->Unit(benchmark::kMillisecond);

/// Batches of rocks of the same radius, drawn where they are born.
void pixels_stamped(benchmark::State& state) {
    const auto radius = static_cast<float>(state.range(0));
    Case c(1024, 0, radius);
    c.parameters.min_size = radius;
    tarn::debris::Debris rocks(c.parameters, cpu_queue(), silent_host(), c.grids());
    std::uint32_t seed = 1;
    for (auto _ : state) {
        rocks.place_particles(tarn::debris::batch_size, seed++);
        rocks.render(tarn::debris::batch_size);
        cpu_queue().wait();
    }
    const double window = 3.0 * static_cast<double>(radius) + 1.0;
    state.counters["pixels/s"] = benchmark::Counter(window * window * static_cast<double>(tarn::debris::batch_size) *
                                                        static_cast<double>(state.iterations()),
                                                    benchmark::Counter::kIsRate);
}
BENCHMARK(pixels_stamped)->Arg(1)->Arg(4)->Arg(16)->UseRealTime()->Unit(benchmark::kMillisecond);

/// A whole run at 1024 x 1024.
void debris_run(benchmark::State& state) {
    Case c(1024, static_cast<std::uint32_t>(state.range(0)), 6.0f);
    c.parameters.favour_small = 1;
    for (auto _ : state) {
        c.height = c.ground;
        DebrisSimulation(handle(cpu_queue()), c.height.data(), c.rock_id.data(), c.coverage.data(), c.speed.data(),
                         &c.parameters, &silent_host());
    }
    state.counters["rocks/s"] = benchmark::Counter(
        static_cast<double>(state.range(0)) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    Case small(256, 1024, 6.0f);
    report_peak_memory(state, small.ground.size(), [&](sycl::queue& queue, const HostCallbacks& host) {
        DebrisSimulation(handle(queue), small.height.data(), small.rock_id.data(), small.coverage.data(),
                         small.speed.data(), &small.parameters, &host);
    });
}
BENCHMARK(debris_run)->Arg(1024)->Arg(100000)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
