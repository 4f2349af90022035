#include <cmath>

#include "grid/bilinear.hpp"
#include "mesh/displacement_kernels.hpp"
#include "mesh/mesh_rasterizer.hpp"
#include "mesh_support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

namespace {

using namespace tarn_test;
using namespace tarn::mesh_rasterizer;

/// A scene with displacement maps.
struct DisplacedScene : MeshScene {
    DisplacedScene(int grid_width, int grid_height, float floor = 0.0f)
        : MeshScene(grid_width, grid_height, floor), xy(heights.size()), xz(heights.size()), yz(heights.size()) {}

    std::vector<float> xy, xz, yz;
};

class TriplanarDisplacement : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    std::uint32_t run(sycl::queue& on, DisplacedScene& scene) {
        const HostCallbacks record = host.callbacks();
        const mesh_rasterizer_MeshView view = scene.mesh.view();
        return MeshRasterizer_RenderMeshWithTriplanarDisplacement(handle(on), &view, scene.heights.data(),
                                                                  scene.xy.data(), scene.xz.data(), scene.yz.data(),
                                                                  &scene.parameters, &record);
    }

    void render(DisplacedScene& scene) { EXPECT_EQ(run(queue, scene), ok); }
};

/// How far a vertex goes along `normal`, or sideways along it, with maps that are 1, 10 and 100 all over.
template <bool horizontal>
float distance_of(const vec3& normal, float bias = 0.0f) {
    const float xy = 1.0f, xz = 10.0f, yz = 100.0f;
    const Displacement<horizontal> displace{{&xy, &xz, &yz, 1, 1}, 1.0f, 1.0f, 1.0f, 1.0f, bias, vec3(1, 1, 1)};
    const vec3 moved = displace(vec3(0.5f, 0.5f, 0.5f), normal);
    const float x = moved.x() - 0.5f, y = moved.y() - 0.5f, z = moved.z() - 0.5f;
    return std::sqrt(x * x + y * y + z * z);
}

TEST(DisplacementRule, WeightsFollowTheNormal) {
    EXPECT_NEAR(distance_of<false>(vec3(0, 0, 1)), 1.0f, 1e-6f);
    EXPECT_NEAR(distance_of<false>(vec3(0, -1, 0)), 10.0f, 1e-5f);
    EXPECT_NEAR(distance_of<false>(vec3(1, 0, 0)), 100.0f, 1e-4f);
    EXPECT_NEAR(distance_of<true>(vec3(0, 1, 0)), 10.0f, 1e-5f);
    EXPECT_NEAR(distance_of<false>(vec3(0.6f, 0, 0.8f)), (100.0f * 0.1296f + 1.0f * 0.4096f) / 0.5392f, 1e-4f);
    EXPECT_NEAR(distance_of<true>(vec3(0.6f, 0, 0.8f)), (100.0f * 0.6f + 1.0f * 0.8f) / 1.4f, 1e-4f);
    // As long as the normal in one form, sideways by its whole in the other.
    EXPECT_NEAR(distance_of<false>(vec3(0, 0, 2)), 2.0f, 1e-6f);
    EXPECT_NEAR(distance_of<false>(vec3(0, 0, 2), 0.5f), 3.0f, 1e-6f);
    EXPECT_NEAR(distance_of<true>(vec3(0, 3, 0), -4.0f), 6.0f, 1e-5f);
}

TEST(DisplacementRule, NothingMovesWithoutADirection) {
    EXPECT_EQ(distance_of<false>(vec3(0, 0, 0), 5.0f), 0.0f);
    EXPECT_EQ(distance_of<true>(vec3(0, 0, 0), 5.0f), 0.0f);
    EXPECT_EQ(distance_of<true>(vec3(0, 0, 1), 5.0f), 0.0f);
}

TEST(Bilinear, GoesOnBeforeTheNearEdgeAndStaysBeyondTheFarOne) {
    const std::vector<float> grid = {0, 1, 4, 10, 11, 14}; // 3 x 2
    const auto at = [&](float x, float y) {
        return tarn::bilinear(grid.data(), 3, 2, x, y);
    };
    EXPECT_EQ(at(1.5f, 0.5f), 1.0f);
    EXPECT_EQ(at(2.0f, 1.0f), 7.5f);
    EXPECT_EQ(at(0.25f, 0.5f), -0.25f); // the slope of the first two cells
    EXPECT_EQ(at(-0.25f, 0.5f), -0.75f);
    EXPECT_EQ(at(0.5f, 0.0f), -5.0f);
    EXPECT_EQ(at(-0.5f, 0.5f), 0.0f); // a whole cell before the first, both are the first
    EXPECT_EQ(at(-7.0f, 0.5f), 0.0f);
    EXPECT_EQ(at(2.75f, 1.5f), 14.0f);
    EXPECT_EQ(at(9.0f, 9.0f), 14.0f);
    EXPECT_TRUE(std::isnan(at(not_a_number, 1.0f)));
    at(infinity, -1e30f); // only has to stay in bounds
}

TEST_F(TriplanarDisplacement, FlatMapsLiftTheMeshByTheBias) {
    DisplacedScene scene(12, 9, -1.0f);
    scene.mesh = surface_mesh(3, [](float, float) { return 0.5f; });
    scene.mesh.normals.assign(scene.mesh.vertices.size(), {0, 0, 1, 0});
    scene.parameters.vertical_scale = 0.25f;
    scene.parameters.displacement_bias = 0.5f;
    scene.parameters.displacement_amount = 0.125f;
    // Not read here.
    scene.parameters.rotation_x = scene.parameters.scale = scene.parameters.offset_y = not_a_number;
    scene.parameters.rest_on_floor = 1;
    const DisplacedScene start = scene;
    render(scene);
    EXPECT_EQ(count_near(scene.heights, (0.5f + 0.0625f) * 4.0f), 12 * 9);
    scene = start;
    scene.parameters.displacement_amount = 0.0f;
    render(scene);
    EXPECT_EQ(count_near(scene.heights, 2.0f), 12 * 9);
    scene = start;
    for (TarnUint3& t : scene.mesh.triangles)
        std::swap(t.x, t.y);
    render(scene);
    EXPECT_EQ(scene.heights, std::vector<float>(12 * 9, -1.0f)); // turned away
    scene = start;
    scene.parameters.vertical_scale = 0.0f;
    scene.parameters.supersample = 1;
    render(scene);
    EXPECT_EQ(scene.heights, std::vector<float>(12 * 9, -1.0f)); // infinitely high
    EXPECT_EQ(host.progress, std::vector<double>(4, 0.0));
}

#ifdef HOSTSYCL

TEST_F(TriplanarDisplacement, MapsAndOutputAreNeverInMemoryTogether) {
    SimulatedGpu gpu(integrated_gpu());
    DisplacedScene scene(1000, 1000);
    scene.mesh = quad(0, 0, 1, 1, 0.5f, 0.5f);
    scene.mesh.normals.assign(4, {0, 0, 1, 0});
    scene.parameters.supersample = 1;
    static hostsycl::device_control* device;
    device = &gpu.device;
    HostCallbacks record = host.callbacks();
    record.acquire_memory = [](std::size_t) {
        device->reset_peak(); // the trial allocation is over
    };
    const mesh_rasterizer_MeshView view = scene.mesh.view();
    EXPECT_EQ(MeshRasterizer_RenderMeshWithTriplanarDisplacement(handle(gpu.queue), &view, scene.heights.data(),
                                                                 scene.xy.data(), scene.xz.data(), scene.yz.data(),
                                                                 &scene.parameters, &record),
              ok);
    EXPECT_LT(gpu.device.counters().peak_bytes_in_use, 21u * 1000000); // the grid four times over, and once more
    EXPECT_GE(gpu.device.counters().peak_bytes_in_use, 20u * 1000000);
}

#endif

} // namespace
