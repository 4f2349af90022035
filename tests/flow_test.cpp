#include "flow/flow.hpp"

#include <algorithm>
#include <cmath>

#include "simulated_gpu.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;
using flow::Point;

// ---------------------------------------------------------------------------------------------------------------------
// Pits

TEST(PitFilling, WidthAloneSetsTheLevels) {
    for (const auto& [width, coarser] :
         {std::pair{1, 0}, {128, 0}, {511, 0}, {512, 1}, {1023, 1}, {1024, 2}, {2048, 3}, {65536, 8}}) {
        EXPECT_EQ(flow::coarser_levels(width), coarser) << width;
        EXPECT_EQ(flow::least_height(width), 1 << coarser) << width;
        if (coarser > 0) {
            EXPECT_TRUE(width >> coarser >= 256 && width >> coarser < 512);
        }
    }
}

Cells without_pits(const Cells& heights, int width) {
    sycl::queue queue = cpu_queue();
    Cells work = heights;
    {
        flow::Grid grid(work.data(),
                        sycl::range<2>(work.size() / static_cast<std::size_t>(width), static_cast<std::size_t>(width)));
        flow::fill_pits(grid, queue);
    }
    return work;
}

TEST(PitFilling, RaisesPitsAndLeavesSlopesWithTheirDetail) {
    // Detail that a coarser level cannot hold, on a slope.
    const auto checkered = [](float x, float y) {
        return std::fmod(x + y, 2.0f) == 0.0f ? 0.25f : -0.25f;
    };
    const Cells slope = ground(512, 64, [&](float x, float y) { return 4.0f * x + checkered(x, y); });
    const Cells same = without_pits(slope, 512);
    for (int y = 0; y < 64; ++y)
        for (std::size_t x = 8; x < 504; ++x)
            ASSERT_NEAR(same[static_cast<std::size_t>(y) * 512 + x], slope[static_cast<std::size_t>(y) * 512 + x],
                        1e-3);

    Cells pitted = slope;
    // A pit that is one cell on the coarser level; the floor of a wider one holds itself down.
    for (std::size_t y = 30; y < 32; ++y)
        for (std::size_t x = 200; x < 202; ++x)
            pitted[y * 512 + x] -= 50.0f;
    const Cells filled = without_pits(pitted, 512);
    EXPECT_GT(filled[30 * 512 + 200], pitted[30 * 512 + 200] + 25.0f);
    EXPECT_LT(filled[30 * 512 + 200], slope[30 * 512 + 200]);
    EXPECT_NEAR(filled[32 * 512 + 300], pitted[32 * 512 + 300], 1e-3);

    // Level ground counts as filled: its detail goes, but for the rim, where the coarser level is not quite level.
    const Cells plain = ground(512, 40, [&](float x, float y) { return 8.0f + checkered(x, y); });
    const Cells smooth = without_pits(plain, 512);
    for (std::size_t y = 6; y < 34; ++y)
        for (std::size_t x = 6; x < 506; ++x)
            ASSERT_NEAR(smooth[y * 512 + x], 8.0f, 0.1f);

    const Cells narrow = ground(511, 2000, [&](float x, float y) { return 8.0f + checkered(x, y); });
    EXPECT_TRUE(same_bits(without_pits(narrow, 511), narrow));
}

// ---------------------------------------------------------------------------------------------------------------------
// Particles

std::vector<Point> seed(const Cells& mask, std::size_t columns, std::size_t rows, std::uint32_t value) {
    const sycl::range<2> extent(rows, columns);
    flow::Grid grid = mask.empty() ? flow::Grid(sycl::range<2>(1, 1)) : flow::Grid(mask.data(), extent);
    return flow::seed_particles(grid, extent, value);
}

TEST(Particles, StartByTheChanceOfTheMask) {
    EXPECT_TRUE(seed(Cells(1000, 0.0f), 50, 20, 1).empty());
    EXPECT_TRUE(seed(Cells(1000, -1.0f), 50, 20, 1).empty());
    EXPECT_TRUE(seed(Cells(1000, not_a_number), 50, 20, 1).empty());
    EXPECT_EQ(seed(Cells(1000, 1.5f), 50, 20, 1).size(), 1000u);
    EXPECT_NEAR(static_cast<double>(seed(Cells(100000, 0.3f), 500, 200, 1).size()), 30000.0, 600.0);
    EXPECT_EQ(seed({0.0f}, 1, 1, 1).size(), 1u); // a mask of one cell counts as none
    Cells one(1000, 0.0f);
    one[777] = 2.0f;
    const auto points = seed(one, 50, 20, 1);
    ASSERT_EQ(points.size(), 1u);
    EXPECT_EQ(static_cast<int>(points[0].x()), 27);
    EXPECT_EQ(static_cast<int>(points[0].y()), 15);
}

// ---------------------------------------------------------------------------------------------------------------------
// Runs

flow_Parameters parameters(int width, int height, float flow_length = 0.5f, float spread = 0.0f,
                           std::uint32_t seed_value = 3) {
    return {width, height, flow_length, spread, seed_value};
}

class FlowMap : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;
    std::uint32_t status = 0;

    Cells run(sycl::queue& on, const flow_Parameters& p, const Cells& heights, const Cells& mask = {}) {
        Cells map(heights.size(), 77.0f);
        const HostCallbacks record = host.callbacks();
        status =
            FlowSimulation(handle(on), heights.data(), map.data(), mask.empty() ? nullptr : mask.data(), &p, &record);
        return map;
    }

    Cells finished(const flow_Parameters& p, const Cells& heights, const Cells& mask = {}) {
        const Cells map = run(queue, p, heights, mask);
        EXPECT_EQ(status, ok);
        EXPECT_TRUE(host.errors.empty());
        return map;
    }
};

TEST_F(FlowMap, IsHighInValleysAndBelowOne) {
    const Cells valley = ground(200, 120, [](float x, float y) { return std::fabs(x - 80.0f) + 0.3f * y + 10.0f; });
    for (const float spread : {0.0f, 100.0f}) {
        const Cells map = finished(parameters(200, 120, 0.5f, spread), valley);
        double centre = 0.0, sides = 0.0;
        for (std::size_t y = 0; y < 120; ++y) {
            centre += static_cast<double>(map[y * 200 + 80]);
            sides += static_cast<double>(map[y * 200 + 20] + map[y * 200 + 160]);
        }
        EXPECT_GT(centre, 5.0 * sides);
        EXPECT_TRUE(std::all_of(map.begin(), map.end(), [](float flow) { return flow >= 0.0f && flow < 1.0f; }));
    }
    const Cells narrow = finished(parameters(200, 120), valley);
    const Cells wide = finished(parameters(200, 120, 0.5f, 3000.0f), valley);
    EXPECT_GT(wide[100 * 200 + 84], narrow[100 * 200 + 84]); // pushed beside the channel
}

/// On a CPU, visits are counted in 8 bits at first, on a GPU are not.
TEST_F(FlowMap, CountsThousandsOfVisitsOfACell) {
    const Cells bowl = ground(96, 96, [](float x, float y) { return std::hypot(x - 48.0f, y - 40.0f) + 1.0f; });
    SimulatedGpu gpu;
    const Cells map = finished(parameters(96, 96, 10.0f, 1.0f), bowl);
    EXPECT_TRUE(same_bits(map, run(gpu.queue, parameters(96, 96, 10.0f, 1.0f), bowl)));
    EXPECT_EQ(std::max_element(map.begin(), map.end()) - map.begin(), 40 * 96 + 48);
}

TEST_F(FlowMap, WithoutParticlesStaysAsItWas) {
    const Cells heights = rough_terrain(60, 40);
    EXPECT_TRUE(same_bits(finished(parameters(60, 40), heights, Cells(2400, 0.0f)), Cells(2400, 77.0f)));
    EXPECT_EQ(host.progress, std::vector<double>{0.0});
    EXPECT_EQ(host.released, host.acquired);
    // On level ground no particle walks, but the map is cleared.
    EXPECT_TRUE(same_bits(finished(parameters(60, 40), Cells(2400, 1.0f)), Cells(2400, 0.0f)));
}

TEST_F(FlowMap, ReportsRunUpToFifty) {
    finished(parameters(60, 40), rough_terrain(60, 40));
    ASSERT_EQ(host.progress.size(), 1u + 29u);
    EXPECT_EQ(host.progress[1], 6.25);
    EXPECT_EQ(host.progress[2], 7.8125);
    EXPECT_EQ(host.progress.back(), 50.0);
    EXPECT_EQ(host.acquired, std::vector<std::size_t>{std::size_t{64} << 20});
}

TEST_F(FlowMap, CancelKeepsTheBatchesThatWereDone) {
    const Cells heights = rough_terrain(60, 40);
    const Cells whole = finished(parameters(60, 40), heights);
    host.cancel_questions = 0;
    host.cancel_at = 1;
    const Cells part = run(queue, parameters(60, 40), heights);
    EXPECT_EQ(status, cancelled);
    EXPECT_EQ(host.cancel_questions, 1);
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_LT(*std::max_element(part.begin(), part.end()), 4.0f / 32.0f);
    EXPECT_NEAR(sum(part) / sum(whole), 4.0 / 32.0, 0.02);
}

} // namespace
