#include "debris/debris.hpp"

#include <algorithm>
#include <cmath>
#include <set>

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

#include "debris/debris_kernels.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

// ---------------------------------------------------------------------------------------------------------------------
// Noise and bodies

debris_Parameters parameters(std::uint32_t resolution, std::uint32_t count) {
    debris_Parameters p{};
    p.resolution = resolution;
    p.terrain_size = static_cast<float>(resolution) * 2.0f;
    p.terrain_height = 50.0f;
    p.count = count;
    p.max_size = 12.0f;
    p.min_size = 6.0f;
    p.friction = 0.2f;
    p.restitution = 0.3f;
    p.seed = 5;
    return p;
}

TEST(DebrisKernels, WindowsAreClippedToTheGridPixelByPixel) {
    constexpr int side = 20;
    const auto on_grid = [](float coordinate) {
        return coordinate >= 0.0f && coordinate < static_cast<float>(side);
    };
    for (const float radius : {0.0f, 0.9f, 1.0f, 4.3f, 11.0f, 60.5f})
        for (const float x : {-30.2f, -3.5f, 0.0f, 7.7f, 19.99f, 40.0f, not_a_number})
            for (const float y : {-500.0f, -99.5f, -4.0f, 0.3f, 12.0f, 25.0f, infinity}) {
                debris::ParticleRen ren{};
                ren.x = x, ren.y = y, ren.radius = radius;
                debris::clip_window(ren, side);
                const int columns = static_cast<int>(radius) + 1, window = 3 * static_cast<int>(radius) + 1;
                std::uint32_t pixels = 0;
                for (int i = 0; i < window * window; ++i)
                    pixels += on_grid(x - static_cast<float>(columns / 2) + static_cast<float>(i % columns)) &&
                              on_grid(y - static_cast<float>(columns / 2) + static_cast<float>(i / columns));
                EXPECT_EQ(ren.pixel_count, pixels) << radius << " at " << x << ", " << y;
            }
}

/// A rock on the plain, as its pixels see it.
debris::RockFrame lone_rock(float radius) {
    debris::ParticleRen ren{};
    ren.x = ren.y = 50.5f;
    ren.radius = radius;
    ren.rock_seed = 9;
    ren.size_ratio = 1.0f;
    ren.gradient_x = ren.gradient_length = 1e-24f;
    ren.base_height = 1.0f;
    ren.height_scale = 0.2f * radius;
    return {ren, 1.0f};
}

TEST(DebrisKernels, RoundBodyIsADomeThatDropsSteeplyAtItsRim) {
    const Cells none(debris::Debris::warp_rows * debris::Debris::warp_columns);
    const debris::RockFrame frame = lone_rock(20.0f);
    const debris::RoundedBody body(frame, {}, 1.0f, {none.data(), none.data()});
    // The value noise shifts the dome by up to a tenth of the radius.
    const float scale = 0.2f * 20.0f, rim = 20.0f * std::sqrt(0.1f);
    float top = 0.0f;
    for (float x = 30.5f; x < 70.0f; x += 1.0f)
        for (float y = 30.5f; y < 70.0f; y += 1.0f) {
            const float distance = std::hypot(x - 50.5f, y - 50.5f);
            const float h = body.height(frame, x, y);
            top = std::max(top, h);
            if (distance < rim - 2.9f) {
                EXPECT_GT(h, 1.0f);
            } else if (distance > rim + 2.9f) {
                EXPECT_NEAR(h, 1.0f - 10.0f * scale, 1e-3f);
            }
        }
    EXPECT_NEAR(top, 1.0f + scale, 0.05f * scale);
}

// ---------------------------------------------------------------------------------------------------------------------
// Runs

class Debris : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    struct Result {
        Cells height, rock_id, coverage, speed;

        std::size_t covered() const {
            return static_cast<std::size_t>(std::count(coverage.begin(), coverage.end(), 1.0f));
        }
    };

    Result run(sycl::queue& on, const debris_Parameters& p, const Cells& terrain) {
        Result result{terrain, Cells(terrain.size(), 7.0f), Cells(terrain.size(), 8.0f), Cells(terrain.size(), -1.0f)};
        const HostCallbacks record = host.callbacks();
        EXPECT_EQ(DebrisSimulation(handle(on), result.height.data(), result.rock_id.data(), result.coverage.data(),
                                   result.speed.data(), &p, &record),
                  0u);
        return result;
    }

    /// Runs, and checks what holds for every run.
    Result finished(const debris_Parameters& p, const Cells& terrain) {
        Result result = run(queue, p, terrain);
        EXPECT_TRUE(host.errors.empty());
        for (std::size_t i = 0; i < terrain.size(); ++i) {
            EXPECT_GE(result.height[i], terrain[i]);
            EXPECT_EQ(result.coverage[i], result.rock_id[i] > 0.0f ? 1.0f : 0.0f);
            EXPECT_TRUE(result.height[i] == terrain[i] || result.rock_id[i] > 0.0f);
        }
        return result;
    }

    /// Hills of a few cells' height, in units of 50.
    static Cells hills(std::uint32_t side) {
        Cells cells = rough_terrain(static_cast<int>(side), static_cast<int>(side));
        for (float& cell : cells)
            cell *= 0.01f;
        return cells;
    }
    static Cells plain(std::uint32_t side) { return Cells(std::size_t{side} * side, 0.25f); }
};

TEST_F(Debris, WithoutRocksOnlyTheOutputsAreCleared) {
    const Result result = finished(parameters(48, 0), hills(48));
    EXPECT_TRUE(same_bits(result.height, hills(48)));
    EXPECT_EQ(result.covered(), 0u);
    EXPECT_TRUE(same_bits(result.speed, Cells(48 * 48, -1.0f)));
}

TEST_F(Debris, RestingRocksAreDrawnOnlyOnDemand) {
    auto p = parameters(128, 20);
    const Result hidden = finished(p, plain(128));
    EXPECT_EQ(hidden.covered(), 0u);
    EXPECT_EQ(std::count(hidden.speed.begin(), hidden.speed.end(), 0.0f), 20);
    p.draw_unmoved = 2;
    const Result shown = finished(p, plain(128));
    EXPECT_GT(shown.covered(), 20u * 5u);
    const std::set<float> ids(shown.rock_id.begin(), shown.rock_id.end());
    EXPECT_GT(ids.size(), 10u); // one 0 and a number for each rock that is not buried
    EXPECT_LE(ids.size(), 21u);
    // A body of 6 units' radius is at most 3 cells wide and 2 * 0.22 * 3 * 0.3 of a radius high.
    EXPECT_LT(*std::max_element(shown.height.begin(), shown.height.end()), 0.25f + 0.8f * 12.0f / 50.0f);
}

TEST_F(Debris, RocksSlideDownhillAndPileUpAtTheFootOfASlope) {
    // A steep face between two plains.
    const std::uint32_t side = 96;
    Cells cells;
    for (std::uint32_t y = 0; y < side; ++y)
        for (std::uint32_t x = 0; x < side; ++x)
            cells.push_back(std::clamp((60.0f - static_cast<float>(x)) / 20.0f, 0.0f, 1.0f));
    auto p = parameters(side, 600);
    p.min_size = 2.0f;
    p.max_size = 4.0f;
    p.friction = 0.9f;
    const Result result = finished(p, cells);
    const auto covered_between = [&](std::uint32_t first, std::uint32_t last) {
        std::size_t covered = 0;
        for (std::uint32_t y = 0; y < side; ++y)
            for (std::uint32_t x = first; x < last; ++x)
                covered += result.coverage[y * side + x] > 0.0f ? 1 : 0;
        return covered;
    };
    EXPECT_EQ(covered_between(0, 30), 0u); // nothing starts on the upper plain
    EXPECT_GT(covered_between(56, 90), 4 * covered_between(40, 52));
    p.friction = 1e4f;
    EXPECT_EQ(finished(p, cells).covered(), 0u);
}

/// A batch whose last twenty rocks are drawn once more, round.
Cells with_round_rocks(sycl::queue& queue, const RecordingHost& host) {
    auto p = parameters(128, 50);
    p.draw_unmoved = 1;
    Cells height(128 * 128, 0.25f), rock_id = height, coverage = height, speed = height;
    {
        debris::Debris rocks(p, queue, host.callbacks(),
                             {height.data(), rock_id.data(), coverage.data(), speed.data()});
        debris::Debris::Grid warp_a(sycl::range<2>(512, 256)), warp_b(sycl::range<2>(512, 256));
        rocks.generate_warpnoise(warp_a, 3);
        rocks.generate_warpnoise(warp_b, 4);
        rocks.place_particles(50, 1);
        rocks.render(50);
        rocks.render_rounded(warp_a, warp_b, 20, 30);
    }
    return height;
}

TEST_F(Debris, RoundRocksAreDrawnByTheSameLaunch) {
    const Cells round = with_round_rocks(queue, host);
    EXPECT_GT(std::count_if(round.begin(), round.end(), [](float h) { return h > 0.25f; }), 100);
#ifdef HOSTSYCL
    SimulatedGpu gpu;
    EXPECT_TRUE(same_bits(with_round_rocks(gpu.queue, host), round));
#endif
}

} // namespace
