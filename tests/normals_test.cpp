#include <chrono>
#include <limits>

#include "mesh/surface_normals.hpp"
#include "mesh/tangent_space.hpp"
#include "mesh/tangent_space_kernels.hpp"
#include "mesh_support.hpp"

namespace {

using namespace tarn_test;
using namespace tarn::mesh_rasterizer;

/// A mesh in unit space, the ground that it stands in for, and what is baked.
struct BakeScene {
    BakeScene(int grid_width, int grid_height, float level = 0.0f)
        : width(static_cast<std::size_t>(grid_width)), ground(width * static_cast<std::size_t>(grid_height), level) {
        parameters.resolution = {grid_width, grid_height};
        parameters.vertical_scale = 1.0f;
        clear();
    }

    void clear() {
        red.assign(ground.size(), untouched);
        green = blue = red;
        hits.assign(ground.size(), TarnFloat2{untouched, untouched});
    }

    std::uint32_t run(sycl::queue& queue, const HostCallbacks& record) {
        const mesh_rasterizer_MeshView view = mesh.view();
        return MeshRasterizer_ComputeTangentSpaceNormals(handle(queue), &view, ground.data(), red.data(), green.data(),
                                                         blue.data(), hits.data(), &parameters, &record);
    }

    std::size_t index(int x, int y) const { return static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x); }
    TarnFloat2 hit_at(int x, int y) const { return hits[index(x, y)]; }

    TestMesh mesh;
    mesh_rasterizer_Parameters parameters{};
    std::size_t width;
    std::vector<float> ground, red, green, blue;
    std::vector<TarnFloat2> hits;
};

TestMesh flat(float z) {
    return surface_mesh(4, [=](float, float) { return z; });
}

class Normals : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    void bake(BakeScene& scene) { EXPECT_EQ(scene.run(queue, host.callbacks()), ok); }
};

TEST_F(Normals, FlatGroundLooksUpAndIsMetAtTheCellCentres) {
    for (const float level : {0.25f, 0.5f, 0.75f}) { // below the mesh, on it and above it
        BakeScene scene(24, 17, level);
        scene.mesh = flat(0.5f);
        bake(scene);
        for (int y = 0; y < 17; ++y) {
            for (int x = 0; x < 24; ++x) {
                const std::size_t i = scene.index(x, y);
                EXPECT_EQ(scene.red[i], 0.5f);
                EXPECT_EQ(scene.green[i], 0.5f);
                EXPECT_NEAR(scene.blue[i], 1.0f, 1e-6f);
                // Past the last cells' centres a ray straight up has no rim ahead, and no place on the grid.
                const bool off_rim = level >= 0.5f && (x == 23 || y == 16);
                EXPECT_EQ(scene.hit_at(x, y).x, off_rim ? 0.0f : std::min(static_cast<float>(x) + 0.5f, 23.0f));
                EXPECT_EQ(scene.hit_at(x, y).y, off_rim ? 0.0f : std::min(static_cast<float>(y) + 0.5f, 16.0f));
            }
        }
    }
}

TEST_F(Normals, RaysFollowTheMeshsNormalTowardsTheGroundFromEitherSide) {
    // The mesh rises by half a cell each cell to the right; its normal leans to the left.
    const float level = 8.0f / 64.0f;
    for (const float ground : {0.0f, level, 0.5f, 40.0f}) {
        BakeScene scene(64, 64, ground);
        scene.mesh = surface_mesh(2, [=](float x, float) { return level + 0.5f * (x - 0.5f); });
        bake(scene);
        const float mesh_height = 8.0f + 0.5f * (40.5f - 32.0f);
        const float expected = 40.5f - 0.5f * (64.0f * ground - mesh_height);
        EXPECT_NEAR(scene.hit_at(40, 20).x, std::clamp(expected, 0.0f, 63.0f), 4e-3f) << ground;
        EXPECT_NEAR(scene.hit_at(40, 20).y, 20.5f, 1e-4f) << ground;
    }
}

TEST_F(Normals, LongWaysEndWhereSingleStepsWouldTakeThem) {
    // A plane far above, with steps of 1e-4 of a cell to the side; then ground that cannot be met at all.
    const auto meet = [](const std::vector<float>& ground, const vec3& direction) {
        const Surface surface{ground.data(), 64, 32, 64.0f};
        const Ray ray = ray_to(surface, vec3(20.5f, 10.5f, 0.0f), direction);
        RayBatch<1> batch;
        batch.set(0, ray, march(ray, surface));
        batch.bisect(surface);
        return batch.end(0);
    };
    const std::vector<float> high(64 * 32, 1000.0f);
    const vec3 hit = meet(high, vec3(1e-4f, 0.0f, 1.0f));
    EXPECT_EQ(hit.z(), 64000.0f);
    EXPECT_NEAR(hit.x(), 20.5f + 6.4f, 1e-4f);
    EXPECT_EQ(meet(high, vec3(1e-3f, 0.0f, 1.0f)).x(), 63.0f);

    const auto start = std::chrono::steady_clock::now();
    for (const float level : {not_a_number, infinity, 1e30f}) {
        std::vector<float> ground(64 * 32, level);
        for (const bool checkered : {false, true}) {
            for (std::size_t i = 0; checkered && i < ground.size(); ++i)
                if ((i + i / 64) % 2 == 0)
                    ground[i] = level * 0.5f;
            for (int n = 0; n < 100; ++n) {
                const vec3 rim = meet(ground, vec3(3e-6f, 1e-6f, 1.0f));
                EXPECT_GE(rim.x(), 62.0f);
                for (const float tilt : {1e-11f, 1e-9f, 1e-7f})
                    EXPECT_EQ(meet(ground, vec3(tilt, tilt, 1.0f)).z(), 16777216.0f) << level << ", " << tilt;
                const vec3 nowhere = meet(ground, vec3(0.0f, 0.0f, 0.0f));
                EXPECT_EQ(nowhere.x(), 20.5f);
                EXPECT_EQ(nowhere.y(), 10.5f);
            }
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST_F(Normals, NumbersThatAreNoneStayInTheirCells) {
    BakeScene scene(40, 40, 0.2f);
    scene.ground[scene.index(20, 20)] = std::numeric_limits<float>::quiet_NaN();
    scene.mesh = flat(0.0f);
    bake(scene);
    EXPECT_TRUE(std::isnan(scene.red[scene.index(20, 20)]));
    EXPECT_EQ(scene.red[scene.index(23, 20)], 0.5f);
    EXPECT_EQ(scene.red[scene.index(20, 17)], 0.5f);
}

/// A normal grid or a height grid in the device's hands.
template <class Element>
std::vector<Element> read(const tarn::usm_ptr<Element, 2>& grid) {
    const tarn::usm_host_accessor<Element> list(grid, sycl::access::mode::read);
    return std::vector<Element>(list.data(), list.data() + list.size());
}

TEST_F(Normals, GridNormalsOfRampsAndCliffs) {
    constexpr int width = 9, height = 7;
    Parameters p{};
    p.vertical_scale = 2.0f; // a height of 1 is 18 cells
    std::vector<float> ramp, cliff;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            ramp.push_back((static_cast<float>(x) - 2.0f * static_cast<float>(y)) / 18.0f);
            cliff.push_back(x < 5 ? 0.0f : 1.0f / 18.0f);
        }
    }
    const auto grid = [&](std::vector<float>& cells) {
        return Grid(sycl::range<2>(height, width), queue, cells.data(), false, true);
    };
    const auto expect_near = [](const vec3& actual, const vec3& direction) {
        const vec3 expected = unit_vector(direction);
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(actual[i], expected[i], 1e-6f) << i;
    };
    const auto plain = read(compute_global_normals(grid(ramp), p));
    const auto enhanced = read(compute_global_normals_enhanced(grid(ramp), p));
    expect_near(plain[3 * width + 4], vec3(-1.0f, 2.0f, 1.0f));
    expect_near(enhanced[3 * width + 4], vec3(-1.0f, 2.0f, 1.0f));
    // On the rim the first cells repeat themselves: half the slope for the one; for the other three of the corner's
    // four quads have slopes, by which they count.
    expect_near(plain[3 * width], vec3(-0.5f, 2.0f, 1.0f));
    expect_near(enhanced[0], vec3(-0.6f, 1.8f, 1.0f));
    // Beside a cliff of one cell the one sees half of it, the other all.
    expect_near(read(compute_global_normals(grid(cliff), p))[3 * width + 4], vec3(-0.5f, 0.0f, 1.0f));
    expect_near(read(compute_global_normals_enhanced(grid(cliff), p))[3 * width + 4], vec3(-1.0f, 0.0f, 1.0f));
    expect_near(read(compute_global_normals_enhanced(grid(cliff), p))[3 * width + 2], vec3(0.0f, 0.0f, 1.0f));
}

TEST_F(Normals, FiltersOfNormalGrids) {
    constexpr int width = 8, height = 5;
    const vec3 up(0.0f, 0.0f, 1.0f), steep(0.6f, 0.0f, 0.8f);
    std::vector<vec3> normals(width * height, up);
    const auto filtered = [&](NormalGrid (*filter)(const NormalGrid&)) {
        return read(filter(NormalGrid(sycl::range<2>(height, width), queue, normals.data(), false, true)));
    };
    for (const vec3& n : filtered(spread_high_slope_normals))
        EXPECT_EQ(n.z(), 1.0f);
    for (const vec3& n : filtered(sharpen_normals))
        EXPECT_EQ(n.z(), 1.0f);

    const auto at = [&](int x, int y) {
        return static_cast<std::size_t>(y * width + x);
    };
    normals[at(6, 2)] = steep;
    const auto spread = filtered(spread_high_slope_normals);
    for (const std::size_t i : {at(6, 2), at(5, 2), at(6, 1), at(7, 3)})
        EXPECT_NEAR(spread[i].x(), 0.6f, 1e-4f) << i;
    EXPECT_EQ(spread[at(4, 2)].x(), 0.0f);
    const auto sharp = filtered(sharpen_normals);
    const vec3 middle = unit_vector(steep * 2.25f + up * (1.0f - 2.25f));
    EXPECT_NEAR(sharp[at(6, 2)].x(), middle.x(), 1e-6f);
    const vec3 beside = unit_vector(up * 1.375f - steep * 0.375f), corner = unit_vector(up * 0.9375f + steep * 0.0625f);
    EXPECT_NEAR(sharp[at(5, 2)].x(), beside.x(), 1e-6f);
    EXPECT_NEAR(sharp[at(6, 3)].x(), beside.x(), 1e-6f);
    EXPECT_NEAR(sharp[at(5, 1)].x(), corner.x(), 1e-6f);
}

} // namespace
