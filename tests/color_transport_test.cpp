#include "flow/color_transport.hpp"

#include <algorithm>
#include <cmath>

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

#include "flow/color_transport_kernels.hpp"
#include "support.hpp"
#include "trail_support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;
using color_transport::Load;
using color_transport::Walk;
using flow::Point;

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

TEST(ColorTransportKernels, OldColourNeverHasNegativeWeight) {
    EXPECT_NEAR(color_transport::prior_weight(0.0f), 146.0, 1e-4);
    EXPECT_NEAR(color_transport::prior_weight(1.0f), 16.0 / 1.1 - 14.0, 1e-5);
    for (const float persistence : {1.05f, 1.5f, 1e30f})
        EXPECT_EQ(color_transport::prior_weight(persistence), 0.0f);
}

/// A terrain with an image that is red in one cell.
struct Scene {
    explicit Scene(Ground scene_ground) : ground(std::move(scene_ground)), red(ground.heights.size()), none(red) {}

    /// The visits of one particle, and the red that it lays down.
    struct Trail {
        Cells hits, reds;
    };
    Trail walk(Point start, const Walk& setting, const Cells& table = kicks(0.0f, 0.0f),
               const float* length_map = nullptr) const {
        std::vector<Load> loads(red.size(), Load{}), in_lanes = loads;
        const color_transport::Image image{red.data(), none.data(), none.data()};
        color_transport::carry_colors<1>(&start, 0, 1, setting, ground.terrain(), image, table.data(), length_map,
                                         loads.data());
        color_transport::carry_colors<16>(&start, 0, 1, setting, ground.terrain(), image, table.data(), length_map,
                                          in_lanes.data());
        Trail trail;
        for (std::size_t i = 0; i < loads.size(); ++i) {
            trail.hits.push_back(loads[i].hits);
            trail.reds.push_back(loads[i].sum.red);
            EXPECT_EQ(loads[i].hits, in_lanes[i].hits);
            EXPECT_EQ(loads[i].sum.red, in_lanes[i].sum.red);
            EXPECT_EQ(loads[i].sum.green, 0.0f);
        }
        return trail;
    }

    Ground ground;
    Cells red, none;
};

TEST(ColorTransportKernels, ColoursAreLaidDownBeforeTheNextIsTakenUp) {
    Scene scene(Ground(40, 9, [](float x, float) { return 100.0f - x; }));
    scene.red[4 * 40 + 5] = 0.5f;
    // Taken up at every step a colour still moves by one cell.
    const auto near = scene.walk(Point(5.5f, 4.5f), {16.0f, 0.0f, 7});
    EXPECT_EQ(sum(near.reds), 1.0);
    EXPECT_EQ(near.reds[4 * 40 + 5], 0.5f);
    EXPECT_EQ(near.reds[4 * 40 + 6], 0.5f);
    EXPECT_EQ(sum(near.hits), 15.0);
    // Taken up never again it goes all the way.
    const auto far = scene.walk(Point(5.5f, 4.5f), {16.0f, 1e9f, 7});
    EXPECT_EQ(sum(far.reds), 15.0 * 0.5);
    // Somewhere between, the random number of the particle decides: the second state of its generator.
    const float share = random_number(xorshift(xorshift(7))) * unit_scale;
    const auto some = scene.walk(Point(5.5f, 4.5f), {16.0f, 10.0f, 7});
    EXPECT_EQ(sum(some.reds), 0.5 * (std::ceil(static_cast<double>(share * 10.0f)) + 1.0));
}

TEST(ColorTransportKernels, TrailsHaveTheLengthOfTheirSteps) {
    const Scene scene(Ground(40, 9, [](float x, float) { return 100.0f - x; }));
    const auto visits = [&](float steps, float factor) {
        const Cells map(scene.red.size(), factor);
        return sum(scene.walk(Point(5.5f, 4.5f), {steps, 5.0f, 7}, kicks(0.0f, 0.0f), map.data()).hits);
    };
    EXPECT_EQ(visits(16.0f, 1.0f), 15.0);
    EXPECT_EQ(visits(16.5f, 1.0f), 16.0); // not cut to whole steps
    EXPECT_EQ(visits(2.0f, 1.0f), 1.0);
    EXPECT_EQ(visits(16.0f, 0.5f), 7.0);
    EXPECT_EQ(visits(16.0f, 2.0f), 31.0);
    for (const float stop : {0.0f, -5.0f, -infinity})
        EXPECT_EQ(visits(16.0f, stop), 1.0);
    for (const float endless : {not_a_number, infinity})
        EXPECT_EQ(visits(16.0f, endless), 34.0); // up to the edge
}

TEST(ColorTransportKernels, ClimbsAreCountedAtTheNewHeight) {
    // A step down onto a plain: the fifth step that does not descend is not made.
    const Scene plain(Ground(60, 8, [](float x, float) { return x < 5.0f ? 10.0f - x : 5.0f; }));
    const auto visits = [&](float steps) {
        return sum(plain.walk(Point(4.4f, 4.6f), {steps, 5.0f, 7}).hits);
    };
    EXPECT_EQ(visits(16.0f), 3.0 + 4.0);  // heights between the centres descend for two steps
    EXPECT_EQ(visits(50.0f), 3.0 + 10.0); // a fifth of the steps
    const Scene level(Ground(40, 8, [](float, float) { return 3.0f; }));
    EXPECT_EQ(sum(level.walk(Point(4.4f, 4.6f), {16.0f, 5.0f, 7}).hits), 0.0);
    const Scene broken(Ground(40, 8, [](float x, float) { return x == 9.0f ? not_a_number : 3.0f - x; }));
    EXPECT_EQ(sum(broken.walk(Point(9.4f, 4.6f), {16.0f, 5.0f, 7}).hits), 1.0);
}

TEST(ColorTransportKernels, MixIsAMeanOfWhichABatchTakesAShare) {
    // A cell of colour 4 and weight 2 gets three visits of weight 0.5 that bring colours of 10 in the mean.
    const float share = 1.0f / (3.0f * 0.5f + 2.0f);
    EXPECT_NEAR(color_transport::mixed(4.0f, 30.0f, share, {0.5f, 2.0f, 1.0f}), (4.0 * 2 + 10.0 * 1.5) / 3.5, 1e-6);
    EXPECT_NEAR(color_transport::mixed(4.0f, 30.0f, share, {0.5f, 2.0f, 0.25f}),
                4.0 * 0.75 + 0.25 * (4.0 * 2 + 10.0 * 1.5) / 3.5, 1e-6);
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
    sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
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
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
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
    const Ground slope(n, n, [](float x, float y) { return 200.0f - y + 0.3f * std::sin(x); });
    Colors image{Cells(n * n), Cells(n * n), Cells(n * n, 0.25f)};
    std::fill(image.red.begin(), image.red.begin() + n * n / 2, 1.0f);
    std::fill(image.green.begin() + n * n / 2, image.green.end(), 1.0f);
    const Colors moved = finished(parameters(n, n), slope.heights, image);
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
    const Colors shorter = finished(p, slope.heights, image);
    EXPECT_LT(sum(shorter.red), sum(moved.red) - 100.0);
    p.straight_trails = 1;
    EXPECT_FALSE(equal(finished(p, slope.heights, image), shorter));
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
    EXPECT_EQ(status, static_cast<std::uint32_t>(status_cancelled));
    EXPECT_EQ(host.progress.back(), 9.375);
    EXPECT_FALSE(equal(part, picture(60, 40)));
    EXPECT_EQ(host.released, host.acquired);
}

TEST_F(ColorTransport, OneThreadIsRepeatableAndMoreAreNear) {
    const Cells heights = rough_terrain(600, 60);
    const Colors image = picture(600, 60);
    auto p = parameters(600, 60);
    p.spread = 20.0f;
    Colors one;
    {
        const Threads single(1);
        one = finished(p, heights, image);
        EXPECT_TRUE(equal(finished(p, heights, image), one));
        p.seed = 4;
        EXPECT_FALSE(equal(finished(p, heights, image), one));
        p.seed = 3;
    }
    const Threads two(2);
    expect_near(finished(p, heights, image), one, 1e-4f);
}

TEST_F(ColorTransport, AnySizeAndAnythingInTheGridsFinish) {
    for (const auto& [width, height] : awkward_sizes) {
        const Cells heights = rough_terrain(width, height);
        const Colors moved =
            finished(parameters(width, height), heights, picture(width, height), {}, Cells(heights.size(), 0.7f));
        EXPECT_TRUE(std::all_of(moved.green.begin(), moved.green.end(),
                                [](float green) { return green > -1e-4f && green < 1.0001f; }));
    }
    for (const float bad : {not_a_number, infinity, -infinity, 3e38f}) {
        Cells heights = rough_terrain(50, 30), map(heights.size(), 1.0f);
        heights[700] = map[0] = map[900] = bad;
        run(queue, parameters(50, 30), heights, picture(50, 30), map, map);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
    }
}

TEST_F(ColorTransport, PersistenceBeyondItsRangeIsSafe) {
    const Cells heights = rough_terrain(50, 30);
    for (const float persistence : {-0.0999f, 0.0f, 1.04f, 1.05f, 1.2f, 1e30f}) {
        auto p = parameters(50, 30);
        p.persistence = persistence;
        const Colors moved = finished(p, heights, picture(50, 30));
        EXPECT_TRUE(std::all_of(moved.green.begin(), moved.green.end(), [](float green) {
            return green > -1e-3f && green < 1.001f;
        })) << persistence;
    }
    for (const float transport : {-1e30f, 1e30f, 5.0f}) {
        auto p = parameters(50, 30);
        p.transport = transport;
        finished(p, heights, picture(50, 30));
    }
}

TEST_F(ColorTransport, BadInputIsRefused) {
    using Parameters = color_transport_Parameters;
    const Colors image = picture(16, 16);
    const Cells heights = rough_terrain(16, 16);
    for (const auto& [name, field, value] : {std::tuple{"flow_length", &Parameters::flow_length, -0.5f},
                                             {"flow_length", &Parameters::flow_length, 2e6f},
                                             {"persistence", &Parameters::persistence, not_a_number},
                                             {"persistence", &Parameters::persistence, -0.1f},
                                             {"persistence", &Parameters::persistence, -3.0f},
                                             {"blend", &Parameters::blend, not_a_number},
                                             {"spread", &Parameters::spread, infinity},
                                             {"transport", &Parameters::transport, infinity}}) {
        auto p = parameters(16, 16);
        p.*field = value;
        host.errors.clear();
        EXPECT_TRUE(equal(run(queue, p, heights, image), image));
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_failed)) << name;
        ASSERT_EQ(host.errors.size(), 1u);
        EXPECT_NE(host.errors[0].find(std::string("ColorTransportSimulation: ") + name), std::string::npos);
    }
    Colors out = image;
    const HostCallbacks record = host.callbacks();
    const auto p = parameters(16, 16);
    host.errors.clear();
    for (std::size_t missing = 0; missing < 4; ++missing) {
        const auto given = [&](std::size_t argument, float* grid) {
            return argument == missing ? nullptr : grid;
        };
        EXPECT_EQ(ColorTransportSimulation(handle(queue), missing == 0 ? nullptr : heights.data(),
                                           given(1, out.red.data()), given(2, out.green.data()),
                                           given(3, out.blue.data()), nullptr, nullptr, &p, &record),
                  static_cast<std::uint32_t>(status_failed));
    }
    EXPECT_EQ(host.errors.size(), 4u);
    EXPECT_TRUE(host.acquired.empty());
}

#ifdef HOSTSYCL
TEST_F(ColorTransport, AGpuGivesTheImageOfACpu) {
    SimulatedGpu gpu;
    for (const auto& [width, height] : awkward_sizes) {
        auto p = parameters(width, height);
        p.spread = 20.0f;
        const Cells heights = rough_terrain(width, height), map(heights.size(), 0.8f);
        const Colors there = run(gpu.queue, p, heights, picture(width, height), map, map);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
        expect_near(there, finished(p, heights, picture(width, height), map, map), 1e-4f);
    }
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}
#endif

} // namespace
