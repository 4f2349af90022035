#include "thermal/thermal.hpp"

#include <algorithm>

#include "support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

namespace {

using namespace tarn;
using namespace tarn_test;

using Cells = std::vector<float>;

/// Cells one unit of height wide. `levels` is the logarithm that counts levels.
thermal_Parameters parameters(int width, int height, float levels, float iterations) {
    thermal_Parameters p{};
    p.width = width;
    p.height = height;
    p.duration = iterations / 2560.0f;
    p.erosion_rate = 40.0f;
    p.curvature_bias = 0.3f;
    p.repose_angle = 35.0f;
    p.terrain_size = static_cast<float>(width);
    p.terrain_height = 1.0f;
    p.feature_size = std::exp2(levels);
    p.absorption = 0.0f;
    return p;
}

struct Weathered {
    Cells heights, depth, wear;
    std::uint32_t status;
};

class Thermal : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    Weathered run(sycl::queue& on, const Cells& heights, const thermal_Parameters& p, const Cells* erosion = nullptr,
                  const Cells* absorption = nullptr) {
        const HostCallbacks record = host.callbacks();
        // What the outputs held before must not show.
        Weathered w{heights, Cells(heights.size(), -77.0f), Cells(heights.size(), 99.0f), 0};
        w.status = ThermalSimulation(handle(on), w.heights.data(), w.depth.data(), w.wear.data(),
                                     erosion != nullptr ? erosion->data() : nullptr,
                                     absorption != nullptr ? absorption->data() : nullptr, &p, &record);
        return w;
    }

    Weathered weathered(const Cells& heights, const thermal_Parameters& p, const Cells* erosion = nullptr,
                        const Cells* absorption = nullptr) {
        Weathered w = run(queue, heights, p, erosion, absorption);
        EXPECT_EQ(w.status, ok);
        return w;
    }

    static void expect_same(const Weathered& actual, const Weathered& expected) {
        EXPECT_TRUE(same_bits(actual.heights, expected.heights));
        EXPECT_TRUE(same_bits(actual.depth, expected.depth));
        EXPECT_TRUE(same_bits(actual.wear, expected.wear));
    }
};

/// A cone with a slope of `steepness` in the middle of a square.
Cells cone(int side, float steepness) {
    Cells cells;
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x)
            cells.push_back(steepness * std::max(0.0f, static_cast<float>(side) * 0.4f -
                                                           std::hypot(static_cast<float>(x - side / 2),
                                                                      static_cast<float>(y - side / 2))));
    return cells;
}

TEST_F(Thermal, NothingMovesOnFlatGroundOrWithoutIterations) {
    const Cells flat(48 * 48, 3.5f), zeros(48 * 48, 0.0f);
    expect_same(weathered(flat, parameters(48, 48, 3.5f, 60.0f)), {flat, zeros, zeros, 0});

    const Cells rough = rough_terrain(48, 48);
    const Weathered unmoved = weathered(rough, parameters(48, 48, 3.5f, 0.0f));
    EXPECT_EQ(unmoved.depth, zeros);
    EXPECT_EQ(unmoved.wear, zeros);
    for (std::size_t i = 0; i < rough.size(); ++i)
        ASSERT_NEAR(unmoved.heights[i], rough[i], 1e-4f);
    EXPECT_EQ(host.progress.back(), 0.0); // no work, no report
}

TEST_F(Thermal, CoverMovesAndNothingIsLostInsideTheBorder) {
    // Only the inner part stands out, so that nothing reaches the border.
    const Cells peak = cone(64, 2.0f);
    const Weathered w = weathered(peak, parameters(64, 64, 1.0f, 5.0f));
    EXPECT_NEAR(sum(w.heights), sum(peak), 1e-5 * sum(peak));
    // Cover is what was loosened, moved about.
    EXPECT_NEAR(sum(w.depth), sum(w.wear), 1e-4 * sum(w.wear));
    EXPECT_GT(sum(w.wear), 100.0);
    EXPECT_TRUE(std::all_of(w.depth.begin(), w.depth.end(), [](float depth) { return depth >= 0.0f; }));

    // Full absorption: cells only shed.
    auto p = parameters(64, 64, 1.0f, 40.0f);
    p.absorption = 1.0f;
    const Weathered lost = weathered(peak, p);
    EXPECT_LT(sum(lost.heights), sum(peak) - 1.0);
    for (std::size_t i = 0; i < peak.size(); ++i)
        ASSERT_LE(lost.heights[i], peak[i]);
}

TEST_F(Thermal, MasksCountOnlyWithTheirFlags) {
    const Cells terrain = rough_terrain(40, 40), ones(40 * 40, 1.0f), zeros(40 * 40, 0.0f);
    Cells varied;
    for (int i = 0; i < 40 * 40; ++i)
        varied.push_back(static_cast<float>(i % 7) / 6.0f);
    auto p = parameters(40, 40, 3.0f, 40.0f);
    p.absorption = 0.4f;
    const Weathered plain = weathered(terrain, p);
    expect_same(weathered(terrain, p, &varied, &varied), plain); // flags off: not read
    p.use_erosion_mask = 1;
    expect_same(weathered(terrain, p), plain); // no mask given
    expect_same(weathered(terrain, p, &ones), plain);
    EXPECT_FALSE(same_bits(weathered(terrain, p, &varied).heights, plain.heights));
    const Weathered shielded = weathered(terrain, p, &zeros);
    EXPECT_EQ(sum(shielded.wear), 0.0);
    p.use_erosion_mask = 0;
    p.use_absorption_mask = 200; // any value but 0
    expect_same(weathered(terrain, p), plain);
    expect_same(weathered(terrain, p, nullptr, &ones), plain);
    const Weathered kept = weathered(terrain, p, nullptr, &zeros);
    p.absorption = 0.0f;
    p.use_absorption_mask = 0;
    expect_same(kept, weathered(terrain, p));
}

TEST_F(Thermal, ReportsEveryIterationAfterTheFirstTwentiethAndStopsWhereTold) {
    // One level of 32 equal iterations: the report step after the first is 0.05 units, not 5 %.
    const Cells terrain = rough_terrain(40, 24);
    weathered(terrain, parameters(40, 24, 1.0f, 32.0f));
    std::vector<double> expected{0.0};
    for (int done = 2; done <= 32; ++done)
        expected.push_back(done * 100.0 / 32.0);
    EXPECT_EQ(host.progress, expected);

    // Since all iterations of such a run are the same, a cancelled one is a shorter one.
    for (const int reports : {1, 2, 9, 10, 31}) {
        host.cancel_questions = 0;
        host.cancel_at = reports;
        Weathered stopped = run(queue, terrain, parameters(40, 24, 1.0f, 32.0f));
        EXPECT_EQ(stopped.status, cancelled);
        host.cancel_at = 0;
        expect_same(stopped, weathered(terrain, parameters(40, 24, 1.0f, static_cast<float>(reports + 1))));
    }
}

#ifdef HOSTSYCL

TEST_F(Thermal, MasksWithoutTheirFlagsStayWhereTheyAre) {
    const Cells terrain = rough_terrain(32, 32), mask(terrain.size(), 0.5f);
    auto p = parameters(32, 32, 2.5f, 20.0f);
    const auto uploaded = [&](const Cells* given) {
        SimulatedGpu gpu;
        EXPECT_EQ(run(gpu.queue, terrain, p, given, given).status, ok);
        return gpu.device.counters().bytes_copied_to_device;
    };
    EXPECT_EQ(uploaded(&mask), uploaded(nullptr));
    p.use_erosion_mask = 1;
    EXPECT_GT(uploaded(&mask), uploaded(nullptr));
}

#endif

} // namespace
