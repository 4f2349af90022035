// Point clouds: points per second, and the triangulation's share of the time, which is one thread's. Normals: baked
// cells per second over meshes of several sizes, and the vertex frames' share.
#include <chrono>
#include <cmath>

#include "mesh/point_cloud_kernels.hpp"
#include "mesh/tangent_space.hpp"
#include "mesh/triangulation.hpp"
#include "support.hpp"

namespace {

using namespace tarn_bench;
namespace rasterizer = tarn::mesh_rasterizer;

template <class Work>
double seconds_of(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

mesh_rasterizer_Parameters frame(int side) {
    mesh_rasterizer_Parameters parameters{};
    parameters.resolution = {side, side};
    parameters.vertical_scale = 1.0f;
    return parameters;
}

/// `share` is the name of what took `part` seconds of each run.
void report_share(benchmark::State& state, const char* share, double part, double whole) {
    state.counters[share] = part / (whole / static_cast<double>(state.iterations()));
}

/// Random points, or as many in rows and columns, where every quad of them lies on a circle.
std::vector<float> cloud(std::size_t count, int side, bool is_regular) {
    std::vector<float> points;
    std::uint32_t state = 1;
    const auto number = [&] {
        state = state * 1664525u + 1013904223u;
        return static_cast<float>(state >> 8) * 0x1p-24f * static_cast<float>(side);
    };
    const auto rows = static_cast<std::size_t>(std::sqrt(static_cast<double>(count)));
    const float step = static_cast<float>(side) / static_cast<float>(rows);
    for (std::size_t n = 0; n < count; ++n) {
        const float x = is_regular ? (static_cast<float>(n % rows) + 0.5f) * step : number();
        const float y = is_regular ? (static_cast<float>(n / rows) + 0.5f) * step : number();
        points.insert(points.end(), {x, y, std::sin(0.02f * x) * std::cos(0.03f * y)});
    }
    return points;
}

void point_cloud(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto side = static_cast<int>(state.range(1));
    const bool is_regular = state.range(2) != 0, has_image = state.range(3) != 0;
    const std::vector<float> points = cloud(count, side, is_regular);
    std::vector<double> coordinates;
    for (std::size_t i = 0; i < points.size(); i += 3)
        for (const float coordinate : {points[i], points[i + 1]})
            coordinates.push_back(static_cast<double>(rasterizer::moved_off_rim(coordinate, side)));

    mesh_rasterizer_Parameters parameters = frame(side);
    parameters.point_count = static_cast<std::uint32_t>(count);
    std::vector<float> heights(static_cast<std::size_t>(side) * static_cast<std::size_t>(side)), noise(heights);
    std::vector<float> red(heights), green(heights), blue(heights);
    const auto draw = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (MeshRasterizer_RenderPointCloud(handle(queue), points.data(), heights.data(), noise.data(),
                                            has_image ? red.data() : nullptr, green.data(), blue.data(), &parameters,
                                            &host) != status_ok)
            state.SkipWithError("refused");
    };
    double whole = 0.0;
    for (auto _ : state)
        whole += seconds_of([&] { draw(cpu_queue(), silent_host()); });
    const double triangulation =
        seconds_of([&] { benchmark::DoNotOptimize(rasterizer::triangulate(coordinates).data()); });
    report_share(state, "triangulation", triangulation, whole);
    state.counters["points/s"] = benchmark::Counter(
        static_cast<double>(count) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    report_peak_memory(state, count, draw);
    state.counters["peak_B/point"] = state.counters["peak_B/cell"];
    state.counters.erase("peak_B/cell");
}
BENCHMARK(point_cloud)
    ->ArgNames({"points", "side", "regular", "image"})
    ->Args({100000, 512, 0, 0})
    ->Args({1000000, 2048, 0, 0})
    ->Args({1000000, 2048, 0, 1})
    ->Args({1000000, 2048, 1, 0})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// A mesh of `squares` by `squares` that follows a rough ground.
void bake_normals(benchmark::State& state) {
    const auto side = static_cast<int>(state.range(0));
    const auto squares = static_cast<std::uint32_t>(state.range(1));
    std::vector<float> ground = terrain(side, side);
    for (float& h : ground)
        h /= static_cast<float>(side);
    std::vector<TarnFloat3> vertices;
    std::vector<TarnUint3> triangles;
    const auto at = [&](float u) {
        return std::min(static_cast<int>(u * static_cast<float>(side)), side - 1);
    };
    for (std::uint32_t y = 0; y <= squares; ++y)
        for (std::uint32_t x = 0; x <= squares; ++x) {
            const float u = static_cast<float>(x) / static_cast<float>(squares);
            const float v = static_cast<float>(y) / static_cast<float>(squares);
            vertices.push_back({u, v, ground[static_cast<std::size_t>(at(v) * side + at(u))], 0.0f});
        }
    for (std::uint32_t y = 0; y < squares; ++y)
        for (std::uint32_t x = 0; x < squares; ++x) {
            const std::uint32_t corner = y * (squares + 1) + x, below = corner + squares + 1;
            triangles.push_back({corner, below, corner + 1, 0});
            triangles.push_back({corner + 1, below, below + 1, 0});
        }
    const mesh_rasterizer_MeshView mesh{vertices.data(), static_cast<std::uint32_t>(vertices.size()), triangles.data(),
                                        static_cast<std::uint32_t>(triangles.size()), nullptr};
    const mesh_rasterizer_Parameters parameters = frame(side);
    std::vector<float> red(ground.size()), green(red), blue(red);
    std::vector<TarnFloat2> hits(ground.size());
    const auto bake = [&](sycl::queue& queue, const HostCallbacks& host) {
        if (MeshRasterizer_ComputeTangentSpaceNormals(handle(queue), &mesh, ground.data(), red.data(), green.data(),
                                                      blue.data(), hits.data(), &parameters, &host) != status_ok)
            state.SkipWithError("refused");
    };
    double whole = 0.0;
    for (auto _ : state)
        whole += seconds_of([&] { bake(cpu_queue(), silent_host()); });
    const double frames = seconds_of([&] { benchmark::DoNotOptimize(rasterizer::VertexFrames(mesh).normals.data()); });
    report_share(state, "vertex_frames", frames, whole);
    report_peak_memory(state, ground.size(), bake);
    // Heights, triangle, normal, and the outputs.
    report_cells(state, ground.size(), 44.0);
}
BENCHMARK(bake_normals)
    ->ArgNames({"side", "squares"})
    ->ArgsProduct({{256, 512, 1024, 2048}, {16, 256}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
