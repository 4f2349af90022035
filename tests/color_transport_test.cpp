#include "flow/color_transport.hpp"

#include <algorithm>
#include <cmath>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

// ---------------------------------------------------------------------------------------------------------------------
// Weights and trails

TEST(ColorTransportKernels, TransportSetsTheDistanceOfAColour) {
    EXPECT_EQ(color_transport::pick_distance(0.0f, 100), 0.0f);
    EXPECT_NEAR(color_transport::pick_distance(1.0f, 100), 200.0, 1e-3);
    EXPECT_NEAR(color_transport::pick_distance(0.5f, 100), 100.0 * std::expm1(2.5) / std::expm1(5.0), 1e-4);
    EXPECT_NEAR(color_transport::pick_distance(0.97f, 100),
                100.0 * (std::expm1(4.85) / std::expm1(5.0) + 400.0 * 0.02 * 0.02), 1e-3);
    EXPECT_LE(color_transport::pick_distance(-1.0f, 100), 0.0f); // as 0: taken up at every step
}

// ---------------------------------------------------------------------------------------------------------------------
// Runs

color_transport_Parameters parameters(int width, int height) {
    color_transport_Parameters p{};
    p.width = width;
    p.height = height;
    p.flow_length = 0.5f;
    p.persistence = 1.0f;
    p.blend = 1.0f;
    p.transport = 0.6f;
    p.seed = 3;
    return p;
}

class ColorTransport : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;
    std::uint32_t status = 0;

    struct Colors {
        Cells red, green, blue;
    };

    /// Every channel runs from 0 to 1, each in a pattern of its own.
    static Colors picture(int width, int height) {
        Colors image;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                image.red.push_back(static_cast<float>(x) / static_cast<float>(width));
                image.green.push_back(static_cast<float>((x / 5 + y / 3) % 2));
                image.blue.push_back(static_cast<float>(y % 7) / 7.0f);
            }
        }
        return image;
    }

    Colors run(sycl::queue& on, const color_transport_Parameters& p, const Cells& heights, Colors image,
               const Cells& mask = {}, const Cells& length_map = {}) {
        const HostCallbacks record = host.callbacks();
        status = ColorTransportSimulation(handle(on), heights.data(), image.red.data(), image.green.data(),
                                          image.blue.data(), mask.empty() ? nullptr : mask.data(),
                                          length_map.empty() ? nullptr : length_map.data(), &p, &record);
        return image;
    }

    Colors finished(const color_transport_Parameters& p, const Cells& heights, const Colors& image,
                    const Cells& mask = {}, const Cells& length_map = {}) {
        const Colors result = run(queue, p, heights, image, mask, length_map);
        EXPECT_EQ(status, ok);
        EXPECT_TRUE(host.errors.empty());
        return result;
    }

    static bool equal(const Colors& a, const Colors& b) {
        return same_bits(a.red, b.red) && same_bits(a.green, b.green) && same_bits(a.blue, b.blue);
    }

    /// Sums of colours depend on the order of the adds in their last bits.
    static void expect_near(const Colors& a, const Colors& b, float tolerance) {
        for (std::size_t i = 0; i < a.red.size(); ++i) {
            ASSERT_NEAR(a.red[i], b.red[i], tolerance) << i;
            ASSERT_NEAR(a.green[i], b.green[i], tolerance) << i;
            ASSERT_NEAR(a.blue[i], b.blue[i], tolerance) << i;
        }
    }
};

TEST_F(ColorTransport, ColoursMoveDownhillAndStayInTheirRange) {
    const int n = 96;
    const Cells slope = ground(n, n, [](float x, float y) { return 200.0f - y + 0.3f * std::sin(x); });
    Colors image{Cells(n * n), Cells(n * n), Cells(n * n, 0.25f)};
    std::fill(image.red.begin(), image.red.begin() + n * n / 2, 1.0f);
    std::fill(image.green.begin() + n * n / 2, image.green.end(), 1.0f);
    const Colors moved = finished(parameters(n, n), slope, image);
    const auto reds = [&](int row) {
        return sum(Cells(moved.red.begin() + row * n, moved.red.begin() + (row + 1) * n)) / n;
    };
    EXPECT_NEAR(reds(30), 1.0, 1e-4); // nothing but red lies above
    EXPECT_GT(reds(50), 0.5);
    EXPECT_GT(reds(60), 0.05);
    for (std::size_t i = 0; i < moved.red.size(); ++i) {
        ASSERT_TRUE(moved.red[i] > -1e-4f && moved.red[i] < 1.0001f);
        ASSERT_NEAR(moved.red[i] + moved.green[i], 1.0f, 1e-3f);
        ASSERT_NEAR(moved.blue[i], 0.25f, 1e-4f);
    }
    auto p = parameters(n, n);
    p.transport = 0.2f;
    const Colors shorter = finished(p, slope, image);
    EXPECT_LT(sum(shorter.red), sum(moved.red) - 100.0);
    p.straight_trails = 1;
    EXPECT_FALSE(equal(finished(p, slope, image), shorter));
}

TEST_F(ColorTransport, WhatMovesNothingLeavesTheImage) {
    const Cells heights = rough_terrain(60, 40);
    const Colors image = picture(60, 40);
    EXPECT_TRUE(equal(finished(parameters(60, 40), heights, image, Cells(2400, 0.0f)), image));
    EXPECT_EQ(host.progress, std::vector<double>{0.0});
    EXPECT_TRUE(equal(finished(parameters(60, 40), Cells(2400, 1.0f), image), image));
    auto p = parameters(60, 40);
    p.blend = 0.0f;
    EXPECT_TRUE(equal(finished(p, heights, image), image));
    // Trails of length 0 lay a cell's own colour down in it.
    expect_near(finished(parameters(60, 40), heights, image, {}, Cells(2400, 0.0f)), image, 1e-5f);
}

TEST_F(ColorTransport, ReportsRunUpToAHundredAndCancelStops) {
    const Cells heights = rough_terrain(60, 40);
    finished(parameters(60, 40), heights, picture(60, 40));
    ASSERT_EQ(host.progress.size(), 1u + 31u);
    EXPECT_EQ(host.progress[1], 6.25);
    EXPECT_EQ(host.progress.back(), 100.0);
    host.cancel_questions = 0;
    host.cancel_at = 2;
    const Colors part = run(queue, parameters(60, 40), heights, picture(60, 40));
    EXPECT_EQ(status, cancelled);
    EXPECT_EQ(host.progress.back(), 9.375);
    EXPECT_FALSE(equal(part, picture(60, 40)));
    EXPECT_EQ(host.released, host.acquired);
}

} // namespace
