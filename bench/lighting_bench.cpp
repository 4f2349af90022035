// Lighting: the sweeps alone, a whole picture, and a year of sunlight.
#include "support.hpp"

#include <string>

#include <tbb/global_control.h>

#include "device/usm_ptr.hpp"
#include "lighting/lighting.hpp"

namespace {

using namespace tarn;
using namespace tarn_bench;
using namespace tarn::lighting;

Parameters parameters(int side) {
    Parameters p{};
    p.resolution = {side, side};
    p.terrain_size = static_cast<float>(side);
    p.terrain_height = 1.0f;
    p.sun_direction[0] = -0.5f;
    p.sun_direction[1] = -0.6244998f;
    p.sun_direction[2] = 0.6f;
    p.sun_rings = 3;
    p.sun_diameter = 0.53f;
    p.ao_subdivisions = 2;
    p.hybrid_ao_subdivisions = 2;
    p.hybrid_ao_levels = 3;
    p.exposure = p.sun_intensity = p.ambient_intensity = 1.0f;
    for (int i = 0; i < 3; ++i)
        p.sun_color[i] = p.ambient_color[i] = 1.0f;
    p.albedo = 0.5f;
    p.first_day = 1;
    p.last_day = 365;
    p.latitude = 36.5f;
    p.haze = 0.1f;
    p.direct_light = p.ambient_light = p.shadows = p.ambient_occlusion = 1;
    return p;
}

/// Threads to run with: 1, or all for 0.
std::size_t thread_limit(const benchmark::State& state) {
    return state.range(1) == 1 ? 1 : tbb::global_control::active_value(tbb::global_control::max_allowed_parallelism);
}

/// Cells times rays per second.
void report_rays(benchmark::State& state, std::size_t cells, std::size_t rays) {
    const double steps =
        static_cast<double>(cells) * static_cast<double>(rays) * static_cast<double>(state.iterations());
    state.counters["cell_rays/s"] = benchmark::Counter(steps, benchmark::Counter::kIsRate);
    state.counters["s/cell_ray"] = benchmark::Counter(steps, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

/// Grids for a sweep alone.
struct Sweep {
    explicit Sweep(int side)
        : p(parameters(side)), extent(static_cast<std::size_t>(side), static_cast<std::size_t>(side)),
          terrain_cells(terrain(side, side)), heights(create_buffer(terrain_cells.data(), extent, cpu_queue(), false)),
          photonmap(extent), normals(extent) {
        compute_normals_and_init_photonmap(p, heights, photonmap, normals, cpu_queue());
    }

    Parameters p;
    sycl::range<2> extent;
    std::vector<float> terrain_cells;
    Grid heights;
    PhotonMap photonmap;
    NormalGrid normals;
};

void sun_sweep(benchmark::State& state) {
    Sweep sweep(static_cast<int>(state.range(0)));
    const std::vector<Ray> rays = sun_rays(sweep.p);
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, thread_limit(state));
    for (auto _ : state)
        sweep_sun(sweep.p, sweep.heights, sweep.photonmap, rays, cpu_queue());
    report_rays(state, sweep.extent.size(), rays.size());
}

void sky_sweep(benchmark::State& state) {
    Sweep sweep(static_cast<int>(state.range(0)));
    const AmbientRays sky = ambient_rays(sweep.p.ao_subdivisions);
    const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, thread_limit(state));
    for (auto _ : state) {
        sweep_sky(sweep.p, sweep.heights, sweep.normals, sweep.photonmap, sky.rays, cpu_queue());
        state.PauseTiming();
        compute_normals_and_init_photonmap(sweep.p, sweep.heights, sweep.photonmap, sweep.normals, cpu_queue());
        state.ResumeTiming();
    }
    report_rays(state, sweep.extent.size(), sky.rays.size());
}

void sizes_and_threads(benchmark::internal::Benchmark* benchmark) {
    for (const int side : {256, 512, 1024, 2048})
        for (const int threads : {1, 0})
            benchmark->Args({side, threads});
    benchmark->ArgNames({"side", "threads"})->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(sun_sweep)->Apply(sizes_and_threads);
BENCHMARK(sky_sweep)->Apply(sizes_and_threads);

/// A picture with all stages; the second argument says whether the occlusion is hybrid.
void shade(benchmark::State& state) {
    Parameters p = parameters(static_cast<int>(state.range(0)));
    p.hybrid_ao = static_cast<std::uint32_t>(state.range(1));
    const std::vector<float> heights = terrain(p.resolution.width, p.resolution.height);
    std::vector<float> diffuse(heights.size()), shadow(diffuse), ao(diffuse), red(diffuse), green(diffuse),
        blue(diffuse);
    const auto render = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (Shade(handle(queue), heights.data(), diffuse.data(), shadow.data(), ao.data(), red.data(), green.data(),
                  blue.data(), nullptr, nullptr, nullptr, &p, &host) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state)
        render(cpu_queue(), silent_host());
    // Read: heights, normals, then the three stages. Written: normals, photons, the stages, the picture.
    report_cells(state, heights.size(), 4.0 * 17.0);
    report_peak_memory(state, heights.size(), render);
}
BENCHMARK(shade)
    ->ArgsProduct({{256, 512, 1024, 2048}, {0, 1}})
    ->ArgNames({"side", "hybrid"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void year_of_sunlight(benchmark::State& state) {
    const Parameters p = parameters(static_cast<int>(state.range(0)));
    const std::vector<float> heights = terrain(p.resolution.width, p.resolution.height);
    std::vector<float> result(heights.size());
    for (auto _ : state)
        if (SunLightIntegral(handle(cpu_queue()), heights.data(), result.data(), &p) != status_ok)
            state.SkipWithError("refused");
    report_rays(state, heights.size() / 4, sun_samples(p).rays.size());
}
BENCHMARK(year_of_sunlight)
    ->ArgName("side")
    ->Arg(256)
    ->Arg(512)
    ->Arg(1024)
    ->Arg(2048)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
