// Meshes: triangles per second for many small triangles and for few huge ones, through the work expansion of
// MeshRasterizer_RenderMesh and triangle by triangle, as the triplanar function draws.
#include <cmath>

#include "support.hpp"

namespace {

using namespace tarn_bench;

/// A mesh in unit space that covers the frame, turned to the viewer.
struct Mesh {
    std::vector<TarnFloat3> vertices, normals;
    std::vector<TarnUint3> triangles;

    void add_vertex(float x, float y, float z) {
        vertices.push_back({x, y, z, 0.0f});
        normals.push_back({0.0f, 0.0f, 1.0f, 0.0f});
    }

    mesh_rasterizer_MeshView view() const {
        return {vertices.data(), static_cast<std::uint32_t>(vertices.size()), triangles.data(),
                static_cast<std::uint32_t>(triangles.size()), normals.data()};
    }
};

/// A surface of side * side squares, two triangles each.
Mesh surface(std::uint32_t side) {
    Mesh mesh;
    for (std::uint32_t y = 0; y <= side; ++y)
        for (std::uint32_t x = 0; x <= side; ++x) {
            const float fx = static_cast<float>(x) / static_cast<float>(side);
            const float fy = static_cast<float>(y) / static_cast<float>(side);
            mesh.add_vertex(fx, fy, 0.1f + 0.1f * std::sin(9.0f * fx) * std::cos(7.0f * fy));
        }
    for (std::uint32_t y = 0; y < side; ++y)
        for (std::uint32_t x = 0; x < side; ++x) {
            const std::uint32_t corner = y * (side + 1) + x, below = corner + side + 1;
            mesh.triangles.push_back({corner, below, corner + 1, 0});
            mesh.triangles.push_back({corner + 1, below, below + 1, 0});
        }
    return mesh;
}

/// Triangles one above the other, each half the frame.
Mesh pile(std::uint32_t count) {
    Mesh mesh;
    for (std::uint32_t n = 0; n < count; ++n) {
        const float z = 0.2f * static_cast<float>(n) / static_cast<float>(count);
        mesh.add_vertex(0.0f, 0.0f, z);
        mesh.add_vertex(0.0f, 1.0f, z + 0.1f);
        mesh.add_vertex(1.0f, 0.5f * static_cast<float>(n % 3), z);
        mesh.triangles.push_back({3 * n, 3 * n + 1, 3 * n + 2, 0});
    }
    return mesh;
}

/// `draw` takes the queue, the host, the mesh, the heights and the record.
template <class Draw>
void draw_mesh(benchmark::State& state, const Mesh& mesh, int side, const Draw& draw) {
    const std::vector<float> floor(static_cast<std::size_t>(side) * static_cast<std::size_t>(side), -1.0f);
    std::vector<float> heights;
    const auto run = [&](sycl::queue& queue, const HostCallbacks& host) {
        mesh_rasterizer_Parameters parameters{};
        parameters.resolution = {side, side};
        parameters.vertical_scale = 1.0f;
        parameters.scale = 1.0f;
        parameters.displacement_amount = 0.01f;
        const mesh_rasterizer_MeshView view = mesh.view();
        if (draw(queue, host, view, heights, parameters) != status_ok)
            state.SkipWithError("refused");
    };
    for (auto _ : state) {
        state.PauseTiming();
        heights = floor;
        state.ResumeTiming();
        run(cpu_queue(), silent_host());
    }
    const auto in_all = [&](std::size_t count) {
        return static_cast<double>(count) * static_cast<double>(state.iterations());
    };
    state.counters["triangles/s"] = benchmark::Counter(in_all(mesh.triangles.size()), benchmark::Counter::kIsRate);
    state.counters["cells/s"] = benchmark::Counter(in_all(floor.size()), benchmark::Counter::kIsRate);
    report_peak_memory(state, mesh.triangles.size(), run);
    state.counters["peak_B/triangle"] = state.counters["peak_B/cell"];
    state.counters.erase("peak_B/cell");
}

std::uint32_t draw_expanded(sycl::queue& queue, const HostCallbacks& host, const mesh_rasterizer_MeshView& view,
                            std::vector<float>& heights, mesh_rasterizer_Parameters& parameters) {
    return MeshRasterizer_RenderMesh(handle(queue), &view, heights.data(), nullptr, &parameters, &host);
}

/// With one flat map for all three planes.
std::uint32_t draw_displaced(sycl::queue& queue, const HostCallbacks& host, const mesh_rasterizer_MeshView& view,
                             std::vector<float>& heights, mesh_rasterizer_Parameters& parameters) {
    static std::vector<float> map;
    map.resize(heights.size());
    return MeshRasterizer_RenderMeshWithTriplanarDisplacement(handle(queue), &view, heights.data(), map.data(),
                                                              map.data(), map.data(), &parameters, &host);
}

void mesh_small_triangles(benchmark::State& state) {
    draw_mesh(state, surface(static_cast<std::uint32_t>(state.range(0))), static_cast<int>(state.range(1)),
              draw_expanded);
}

void mesh_huge_triangles(benchmark::State& state) {
    draw_mesh(state, pile(static_cast<std::uint32_t>(state.range(0))), static_cast<int>(state.range(1)), draw_expanded);
}

void mesh_small_triangles_displaced(benchmark::State& state) {
    draw_mesh(state, surface(static_cast<std::uint32_t>(state.range(0))), static_cast<int>(state.range(1)),
              draw_displaced);
}

void mesh_huge_triangles_displaced(benchmark::State& state) {
    draw_mesh(state, pile(static_cast<std::uint32_t>(state.range(0))), static_cast<int>(state.range(1)),
              draw_displaced);
}

void small(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"squares", "side"})->Args({256, 1024})->Args({1024, 1024})->Args({1024, 2048});
    bench->UseRealTime()->Unit(benchmark::kMillisecond);
}

void huge(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"triangles", "side"})->Args({1, 2048})->Args({8, 512})->Args({8, 2048});
    bench->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(mesh_small_triangles)->Apply(small);
BENCHMARK(mesh_small_triangles_displaced)->Apply(small);
BENCHMARK(mesh_huge_triangles)->Apply(huge);
BENCHMARK(mesh_huge_triangles_displaced)->Apply(huge);

} // namespace
