#include "dunes/arrakis.hpp"

#include <algorithm>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

std::size_t cell_count(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

// ---------------------------------------------------------------------------------------------------------------------
// Runs

arrakis_Parameters parameters(int width, int height, float rounds) {
    arrakis_Parameters p{};
    p.width = width;
    p.height = height;
    p.duration = rounds / 2560.0f;
    p.repose_angle = 34.0f;
    p.terrain_size = static_cast<float>(width);
    p.terrain_height = 2.0f; // a cell is half a unit of height wide
    return p;
}

class Dunes : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    struct Result {
        Cells ground, height, sand, wind_trace;

        void expect_height_is_ground_and_sand() const {
            for (std::size_t i = 0; i < ground.size(); ++i)
                ASSERT_EQ(height[i], ground[i] + sand[i]) << i;
        }
    };

    std::uint32_t status = 0;

    Result run(sycl::queue& on, const arrakis_Parameters& p, const Cells& ground, const Cells& sand) {
        Result result{ground, ground, sand, Cells(ground.size(), 77.0f)};
        const HostCallbacks record = host.callbacks();
        status =
            DuneSimulation(handle(on), result.height.data(), result.sand.data(), result.wind_trace.data(), &p, &record);
        return result;
    }

    Result finished(const arrakis_Parameters& p, const Cells& ground, const Cells& sand) {
        Result result = run(queue, p, ground, sand);
        EXPECT_EQ(status, ok);
        EXPECT_TRUE(host.errors.empty());
        return result;
    }

    /// Gentle hills, a few cells high.
    static Cells hills(int width, int height) {
        Cells cells = rough_terrain(width, height);
        for (float& cell : cells)
            cell *= 0.05f;
        return cells;
    }

    static Cells sheet(int width, int height, float depth) { return Cells(cell_count(width, height), depth); }
};

TEST_F(Dunes, SandIsKeptAndHeightIsGroundAndSandToTheBit) {
    for (const auto& [width, height] : {std::pair{96, 96}, {128, 50}, {40, 90}}) {
        const Cells ground = hills(width, height);
        const Result result = finished(parameters(width, height, 60.0f), ground, sheet(width, height, 0.4f));
        EXPECT_NEAR(sum(result.sand), 0.4 * width * height, 1e-5 * width * height);
        result.expect_height_is_ground_and_sand();
        EXPECT_GT(*std::max_element(result.sand.begin(), result.sand.end()), 0.6f); // it has moved
        EXPECT_GT(*std::min_element(result.sand.begin(), result.sand.end()), -1e-4f);
    }
}

TEST_F(Dunes, HeightsAndSandAreTheSameForAnyNumberOfThreads) {
    const auto p = parameters(550, 300, 3.0f); // several tiles and bands of rows
    const Cells ground = hills(550, 300), sand = sheet(550, 300, 0.4f);
    const Result many = finished(p, ground, sand);
    const Threads one(1);
    const Result single = finished(p, ground, sand);
    EXPECT_TRUE(same_bits(many.height, single.height));
    EXPECT_TRUE(same_bits(many.sand, single.sand));
}

TEST_F(Dunes, BareGroundStaysAndStreamlinesAreDrawnAllTheSame) {
    const Cells ground = hills(64, 48);
    const Result result = finished(parameters(64, 48, 5.0f), ground, sheet(64, 48, 0.0f));
    EXPECT_TRUE(same_bits(result.height, ground));
    EXPECT_TRUE(std::all_of(result.sand.begin(), result.sand.end(), [](float depth) { return depth == 0.0f; }));
    EXPECT_GT(sum(result.wind_trace), 1.0);
}

TEST_F(Dunes, StreamlinesSumToTheAreaOfTheirTents) {
    for (const auto& [width, height] : {std::pair{256, 64}, {48, 80}, {16, 16}, {100, 33}, {64, 4}}) {
        const Result result =
            finished(parameters(width, height, 1.0f), hills(width, height), sheet(width, height, 0.1f));
        const int steps = width / 16, lines = width * height / 256;
        double tent = 0.0;
        for (int t = 0; t < steps; ++t)
            tent += std::min(t, steps - t);
        EXPECT_NEAR(sum(result.wind_trace), lines * tent * 2.0 / steps * 0.7, 1e-4 * lines * steps)
            << width << " x " << height;
    }
    for (const auto& [width, height] : {std::pair{15, 100}, {40, 6}}) {
        const Result result =
            finished(parameters(width, height, 1.0f), hills(width, height), sheet(width, height, 0.1f));
        EXPECT_TRUE(same_bits(result.wind_trace, sheet(width, height, 0.0f))) << width << " x " << height;
    }
}

TEST_F(Dunes, NoRoundsPutTheSandOnTheGround) {
    const Cells ground = hills(40, 40), sand = hills(40, 40);
    const Result result = finished(parameters(40, 40, 0.0f), ground, sand);
    EXPECT_TRUE(same_bits(result.sand, sand));
    EXPECT_TRUE(same_bits(result.wind_trace, sheet(40, 40, 0.0f)));
    result.expect_height_is_ground_and_sand();
    EXPECT_EQ(host.progress, std::vector<double>{0.0});
}

TEST_F(Dunes, DurationIsRoundedUpToWholeRounds) {
    EXPECT_EQ(arrakis::round_count(1.0f), 2560.0f);
    EXPECT_EQ(arrakis::round_count(0.5f), 1280.0f);
    EXPECT_EQ(arrakis::round_count(0.0f), 0.0f);
    EXPECT_EQ(arrakis::round_count(1e-9f), 1.0f);
    // Every round counts the cells once; the reports start at 5 %, and from then on each round makes one.
    finished(parameters(16, 16, 40.0f), hills(16, 16), sheet(16, 16, 0.1f));
    ASSERT_EQ(host.progress.size(), 1u + 39u);
    EXPECT_EQ(host.progress[1], 5.0);
    EXPECT_EQ(host.progress.back(), 100.0);
}

TEST_F(Dunes, ReposeIsTheArcTangentOfTheAngleInRadians) {
    arrakis_Parameters p = parameters(50, 70, 1.0f);
    EXPECT_EQ(arrakis::cell_width(p), 0.5f);
    EXPECT_NEAR(arrakis::repose_step(p), 0.5 * std::atan(34.0 / 180.0 * 3.14159265358979), 1e-7);
    p.repose_angle = 0.0f;
    EXPECT_EQ(arrakis::repose_step(p), 0.0f);
}

TEST_F(Dunes, SandMovesDownwind) {
    const int n = 64;
    Cells sand = sheet(n, n, 0.0f);
    for (int y = 0; y < n; ++y)
        for (int x = 4; x < 12; ++x)
            sand[cell_count(n, y) + static_cast<std::size_t>(x)] = 0.02f; // too shallow to shelter anything
    const auto centre = [&](const Cells& cells) {
        double moment = 0.0;
        for (std::size_t i = 0; i < cells.size(); ++i)
            moment += static_cast<double>(cells[i]) * static_cast<double>(i % static_cast<std::size_t>(n));
        return moment / sum(cells);
    };
    const Result result = finished(parameters(n, n, 1.0f), sheet(n, n, 0.0f), sand);
    // Sixteen hops of 0.7 cells in the mean.
    EXPECT_NEAR(centre(result.sand) - centre(sand), 16.0 * 0.7, 0.8);
}

TEST_F(Dunes, CancelStopsAfterTheRoundWithoutStreamlinesAndWithStatusZero) {
    const Threads one(1);
    const Cells ground = hills(48, 48), sand = sheet(48, 48, 0.3f);
    const Result two_rounds = finished(parameters(48, 48, 2.0f), ground, sand);
    host.cancel_questions = 0;
    host.cancel_at = 1; // at 5 %, after two rounds of 40
    const Result stopped = finished(parameters(48, 48, 40.0f), ground, sand);
    EXPECT_EQ(host.cancel_questions, 1);
    EXPECT_TRUE(same_bits(stopped.height, two_rounds.height));
    EXPECT_TRUE(same_bits(stopped.sand, two_rounds.sand));
    EXPECT_TRUE(same_bits(stopped.wind_trace, sheet(48, 48, 0.0f)));
    EXPECT_EQ(host.released, host.acquired);
}

} // namespace
