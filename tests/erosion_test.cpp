#include "erosion/parallel_erosion.hpp"

#include <algorithm>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;
namespace erosion = parallel_erosion;
using erosion::Plan;

/// Cells one unit of height wide. `levels` is the logarithm that counts levels, exact while the feature stays small.
parallel_erosion_Parameters parameters(int width, int height, float levels, float iterations) {
    parallel_erosion_Parameters p{};
    p.Resolution = {static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
    p.terrain_size = static_cast<float>(width);
    p.terrain_height = 1.0f;
    p.feature_size = 2.0f * std::exp2(levels);
    p.iterations = iterations;
    p.seed = 7;
    p.erosion_strength = 0.6f;
    p.shaping_strength = 0.5f;
    p.shaping_sharpness = 0.5f;
    p.shaping_detail = 0.25f;
    p.fill_slope_scale = 1.0f;
    p.fill_angle = 30.0f;
    p.plain_deposition = 0.3f;
    p.plain_angle = 8.0f;
    p.terrace_deposition = 0.2f;
    p.terrace_angle = 35.0f;
    p.constant_capacity = 0.25f;
    return p;
}

/// Hills with pits and rough ground, a few cells high.
Cells hills(int width, int height) {
    Cells cells = rough_terrain(width, height);
    for (float& cell : cells)
        cell *= 0.1f;
    return cells;
}

// ---------------------------------------------------------------------------------------------------------------------
// The plan

Plan plan_of(float level_float) {
    Plan plan{};
    plan.level_float = level_float;
    plan.shaping_level = 100.0f;
    return plan;
}

TEST(ErosionPlan, LevelsAndTheirRounds) {
    const auto planned = [](float levels) {
        return erosion::plan_run(parameters(256, 256, levels, 1000.0f), false);
    };
    EXPECT_EQ(planned(2.0f).level_float, 2.0f);
    EXPECT_EQ(planned(2.0f).level_count, 2);
    EXPECT_EQ(planned(2.3f).level_count, 3);
    EXPECT_EQ(planned(1.0f).level_count, 1);
    EXPECT_EQ(planned(-3.0f).level_count, 1); // features below a cell

    const auto p = parameters(256, 256, 2.0f, 1000.0f);
    const auto rounds = [&](float level_float, int k) {
        return erosion::rounds(p, plan_of(level_float), k);
    };
    EXPECT_EQ(rounds(2.0f, 0), 1000);
    EXPECT_EQ(rounds(2.3f, 0), 300); // the coarsest level stands for the fraction
    EXPECT_EQ(rounds(2.3f, 1), 1000);
    EXPECT_EQ(rounds(2.3f, 2), 1000);
    EXPECT_EQ(rounds(0.0f, 0), static_cast<int>(std::ceil(1000.0 * std::exp(-1.0))));
    // Half a level behind the bend, a curve that begins flat; far behind it, halves.
    EXPECT_EQ(rounds(4.0f, 3), static_cast<int>(std::ceil(1000.0 * std::exp2((1.0 - std::exp(-0.375)) / 0.75 - 0.5))));
    EXPECT_NEAR(static_cast<double>(rounds(12.0f, 10)) / rounds(12.0f, 11), 2.0, 0.2);
}

// ---------------------------------------------------------------------------------------------------------------------
// Runs

struct Eroded {
    Cells height, flow, sediment, wear;
    std::uint32_t status;
};

class Erosion : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    Eroded run(sycl::queue& on, const Cells& height, const parallel_erosion_Parameters& p,
               const Cells* spawn_map = nullptr) {
        const HostCallbacks record = host.callbacks();
        // What the outputs held before must not show.
        Eroded e{height, Cells(height.size(), 9.0f), Cells(height.size(), not_a_number), Cells(height.size(), -77.0f),
                 0};
        e.status =
            ParallelErosionSimulation(handle(on), e.height.data(), spawn_map != nullptr ? spawn_map->data() : nullptr,
                                      e.flow.data(), e.sediment.data(), nullptr, e.wear.data(), &p, &record);
        return e;
    }

    Eroded eroded(const Cells& height, const parallel_erosion_Parameters& p, const Cells* spawn_map = nullptr) {
        Eroded e = run(queue, height, p, spawn_map);
        EXPECT_EQ(e.status, ok);
        return e;
    }

    static void expect_same(const Eroded& actual, const Eroded& expected) {
        EXPECT_TRUE(same_bits(actual.height, expected.height));
        EXPECT_TRUE(same_bits(actual.flow, expected.flow));
        EXPECT_TRUE(same_bits(actual.sediment, expected.sediment));
        EXPECT_TRUE(same_bits(actual.wear, expected.wear));
    }
};

TEST_F(Erosion, HeightWearAndSedimentBalance) {
    const Cells terrain = hills(96, 80);
    auto p = parameters(96, 80, 1.0f, 60.0f); // one level: nothing but the particles
    p.shaping_strength = 0.0f;
    const Eroded e = eroded(terrain, p);
    for (std::size_t i = 0; i < terrain.size(); ++i) {
        const float raised = e.height[i] - terrain[i] + e.wear[i];
        ASSERT_GE(e.wear[i], 0.0f);
        ASSERT_GE(raised, -1e-3f) << i;
        ASSERT_LE(e.sediment[i], raised + 1e-3f) << i;
        ASSERT_GE(e.sediment[i], raised - 0.95f * e.wear[i] - 1e-3f) << i;
    }
    EXPECT_GT(sum(e.wear), 100.0);
    EXPECT_GT(sum(e.sediment), 10.0);
    // Shaping counts what it cuts with its sign.
    p.shaping_strength = 1.0f;
    const Eroded shaped = eroded(Cells(terrain), p);
    EXPECT_LT(sum(shaped.wear), sum(e.wear));
}

TEST_F(Erosion, NoRoundsFoldThePyramidBack) {
    const Cells terrain = hills(64, 48);
    for (const float iterations : {0.0f, -5.0f}) {
        const Eroded e = eroded(terrain, parameters(64, 48, 3.0f, iterations));
        for (std::size_t i = 0; i < terrain.size(); ++i)
            ASSERT_NEAR(e.height[i], terrain[i], 1e-4f);
        EXPECT_EQ(sum(e.flow) + sum(e.sediment), 0.0);
        EXPECT_EQ(host.progress.back(), 0.0); // no work, no report
    }
    const Eroded single = eroded(terrain, parameters(64, 48, 1.0f, 0.0f));
    EXPECT_TRUE(same_bits(single.height, terrain));
}

TEST_F(Erosion, LogsOneFirstOfAll) {
    static std::string order;
    order.clear();
    HostCallbacks record = host.callbacks();
    record.log_info = [](const char* text) {
        order += text;
    };
    record.acquire_memory = [](std::size_t) {
        order += 'a';
    };
    record.progress = [](double percent) {
        order += percent == 0.0 ? "0" : "p";
    };
    Cells cells = hills(8, 8), flow = cells, sediment = cells, wear = cells;
    auto p = parameters(8, 8, 1.0f, 1.0f);
    EXPECT_EQ(ParallelErosionSimulation(handle(queue), cells.data(), nullptr, flow.data(), sediment.data(), nullptr,
                                        wear.data(), &p, &record),
              ok);
    EXPECT_EQ(order, "1a0p");
    // Also before a refusal, and through the record that was passed.
    p.terrain_size = not_a_number;
    HostCallbacks other = record;
    other.log_info = [](const char* text) {
        order += std::string("o") + text;
    };
    ParallelErosionSimulation(handle(queue), cells.data(), nullptr, flow.data(), sediment.data(), nullptr, wear.data(),
                              &p, &other);
    EXPECT_EQ(order, "1a0po1");
}

TEST_F(Erosion, ReportsEveryRoundAndStopsWhereTold) {
    // One level of 32 equal rounds: the report step after the first is 0.05 units, not 5 %.
    const Cells terrain = hills(40, 24);
    eroded(terrain, parameters(40, 24, 1.0f, 32.0f));
    std::vector<double> expected{0.0};
    for (int done = 2; done <= 32; ++done)
        expected.push_back(done * 100.0 / 32.0);
    EXPECT_EQ(host.progress, expected);

    // A cancelled run of one level is a shorter one whose visits are not scaled.
    for (const int reports : {1, 7, 31}) {
        host.cancel_questions = 0;
        host.cancel_at = reports;
        Eroded stopped = run(queue, terrain, parameters(40, 24, 1.0f, 32.0f));
        EXPECT_EQ(stopped.status, cancelled);
        EXPECT_EQ(host.cancel_questions, reports);
        host.cancel_at = 0;
        for (float& visits : stopped.flow)
            visits = std::min(visits * 0.001f, 1.0f);
        expect_same(stopped, eroded(terrain, parameters(40, 24, 1.0f, static_cast<float>(reports + 1))));
    }
}

TEST_F(Erosion, CancelsOnCoarseLevelsLeaveTheHeightAlone) {
    const Cells terrain = hills(160, 160);
    const auto p = parameters(160, 160, 4.0f, 20.0f);
    eroded(terrain, p);
    EXPECT_EQ(host.progress.back(), 100.0);
    const int questions = host.cancel_questions;
    const Plan plan = erosion::plan_run(p, false);
    const auto rounds = [&](int k) {
        return erosion::rounds(p, plan, k);
    };
    // Rounds up to the end of the second level and of the one below the full size; reports begin in the second.
    const int second = rounds(0) + rounds(1), third = second + rounds(2), silent = third + rounds(3) - questions;
    ASSERT_LT(silent + 1, second);

    for (const int rounds_done : {silent + 1, second, second + 1, third, third + 1, silent + questions}) {
        host.cancel_questions = 0;
        host.cancel_at = rounds_done - silent;
        const Eroded e = run(queue, terrain, p);
        EXPECT_EQ(e.status, cancelled) << rounds_done;
        EXPECT_EQ(host.cancel_questions, host.cancel_at);
        EXPECT_EQ(static_cast<bool>(same_bits(e.height, terrain)), rounds_done <= second) << rounds_done;
        EXPECT_EQ(sum(e.sediment) == 0.0, rounds_done <= second) << rounds_done;
        EXPECT_EQ(sum(e.wear) == 0.0, rounds_done <= second) << rounds_done;
        EXPECT_EQ(sum(e.flow) == 0.0, rounds_done <= third) << rounds_done; // the full-size level's own
    }
    EXPECT_EQ(host.released, host.acquired);
}

} // namespace
