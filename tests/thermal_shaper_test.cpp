#include "thermal/thermal_shaper.hpp"

#include <algorithm>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

/// Parameters under which neighbouring cells are one unit of height per unit of slope apart at the root. `ratio` is the
/// argument of the logarithm that counts levels.
thermal_shaper_Parameters parameters(int width, int height, float ratio, float rate) {
    thermal_shaper_Parameters p{};
    p.width = width;
    p.height = height;
    p.level_divisor = 1.0f;
    p.scale_numerator = static_cast<float>(width);
    p.level_multiplier = ratio / static_cast<float>(width);
    p.blend = 1.0f;
    p.rate = rate;
    p.detail_gain = 1.0f;
    return p;
}

/// With this ratio the pyramid is the root alone, and it runs a single iteration at the strength below.
constexpr float single_iteration_ratio = 0.32f;
float single_iteration_strength() {
    return (std::tanh(std::log2(single_iteration_ratio) - 1.0f) + 1.0f) * 64.0f;
}

class ThermalShaper : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    std::uint32_t run(sycl::queue& on, std::vector<float>& cells, const thermal_shaper_Parameters& p,
                      const std::vector<float>* mask = nullptr) {
        const HostCallbacks record = host.callbacks();
        thermal_shaper_Parameters copy = p;
        return ThermalShaper_Process(handle(on), cells.data(), mask != nullptr ? mask->data() : nullptr, &copy,
                                     &record);
    }

    std::vector<float> shaped(std::vector<float> cells, const thermal_shaper_Parameters& p,
                              const std::vector<float>* mask = nullptr) {
        EXPECT_EQ(run(queue, cells, p, mask), ok);
        return cells;
    }
};

TEST_F(ThermalShaper, FlatGroundAndBlendZeroAndIntegerLevelOfOneLeaveTheTerrain) {
    for (const float rate : {-0.8f, 0.8f}) {
        const std::vector<float> flat(48 * 48, 12.5f);
        EXPECT_TRUE(same_bits(shaped(flat, parameters(48, 48, 12.0f, rate)), flat));
        const std::vector<float> rough = rough_terrain(48, 48);
        auto p = parameters(48, 48, 12.0f, rate);
        p.blend = 0.0f;
        EXPECT_TRUE(same_bits(shaped(rough, p), rough));
        // log2(2) is 1: one level, whose share of the work is the fraction 0.
        EXPECT_TRUE(same_bits(shaped(rough, parameters(48, 48, 2.0f, rate)), rough));
        EXPECT_FALSE(same_bits(shaped(rough, parameters(48, 48, 2.1f, rate)), rough));
    }
}

TEST_F(ThermalShaper, SingleIterationOnAPlaneFollowsTheSlopeRule) {
    const int n = 9;
    for (const float fall : {0.5f, 3.0f, 40.0f}) {
        std::vector<float> plane;
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x)
                plane.push_back(fall * static_cast<float>(x));
        const std::vector<float> result = shaped(plane, parameters(n, n, single_iteration_ratio, -1.0f));
        // No curvature on a plane; the fall to the lower neighbour bounds the loss.
        const double steep = 1.0 - 1.0 / (std::pow(0.1 * fall, 0.7071) + 1.0);
        const double loss = std::min(fall * steep * single_iteration_strength(), 1.0 * fall);
        for (int y = 0; y < n; ++y)
            for (int x = 1; x < n - 1; ++x)
                EXPECT_NEAR(result[static_cast<std::size_t>(y * n + x)], fall * static_cast<float>(x) - loss,
                            1e-4 * fall);
    }
}

TEST_F(ThermalShaper, PitsRiseTowardsTheirNearestNeighbourWhateverTheMask) {
    std::vector<float> ground(7 * 7, 0.0f);
    ground[3 * 7 + 3] = -1.0f;
    const std::vector<float> closed(7 * 7, 0.0f);
    const std::vector<float> result = shaped(ground, parameters(7, 7, single_iteration_ratio, -1.0f), &closed);
    // The diagonal neighbours' fall counts for 0.7071 of itself, and so is the nearer one of the two.
    ground[3 * 7 + 3] = -1.0f + 0.7071f;
    EXPECT_TRUE(same_bits(result, ground));
}

TEST_F(ThermalShaper, LonePeakStandsWhileItsFlanksGiveWay) {
    std::vector<float> ground(7 * 7, 0.0f);
    ground[3 * 7 + 3] = 10.0f;
    const std::vector<float> result = shaped(ground, parameters(7, 7, single_iteration_ratio, -1.0f));
    EXPECT_EQ(result[3 * 7 + 3], 10.0f); // no slope at the very top
    EXPECT_EQ(result[3 * 7 + 4], 0.0f);  // nothing lower around to fall to
}

TEST_F(ThermalShaper, SignOfTheRateMirrorsTheTerrain) {
    std::vector<float> terrain = rough_terrain(50, 38);
    const std::vector<float> lowered = shaped(terrain, parameters(50, 38, 11.0f, -0.6f));
    for (float& cell : terrain)
        cell = -cell;
    std::vector<float> raised = shaped(terrain, parameters(50, 38, 11.0f, 0.6f));
    for (float& cell : raised)
        cell = -cell;
    // Up to the sign of zeros, which the last step's sum drops.
    EXPECT_EQ(raised, lowered);
}

} // namespace
