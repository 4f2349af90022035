// Launches, copies and the resampling kernels.
#include "grid/resampling.hpp"

#include <algorithm>
#include <chrono>

#include "grid/launch_cells.hpp"
#include "grid/numeric.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_bench;

resampling::Grid grid(int width, int height) {
    const std::vector<float> cells = terrain(width, height);
    resampling::Grid result(Extent<2>(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)),
                            cpu_queue());
    std::copy(cells.begin(), cells.end(), result.data());
    return result;
}

/// What a small kernel costs from submission to completion; the counter is the median of single launches.
void launch(benchmark::State& state) {
    const auto side = static_cast<std::size_t>(state.range(0));
    std::vector<float> cells(side * side, 1.0f);
    std::vector<double> times;
    for (auto _ : state) {
        const auto before = std::chrono::steady_clock::now();
        cpu_queue()
            .parallel_for(sycl::range<2>(side, side),
                          [data = cells.data(), side](sycl::id<2> i) { data[i[0] * side + i[1]] += 1.0f; })
            .wait();
        times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count());
    }
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
    state.counters["median_s"] = times[times.size() / 2];
}
BENCHMARK(launch)->Arg(1)->Arg(16)->Arg(64)->Arg(128)->Arg(256);

void copy(benchmark::State& state) {
    const auto cells = static_cast<std::size_t>(state.range(0) * state.range(0));
    for (auto _ : state)
        state.SetIterationTime(copy_seconds(cells));
    state.counters["B/s"] = 8.0 * static_cast<double>(cells) / copy_seconds(cells);
}
BENCHMARK(copy)->Arg(256)->Arg(512)->Arg(1024)->Arg(2048)->Arg(8192)->UseManualTime()->Iterations(1);

void downsample_magic(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    resampling::Grid source = grid(side, side), destination = resampling::downsample_magic(source);
    for (auto _ : state) {
        resampling::downsample_magic(destination, source);
        cpu_queue().wait();
    }
    report_cells(state, source.size(), 5.0); // four bytes read, and a quarter of a cell written
}
BENCHMARK(downsample_magic)->Arg(256)->Arg(512)->Arg(1024)->Arg(2048)->UseRealTime();

void upsample_magic(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    resampling::Grid source = grid(side / 2, side / 2);
    for (auto _ : state) {
        benchmark::DoNotOptimize(resampling::upsample_magic(source).data());
        cpu_queue().wait();
    }
    report_cells(state, 4 * source.size(), 5.0);
}
BENCHMARK(upsample_magic)->Arg(1024)->UseRealTime();

/// A 3 x 3 stencil through the launch that the simulations use.
void stencil(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    sycl::queue& queue = cpu_queue();
    const resampling::Grid source = grid(side, side), destination(source.extent(), queue);
    for (auto _ : state) {
        launch_cells(launch_on(queue), source.extent(), 1,
                     [=, in = source.data(), out = destination.data()](int x, int y, auto interior) {
                         const int l = interior ? x - 1 : maximum(x - 1, 0);
                         const int r = interior ? x + 1 : minimum(x + 1, side - 1);
                         const float* up = in + static_cast<std::ptrdiff_t>(maximum(y - 1, 0)) * side;
                         const float* middle = in + static_cast<std::ptrdiff_t>(y) * side;
                         const float* down = in + static_cast<std::ptrdiff_t>(minimum(y + 1, side - 1)) * side;
                         out[static_cast<std::ptrdiff_t>(y) * side + x] =
                             (up[l] + up[x] + up[r] + middle[l] + middle[x] + middle[r] + down[l] + down[x] + down[r]) *
                             0.11111111f;
                     });
        queue.wait();
    }
    report_cells(state, source.size(), 8.0);
}
BENCHMARK(stencil)->Arg(64)->Arg(256)->Arg(512)->Arg(1024)->Arg(2048)->UseRealTime();

} // namespace
