#include "filters/median_filter.hpp"

#include <algorithm>

#include "filters/median_filter_kernels.hpp"
#include "support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

namespace {

using namespace tarn_test;

class MedianFilter : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();

    static std::vector<float> filtered(sycl::queue& on, std::vector<float> cells, unsigned resolution, int radius,
                                       unsigned iterations) {
        const median_filter_Parameters parameters{resolution, radius, iterations};
        EXPECT_EQ(::MedianFilter(handle(on), cells.data(), &parameters), ok);
        return cells;
    }
    std::vector<float> filtered(const std::vector<float>& cells, unsigned resolution, int radius,
                                unsigned iterations = 1) {
        return filtered(queue, cells, resolution, radius, iterations);
    }
};

/// The three middle samples of a disc, by a full sort.
float middle_of_disc(const std::vector<float>& cells, int side, int x, int y, int radius) {
    std::vector<float> samples;
    for (int dy = -radius; dy <= radius; ++dy)
        for (int dx = -radius; dx <= radius; ++dx)
            if (dx * dx + dy * dy <= radius * radius + 2)
                samples.push_back(cells[static_cast<std::size_t>(std::clamp(y + dy, 0, side - 1) * side +
                                                                 std::clamp(x + dx, 0, side - 1))]);
    std::sort(samples.begin(), samples.end());
    const std::size_t m = samples.size() / 2;
    return (samples[m] + samples[m + 1] + samples[m - 1]) * 0.333333f;
}

TEST_F(MedianFilter, CellsBecomeTheMeanOfTheThreeMiddleSamplesOfTheDisc) {
    constexpr int side = 64;
    const std::vector<float> terrain = rough_terrain(side, side);
    constexpr std::size_t disc_sizes[] = {9, 21, 37, 61, 89, 121, 161, 213};
    for (int radius = 1; radius <= 8; ++radius) {
        std::size_t samples = 0;
        tarn::median_filter::for_disc(radius, [&](int, int) { ++samples; });
        EXPECT_EQ(samples, disc_sizes[radius - 1]);
        std::vector<float> expected;
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x)
                expected.push_back(middle_of_disc(terrain, side, x, y, radius));
        EXPECT_TRUE(same_bits(filtered(terrain, side, radius), expected)) << radius;
    }
    EXPECT_TRUE(same_bits(filtered(terrain, side, 100), filtered(terrain, side, 8)));
}

TEST_F(MedianFilter, IterationsFollowOneAnotherWhicheverBufferHoldsTheResult) {
    const std::vector<float> terrain = rough_terrain(32, 32);
    EXPECT_TRUE(same_bits(filtered(terrain, 32, 2, 0), terrain));
    std::vector<float> step = terrain;
    for (unsigned n = 1; n <= 3; ++n) {
        step = filtered(step, 32, 2);
        EXPECT_TRUE(same_bits(filtered(terrain, 32, 2, n), step)) << n;
    }
}

TEST_F(MedianFilter, LoneSpikesGoAndLevelGroundSinksByItsRounding) {
    std::vector<float> ground(32 * 32, 3.0f);
    ground[5 * 32 + 7] = 1000.0f;
    ground[0] = -300.0f; // a corner stands for four of its nine samples, and so for the lowest of the middle three
    const float level = (3.0f + 3.0f + 3.0f) * 0.333333f;
    std::vector<float> expected(32 * 32, level);
    expected[0] = (3.0f + 3.0f - 300.0f) * 0.333333f;
    EXPECT_TRUE(same_bits(filtered(ground, 32, 1), expected));
    EXPECT_LT(level, 3.0f);
}

TEST_F(MedianFilter, ValuesBehindThePaddingGiveThePadding) {
    const std::vector<float> high(32 * 32, 2e8f);
    const float padded = (1e8f + 1e8f + 1e8f) * 0.333333f;
    EXPECT_TRUE(same_bits(filtered(high, 32, 3), std::vector<float>(32 * 32, padded)));
}

#ifdef HOSTSYCL

/// Terrains whose samples a partial sort would order differently from the full one.
std::vector<std::vector<float>> awkward_terrains(int side) {
    const auto cells = static_cast<std::size_t>(side * side);
    std::vector<std::vector<float>> terrains(4, rough_terrain(side, side));
    for (std::size_t i = 0; i < cells; ++i) {
        const auto draw = static_cast<std::uint32_t>(i) * 2654435761u >> 28;
        if (draw < 6)
            terrains[0][i] = draw % 2 == 0 ? 0.0f : -0.0f;
        if (draw == 3)
            terrains[1][i] = i % 3 == 0 ? -not_a_number : not_a_number;
        if (draw < 4)
            terrains[2][i] = draw == 0 ? infinity : draw == 1 ? -infinity : 3e8f;
        if (i % 7 != 0)
            terrains[3][i] = draw < 8 ? 1e8f : std::nextafter(1e8f, infinity);
    }
    return terrains;
}

TEST_F(MedianFilter, GpusGiveTheBitsOfTheCpu) {
    SimulatedGpu gpu;
    int kind = 0;
    for (const std::vector<float>& awkward : awkward_terrains(64)) {
        for (const int radius : {1, 3, 8})
            EXPECT_TRUE(same_bits(filtered(gpu.queue, awkward, 64, radius, 1), filtered(awkward, 64, radius)))
                << kind << ", radius " << radius;
        ++kind;
    }
}

TEST_F(MedianFilter, LateErrorsOfTheDeviceAreNotLeftForTheNextCall) {
    SimulatedGpu gpu;
    RecordingHost host;
    tarn::device_callbacks.set(host.callbacks());
    tarn::allocation_probe_active = false; // another export's trial leaves it set
    gpu.device.raise_asynchronous_error(1, "lost a page");
    filtered(gpu.queue, rough_terrain(32, 32), 32, 1, 1);
    EXPECT_EQ(host.errors.size(), 1u);
    gpu.queue.throw_asynchronous();
    EXPECT_EQ(host.errors.size(), 1u);
    tarn::device_callbacks.set(HostCallbacks{});
}

TEST_F(MedianFilter, IterationsEnd) {
    const std::vector<float> terrain = rough_terrain(32, 32);
    EXPECT_TRUE(same_bits(filtered(terrain, 32, 1, UINT32_MAX), filtered(terrain, 32, 1, 10000)));
}

#endif

} // namespace
