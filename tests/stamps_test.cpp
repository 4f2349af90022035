#include <algorithm>

#include "stamps/stamp_instancer_kernels.hpp"
#include "support.hpp"

namespace {

using namespace tarn_test;

stamp_instancer_Instance at(float x, float y, std::uint32_t stamp = 0) {
    stamp_instancer_Instance instance{};
    instance.position.x = x;
    instance.position.y = y;
    instance.stamp = stamp;
    instance.height = -12345.0f;
    return instance;
}

/// A terrain with its ids, the stamps on it, and how they are placed.
struct Scene {
    Scene(int width, int height, float level)
        : heights(static_cast<std::size_t>(width * height), level), ids(heights.size(), 0.0f) {
        parameters.width = width;
        parameters.height = height;
    }

    void set_stamps(int stamp_width, int stamp_height, std::vector<float> cells) {
        stamps = std::move(cells);
        parameters.stamps_width = stamp_width;
        parameters.stamps_height = static_cast<int>(stamps.size()) / stamp_width;
        parameters.stamp_width = stamp_width;
        parameters.stamp_height = stamp_height;
    }

    std::uint32_t run(sycl::queue& queue, const HostCallbacks& record) {
        parameters.instance_count = static_cast<int>(instances.size());
        return StampInstancer_Populate(handle(queue), heights.data(), ids.data(), stamps.data(), instances.data(),
                                       &parameters, &record);
    }

    float height_at(int x, int y) const { return heights[static_cast<std::size_t>(y * parameters.width + x)]; }
    float id_at(int x, int y) const { return ids[static_cast<std::size_t>(y * parameters.width + x)]; }

    stamp_instancer_Parameters parameters{};
    std::vector<float> heights, ids, stamps;
    std::vector<stamp_instancer_Instance> instances;
};

class Stamps : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    void populate(Scene& scene) { EXPECT_EQ(scene.run(queue, host.callbacks()), ok); }
};

TEST_F(Stamps, LieOnWholeCellsWithTheirCentreInTheCellOfThePosition) {
    struct Case {
        int stamp_width, stamp_height;
        float x, y;
        int left, top;
    };
    const std::vector<Case> cases = {
        {4, 3, 10.9f, 8.2f, 8, 7},                                 // even: the centre is the cell right of the middle
        {1, 1, 3.0f, 4.99f, 3, 4},    {3, 2, -0.5f, 0.0f, -1, -1}, // truncated toward zero, not down
        {3, 3, 15.5f, 11.5f, 14, 10}, {2, 2, 40.0f, 5.0f, 39, 4},  // nothing of it is on the grid
    };
    for (const Case& c : cases) {
        Scene scene(16, 12, 0.0f);
        scene.set_stamps(c.stamp_width, c.stamp_height,
                         std::vector<float>(static_cast<std::size_t>(c.stamp_width * c.stamp_height), 2.0f));
        scene.instances.assign(1, at(c.x, c.y));
        populate(scene);
        for (int y = 0; y < 12; ++y) {
            for (int x = 0; x < 16; ++x) {
                const bool under =
                    x >= c.left && x < c.left + c.stamp_width && y >= c.top && y < c.top + c.stamp_height;
                EXPECT_EQ(scene.height_at(x, y), under ? 2.0f : 0.0f) << x << ", " << y;
                EXPECT_EQ(scene.id_at(x, y) != 0.0f, under);
            }
        }
    }
}

TEST_F(Stamps, StandOnTheTerrainAsItCameAndExtrapolateItOffTheGrid) {
    Scene scene(8, 6, 0.0f);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x)
            scene.heights[static_cast<std::size_t>(y * 8 + x)] = static_cast<float>(4 * x - 2 * y);
    scene.set_stamps(1, 1, {100.0f});
    scene.instances = {at(3.5f, 2.5f),   at(3.5f, 2.5f), at(4.0f, 3.0f),
                       at(1.25f, 4.75f), at(9.5f, 2.5f), at(-0.25f, 2.5f)};
    populate(scene);
    // The plane 4 (x - 0.5) - 2 (y - 0.5). Beyond the right border both columns are the last one, which goes on flat;
    // just before the left one the cell is truncated toward zero, and the slope of the first two columns goes on.
    const float expected[] = {8.0f, 8.0f, 9.0f, -5.5f, 24.0f, -7.0f};
    for (std::size_t n = 0; n < scene.instances.size(); ++n)
        EXPECT_EQ(scene.instances[n].height, expected[n]) << n;
    EXPECT_EQ(scene.height_at(3, 2), 108.0f);
}

TEST_F(Stamps, HighestWinsAndALowerOneLeavesHeightAndId) {
    Scene scene(9, 9, 1.0f);
    scene.set_stamps(1, 1, {5.0f, 3.0f, -2.0f});
    scene.instances = {at(2.5f, 2.5f, 1), at(2.5f, 2.5f, 0), at(6.5f, 6.5f, 2)};
    scene.ids.assign(scene.ids.size(), 0.25f);
    const Threads one(1);
    populate(scene);
    EXPECT_EQ(scene.height_at(2, 2), 6.0f);
    EXPECT_EQ(scene.id_at(2, 2), tarn::stamp_instancer::instance_id(1));
    EXPECT_EQ(scene.height_at(6, 6), 1.0f);
    EXPECT_EQ(scene.id_at(6, 6), 0.25f);
    EXPECT_EQ(std::count(scene.ids.begin(), scene.ids.end(), 0.25f), 80);
}

TEST_F(Stamps, HolesLeaveTheTerrainUnlessItLiesDeeperStill) {
    Scene scene(8, 8, 1.0f);
    scene.set_stamps(2, 1, {0.0f, -0.0f});
    scene.instances.assign(1, at(4.5f, 4.5f));
    populate(scene);
    EXPECT_EQ(scene.heights, std::vector<float>(64, 1.0f));
    EXPECT_EQ(scene.ids, std::vector<float>(64, 0.0f));
    // The base is the height of the one cell above, the hole falls on the abyss beside it.
    scene.heights[4 * 8 + 3] = -2e6f;
    populate(scene);
    EXPECT_EQ(scene.height_at(3, 4), -99999.0f + 1.0f);
    EXPECT_GT(scene.id_at(3, 4), 0.0f);
}

} // namespace
