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

    /// `z(x, y)` at the cells' numbers.
    template <class Height>
    void set_ground(const Height& z) {
        for (std::size_t i = 0; i < ground.size(); ++i)
            ground[i] = z(static_cast<float>(i % width), static_cast<float>(i / width));
    }

    std::uint32_t run(sycl::queue& queue, const HostCallbacks& record) {
        const mesh_rasterizer_MeshView view = mesh.view();
        return MeshRasterizer_ComputeTangentSpaceNormals(handle(queue), &view, ground.data(), red.data(), green.data(),
                                                         blue.data(), hits.data(), &parameters, &record);
    }

    std::size_t index(int x, int y) const { return static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x); }
    /// The unpacked normal.
    vec3 normal_at(int x, int y) const {
        const std::size_t i = index(x, y);
        return vec3(red[i], 1.0f - green[i], blue[i]) * 2.0f - vec3(1.0f, 1.0f, 1.0f);
    }
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

TEST_F(Normals, RampsTiltTheChannelOfTheirAxis) {
    struct Case {
        float slope_x, slope_y; // cells up for each cell to the right, and for each row down
    };
    for (const Case& c : {Case{0.5f, 0.0f}, Case{-2.0f, 0.0f}, Case{0.0f, 0.5f}, Case{0.0f, -1.0f}}) {
        BakeScene scene(32, 20);
        scene.parameters.vertical_scale = 0.5f; // a height of 1 is 16 cells
        scene.set_ground([&](float x, float y) { return (c.slope_x * x + c.slope_y * y) / 16.0f; });
        scene.mesh = flat(0.0f);
        bake(scene);
        const float length = std::sqrt(1.0f + c.slope_x * c.slope_x + c.slope_y * c.slope_y);
        const vec3 normal = scene.normal_at(15, 10);
        EXPECT_NEAR(normal.x(), -c.slope_x / length, 1e-5f);
        EXPECT_NEAR(normal.y(), -c.slope_y / length, 1e-5f);
        EXPECT_NEAR(normal.z(), 1.0f / length, 1e-5f);
        EXPECT_TRUE((scene.red[scene.index(15, 10)] < 0.5f) == (c.slope_x > 0.0f));
        EXPECT_TRUE((scene.green[scene.index(15, 10)] > 0.5f) == (c.slope_y > 0.0f));
    }
}

TEST_F(Normals, GroundLikeTheMeshLooksUpInItsTangentFrame) {
    BakeScene scene(64, 64);
    // A plane through the mesh: as x grows by the frame's 64 cells, both rise by 16 cells.
    scene.set_ground([](float x, float) { return 0.25f * (x + 0.5f) / 64.0f; });
    scene.mesh = surface_mesh(3, [](float x, float) { return 0.25f * x; });
    bake(scene);
    const vec3 normal = scene.normal_at(30, 30);
    EXPECT_NEAR(normal.x(), 0.0f, 1e-4f);
    EXPECT_NEAR(normal.y(), 0.0f, 1e-4f);
    EXPECT_NEAR(normal.z(), 1.0f, 1e-4f);
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
        return intersect_heightmap({ground.data(), 64, 32, 64.0f}, vec3(20.5f, 10.5f, 0.0f), direction);
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

TEST_F(Normals, CellsUnderNoVisibleTriangleKeepTheirOutputs) {
    BakeScene scene(32, 32);
    scene.mesh = quad(0.0f, 0.0f, 0.5f, 1.0f, 0.1f, 0.1f);
    TestMesh turned_away = quad(0.5f, 0.0f, 1.0f, 1.0f, 0.1f, 0.1f);
    for (TarnUint3& t : turned_away.triangles)
        std::swap(t.x, t.y);
    scene.mesh.append(turned_away);
    bake(scene);
    for (int x = 0; x < 32; ++x) {
        EXPECT_EQ(scene.red[scene.index(x, 9)] == untouched, x >= 16) << x;
        EXPECT_EQ(scene.hit_at(x, 9).y == untouched, x >= 16) << x;
    }
    for (const bool has_vertices : {true, false}) {
        BakeScene empty(8, 8);
        empty.mesh = has_vertices ? flat(0.0f) : TestMesh{};
        empty.mesh.triangles.clear();
        bake(empty);
        EXPECT_EQ(empty.red, std::vector<float>(64, untouched));
    }
}

TEST_F(Normals, VertexFramesWeightByAngle) {
    // Around vertex 0: a corner of 90 degrees in the ground plane, one of 45 degrees on a slope of 45 degrees.
    TestMesh mesh;
    mesh.vertices = {{0, 0, 0, 0}, {1, 0, 0, 0}, {0, 1, 0, 0}, {-1, 0, 1, 0}, {-1, -std::sqrt(2.0f), 1, 0},
                     {5, 5, 5, 0}};
    mesh.triangles = {{0, 2, 1, 0}, {0, 4, 3, 0}};
    const VertexFrames frames(mesh.view());
    const float half_root = std::sqrt(0.5f);
    // Weights 2 and 1; the second triangle's normal leans to +x.
    const vec3 sum(half_root, 0.0f, 2.0f + half_root);
    const vec3 expected = unit_vector(sum);
    EXPECT_NEAR(frames.normals[0].x(), expected.x(), 1e-6f);
    EXPECT_NEAR(frames.normals[0].y(), 0.0f, 1e-6f);
    EXPECT_NEAR(frames.normals[0].z(), expected.z(), 1e-6f);
    EXPECT_NEAR(frames.normals[1].z(), 1.0f, 1e-6f);
    // Tangents (1, 0, 0) and (1, 0, -1), which are not normalised before they are summed up.
    EXPECT_NEAR(frames.tangents[0].x() / -frames.tangents[0].z(), 3.0f, 1e-5f);
    EXPECT_NEAR(frames.tangents[3].x(), half_root, 1e-6f);
    EXPECT_EQ(scalar_product(frames.normals[5], frames.normals[5]), 0.0f);
    EXPECT_EQ(scalar_product(frames.tangents[5], frames.tangents[5]), 0.0f);

    // An upright triangle has a normal, but no tangent; one without area has neither.
    mesh.triangles = {{0, 2, 1, 0}, {0, 1, 1, 0}, {0, 0, 0, 0}};
    mesh.vertices.push_back({1, 0, 1, 0});
    const VertexFrames plain(mesh.view());
    EXPECT_EQ(plain.normals[0].z(), 1.0f);
    EXPECT_EQ(plain.tangents[1].x(), 1.0f);
    mesh.triangles.push_back({0, 1, 6, 0});
    const VertexFrames upright(mesh.view());
    EXPECT_LT(upright.normals[0].z(), 0.95f);
    EXPECT_EQ(upright.tangents[0].x(), 1.0f);
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
