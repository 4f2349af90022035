#include <algorithm>
#include <functional>

#include "mesh/mesh_kernels.hpp"
#include "mesh/mesh_rasterizer.hpp"
#include "mesh/work_expansion.hpp"
#include "mesh_support.hpp"

namespace {

using namespace tarn_test;
using namespace tarn::mesh_rasterizer;

class MeshRendering : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    std::uint32_t run(sycl::queue& on, MeshScene& scene, bool with_noise = true) {
        const HostCallbacks record = host.callbacks();
        const mesh_rasterizer_MeshView view = scene.mesh.view();
        return MeshRasterizer_RenderMesh(handle(on), &view, scene.heights.data(),
                                         with_noise ? scene.noise.data() : nullptr, &scene.parameters, &record);
    }

    void render(MeshScene& scene) { EXPECT_EQ(run(queue, scene), ok); }

    /// Where `process_vertices` takes the vertices.
    std::vector<TarnFloat3> in_frame(const std::vector<TarnFloat3>& vertices, const Parameters& parameters) {
        const mesh_rasterizer_MeshView view{vertices.data(), static_cast<std::uint32_t>(vertices.size()), nullptr, 0,
                                            nullptr};
        Vertices list = upload_vertices(view, queue);
        MeshRasterizer::process_vertices(list, queue, parameters);
        queue.wait();
        std::vector<TarnFloat3> result;
        for (std::size_t i = 0; i < list.size(); ++i)
            result.push_back({list.data()[i].x(), list.data()[i].y(), list.data()[i].z(), 0.0f});
        return result;
    }

    /// Draws vertices that are in frame space already, by one of the class's schemes.
    using Draw = std::function<void(MeshRasterizer&)>;
    void draw(sycl::queue& on, MeshScene& scene, const Draw& scheme) {
        const mesh_rasterizer_MeshView view = scene.mesh.view();
        Vertices vertices = upload_vertices(view, on);
        Triangles triangles = upload_triangles(view, on);
        MeshRasterizer rasterizer(on, scene.heights.data(), scene.noise.data(), scene.parameters, vertices, triangles,
                                  false, host.callbacks());
        scheme(rasterizer);
    }

    Draw expanded = [](MeshRasterizer& rasterizer) {
        rasterizer.draw_highest();
    };
    Draw facing = [](MeshRasterizer& rasterizer) {
        rasterizer.draw_highest_facing();
    };
};

void expect_vertex(const TarnFloat3& actual, float x, float y, float z, float tolerance) {
    EXPECT_NEAR(actual.x, x, tolerance);
    EXPECT_NEAR(actual.y, y, tolerance);
    EXPECT_NEAR(actual.z, z, tolerance);
}

TEST_F(MeshRendering, FitTouchesTheFrameOnTheTightestAxisAndCentresTheRest) {
    MeshScene scene(40, 20);
    const std::vector<TarnFloat3> box = {{1, 2, 3, 0}, {5, 4, 4, 0}}; // 4 x 2 x 1
    const auto fit = [&](float vertical_scale, float scale) {
        scene.parameters.vertical_scale = vertical_scale;
        scene.parameters.scale = scale;
        return in_frame(box, scene.parameters);
    };
    // 10 cells a unit fill the frame in x and y at once; 10 of the 80 cells of height 2.0 are left to z.
    expect_vertex(fit(2.0f, 1.0f)[0], 0, 0, 0.5f - 0.0625f, 1e-6f);
    expect_vertex(fit(2.0f, 1.0f)[1], 40, 20, 0.5f + 0.0625f, 1e-6f);
    // Only 4 cells of height: z is the tightest axis, and spans 1.0.
    expect_vertex(fit(0.1f, 1.0f)[0], 20 - 8, 10 - 4, 0, 1e-5f);
    expect_vertex(fit(0.1f, 1.0f)[1], 20 + 8, 10 + 4, 1, 1e-5f);
    expect_vertex(fit(0.1f, 0.5f)[1], 20 + 4, 10 + 2, 0.75f, 1e-5f);
    scene.parameters.offset_x = 0.25f;
    scene.parameters.offset_y = 0.5f;
    scene.parameters.offset_z = -2.0f;
    expect_vertex(fit(2.0f, 1.0f)[0], 10, -10, 0.4375f - 2.0f, 1e-5f);
}

TEST_F(MeshRendering, BoundingBoxPassesOverNaNAndIsZeroWithoutVertices) {
    const auto measure = [&](const std::vector<TarnFloat3>& vertices) {
        const mesh_rasterizer_MeshView view{vertices.data(), static_cast<std::uint32_t>(vertices.size()), nullptr, 0,
                                            nullptr};
        const tarn::mesh_rasterizer::BoundingBox b = compute_bounding_box(upload_vertices(view, queue), queue);
        return std::vector<float>{b.min_x, b.max_x, b.min_y, b.max_y, b.min_z, b.max_z};
    };
    EXPECT_EQ(measure({}), std::vector<float>(6, 0.0f));
    EXPECT_EQ(measure({{-2, 7, not_a_number, 0}, {3, not_a_number, 1, 0}, {0, 6, -1, 0}}),
              (std::vector<float>{-2, 3, 6, 7, -1, 1}));
    std::vector<TarnFloat3> many(10000, {1, 1, 1, 0});
    many[9999] = {-5, 8, 1e30f, 0};
    EXPECT_EQ(measure(many), (std::vector<float>{-5, 1, 1, 8, 1, 1e30f}));
}

TEST_F(MeshRendering, CellsOffTheModelAndUnderTheFloorKeepBothGrids) {
    MeshScene scene(20, 20, 0.0f);
    scene.mesh = surface_mesh(1, [](float, float) { return 0.0f; });
    scene.parameters.scale = 0.5f;
    std::fill(scene.heights.begin(), scene.heights.begin() + 10 * 20, 2.0f); // a floor above the model
    render(scene);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x) {
            const bool drawn = x >= 5 && x < 15 && y >= 10 && y < 15;
            EXPECT_EQ(scene.height_at(x, y), y < 10 ? 2.0f : drawn ? 0.5f : 0.0f) << x << ", " << y;
            EXPECT_EQ(scene.noise_at(x, y) != MeshScene::no_noise, drawn) << x << ", " << y;
        }
}

TEST_F(MeshRendering, HighestTriangleWinsInAnyOrderAndLeavesItsNumber) {
    // Three squares one above the other, and a slope through all of them.
    MeshScene scene(16, 16, -10.0f);
    for (const float z : {0.2f, 0.6f, 0.4f})
        scene.mesh.append(quad(0, 0, 16, 16, z, z));
    scene.mesh.append(quad(0, 0, 16, 16, 0.0f, 1.0f));
    MeshScene reversed = scene;
    std::reverse(reversed.mesh.triangles.begin(), reversed.mesh.triangles.end());
    draw(queue, scene, expanded);
    draw(queue, reversed, expanded);
    EXPECT_TRUE(same_bits(reversed.heights, scene.heights));
    for (int x = 0; x < 16; ++x) {
        // The slope is enlarged with its triangle.
        EXPECT_NEAR(scene.height_at(x, 8), std::max(0.6f, (static_cast<float>(x) + 0.5f) / 16), 0.002f);
        const std::uint32_t first = scene.height_at(x, 8) > 0.6f ? 6 : 2;
        EXPECT_TRUE(scene.noise_at(x, 8) == triangle_noise(first) || scene.noise_at(x, 8) == triangle_noise(first + 1));
    }
    // By hand: the first two steps of the generator from 1 and from its seed for zero.
    EXPECT_EQ(triangle_noise(1), static_cast<float>(270369u * 0x2545F381u - 1u) * 2.3283064e-10f);
    EXPECT_EQ(triangle_noise(0), triangle_noise(0xA2351342u));
    EXPECT_GT(triangle_noise(0), 0.0f);
}

TEST_F(MeshRendering, BoxesAboveTheLimitAreDroppedAndTooManyCellsFail) {
    // 16383 + 2 rounded columns by 16382 + 2 rows stay below 2^28, one column more does not.
    const auto cells = [](float width, float height) {
        return box_cells(vec3(0.5f, 0.5f, 0), vec3(width, 0.5f, 0), vec3(0.5f, height, 0));
    };
    EXPECT_EQ(cells(3.0f, 4.5f), 4u * 6u);
    EXPECT_EQ(cells(16382.5f, 16382.5f), 16384u * 16384u);
    EXPECT_EQ(cells(65535.0f, 65534.0f), 65536u); // 2^32 - 65536, wrapped around
    EXPECT_EQ(cells(1e10f, 4.0f), 0u);

    for (const float side : {16381.5f, 16382.5f}) {
        MeshScene scene(6, 6, -1.0f);
        scene.mesh.vertices = {{0.5f, 0.5f, 0.5f, 0}, {0.5f, side, 0.5f, 0}, {side, 0.5f, 0.5f, 0}};
        scene.mesh.triangles = {{0, 1, 2, 0}};
        MeshScene other = scene;
        draw(queue, scene, expanded);
        EXPECT_NEAR(scene.height_at(3, 3), side < 16382.0f ? 0.5f : -1.0f, 1e-5f);
        draw(queue, other, facing);
        EXPECT_NEAR(other.height_at(3, 3), 0.5f, 1e-5f);
    }

    // Nine times 2^28 - 32768 cells, by the call itself.
    MeshScene scene(16, 16, -1.0f);
    scene.mesh = quad(0, 0, 1, 1, 0.0f, 0.0f);
    scene.mesh.triangles.assign(9, {0, 1, 2, 0});
    scene.parameters.scale = 16380.0f / 16.0f;
    EXPECT_EQ(run(queue, scene), failed);
    EXPECT_EQ(scene.heights, std::vector<float>(256, -1.0f));
    ASSERT_EQ(host.errors.size(), 1u);
    EXPECT_EQ(host.errors[0].find("Runtime error on device "), 0u) << host.errors[0];
    scene.mesh.triangles.resize(1);
    render(scene);
    EXPECT_NE(scene.heights, std::vector<float>(256, -1.0f));
}

TEST_F(MeshRendering, SupersamplingAveragesFourCellsAndDoublesTheRecord) {
    MeshScene scene(8, 6, -0.5f);
    scene.mesh = quad(0, 0, 1, 1, 0.0f, 0.0f);
    scene.parameters.scale = 1.0f / 1.5f;     // 4 of 6 rows
    scene.parameters.offset_x = 0.25f / 8.0f; // half a supersampled cell: covers their centres from 2.5 to 6.0
    scene.parameters.supersample = 2;
    MeshScene plain = scene;
    render(scene);
    EXPECT_EQ(scene.parameters.resolution.x, 16);
    EXPECT_EQ(scene.parameters.resolution.y, 12);
    EXPECT_EQ(scene.height_at(4, 3), 0.5f);
    EXPECT_EQ(scene.height_at(1, 3), -0.5f);
    EXPECT_EQ(scene.height_at(2, 3) + scene.height_at(6, 3), 0.5f); // together one cell, half of it floor
    EXPECT_EQ(scene.noise_at(0, 0), MeshScene::no_noise);
    plain.parameters.supersample = 0;
    render(plain);
    EXPECT_EQ(plain.parameters.resolution.x, 8);
    EXPECT_EQ(host.progress, (std::vector<double>{0.0, 0.0}));
    EXPECT_EQ(host.cancel_questions, 0);
}

} // namespace
