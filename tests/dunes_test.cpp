#include "dunes/arrakis.hpp"

#include <algorithm>
#include <functional>
#include <limits>
#include <numeric>

#include <tbb/global_control.h>

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

#include "dunes/arrakis_kernels.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

using Cells = std::vector<float>;

const float nan = std::numeric_limits<float>::quiet_NaN();
const float infinity = std::numeric_limits<float>::infinity();

std::size_t cell_count(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

double sum(const Cells& cells) {
    return std::accumulate(cells.begin(), cells.end(), 0.0);
}

/// Makes a run the same to the bit each time: sand is laid down by atomic adds, whose order shows in the last bits.
class SingleThread {
    tbb::global_control one_{tbb::global_control::max_allowed_parallelism, 1};
};

// ---------------------------------------------------------------------------------------------------------------------
// Cells and grains

/// A terrain for the kernels alone, in an even wind along +x unless a test bends it.
struct Terrain {
    Terrain(int columns, int rows, float cell_size = 1.0f)
        : setting{columns, rows, static_cast<float>(columns), static_cast<float>(rows), cell_size, 1.0f / cell_size},
          height(cell_count(columns, rows), 0.0f), sand(height), shelter(height.size(), 1.0f), change(height),
          wind_x(height.size(), 1.0f), wind_y(height) {}

    std::size_t at(int x, int y) const { return static_cast<std::size_t>(setting.index(x, y)); }
    arrakis::Wind wind() const { return {wind_x.data(), wind_y.data()}; }

    template <bool interior>
    sycl::vec<float, 2> wind_at(int x, int y) const {
        float wx, wy;
        arrakis::wind_at<interior>(height.data(), x, y, setting, wx, wy);
        return {wx, wy};
    }

    void find_shelter() {
        for (int y = 0; y < setting.rows; ++y)
            arrakis::find_shelter<true, 64>(0, y, setting.columns, setting, wind(), height.data(), sand.data(),
                                            shelter.data(), change.data());
    }

    template <bool wide = true>
    void carry_grain(int x, int y, int round) {
        arrakis::saltation<wide, 1>(x, y, 1, round, setting, wind(), shelter.data(), sand.data(), change.data());
    }

    arrakis::Slide avalanche(int x, int y, float threshold, float strength = 1.0f) const {
        return arrakis::avalanche<false>(x, y, setting, height.data(), sand.data(), {threshold, strength});
    }

    arrakis::Setting setting;
    Cells height, sand, shelter, change, wind_x, wind_y;
};

/// How a grain moves, from its chain of random states.
struct Grain {
    Grain(const Terrain& terrain, int x, int y, int round) {
        const auto& s = terrain.setting;
        std::uint32_t state = nonzero_state(static_cast<std::uint32_t>(s.index(x, y)) +
                                            static_cast<std::uint32_t>(s.columns * s.rows * round));
        double u[6];
        for (double& number : u) {
            state = xorshift(state);
            number = static_cast<double>(random_number(state)) / 4294967296.0;
        }
        const double turn = std::hypot(u[1] - 0.5, u[2] - 0.5);
        step_x = 0.4 + 0.6 * u[0] + 0.25 * (u[1] - 0.5) / turn;
        step_y = 0.25 * (u[2] - 0.5) / turn;
        start_x = x + 0.99 * u[3];
        start_y = y + 0.99 * u[4];
        wild = 20.0 * u[5];
    }
    double start_x, start_y, step_x, step_y, wild;
};

/// Where the sand of one grain came to rest, as the centre of its four shares.
std::pair<double, double> landing(const Terrain& terrain) {
    double x = 0.0, y = 0.0;
    const double total = sum(terrain.change);
    for (int j = 0; j < terrain.setting.rows; ++j) {
        for (int i = 0; i < terrain.setting.columns; ++i) {
            const double share = terrain.change[terrain.at(i, j)] / total;
            x += share * (i + 0.5);
            y += share * (j + 0.5);
        }
    }
    return {x, y};
}

TEST(DuneKernels, FlatGroundHasAnEvenWindAndNoShelterAndLiftsHalfACell) {
    Terrain flat(40, 36, 0.5f);
    std::fill(flat.sand.begin(), flat.sand.end(), 3.0f);
    flat.sand[flat.at(7, 7)] = 0.1f;
    flat.sand[flat.at(8, 8)] = -1e-8f; // rounding leaves such sand; it moves as it is
    for (const auto wind : {flat.wind_at<false>(0, 0), flat.wind_at<true>(7, 7), flat.wind_at<false>(39, 35)}) {
        EXPECT_EQ(wind.x(), 1.0f);
        EXPECT_EQ(wind.y(), 0.0f);
    }
    flat.find_shelter();
    EXPECT_TRUE(same_bits(flat.shelter, Cells(flat.shelter.size(), 1.0f)));
    Cells lifted(flat.change.size(), -0.25f);
    lifted[flat.at(7, 7)] = -0.1f;
    lifted[flat.at(8, 8)] = 1e-8f;
    EXPECT_TRUE(same_bits(flat.change, lifted));
}

TEST(DuneKernels, WindTurnsAwayFromRisingGround) {
    const auto wind_on_slope = [](float along, float across) {
        Terrain slope(5, 5, 2.0f);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 5; ++x)
                slope.height[slope.at(x, y)] = 2.0f * (along * static_cast<float>(x) + across * static_cast<float>(y));
        const auto clamped = slope.wind_at<false>(2, 2), interior = slope.wind_at<true>(2, 2);
        EXPECT_TRUE(clamped.x() == interior.x() && clamped.y() == interior.y());
        return interior;
    };
    const auto expect_direction = [](sycl::vec<float, 2> wind, double x, double y) {
        EXPECT_NEAR(wind.x(), x / std::hypot(x, y), 1e-6);
        EXPECT_NEAR(wind.y(), y / std::hypot(x, y), 1e-6);
    };
    expect_direction(wind_on_slope(0.5f, 0.0f), 1.0, 0.0);
    expect_direction(wind_on_slope(3.0f, 0.0f), -1.0, 0.0);
    expect_direction(wind_on_slope(0.0f, 0.5f), 1.0, -0.5);
    expect_direction(wind_on_slope(0.25f, -2.0f), 0.75, 2.0);
    expect_direction(wind_on_slope(0.0f, 6.0f), 1.0, -6.0);
    expect_direction(wind_on_slope(0.0f, 9.0f), 1.0, -6.0); // the bend is limited
    expect_direction(wind_on_slope(-24.0f, 32.0f), 1.0 + 3.6, -4.8);
    const auto still = wind_on_slope(1.0f, 0.0f); // the slope takes the wind away
    EXPECT_TRUE(still.x() == 0.0f && still.y() == 0.0f);
}

TEST(DuneKernels, WallsShadeSixteenCellsDownwindByTheSteepestRise) {
    for (const int wall : {8, 30}) { // from the second one the shade goes around the edge of the torus
        Terrain terrain(40, 33, 0.5f);
        std::fill(terrain.sand.begin(), terrain.sand.end(), 3.0f);
        for (int y = 0; y < 33; ++y)
            terrain.height[terrain.at(wall, y)] = 0.9f;
        terrain.find_shelter();
        for (int distance = 0; distance < 40; ++distance) {
            const double rise = distance >= 1 && distance <= 16 ? 0.9 / 0.5 / distance : 0.0;
            const double expected = 1.0 - (std::clamp(rise, 0.1, 0.27) - 0.1) / 0.17;
            const std::size_t i = terrain.at((wall + distance) % 40, 20);
            EXPECT_NEAR(terrain.shelter[i], expected, 1e-5) << distance;
            EXPECT_NEAR(terrain.change[i], -0.25 * expected, 1e-5) << distance;
        }
    }
}

TEST(DuneKernels, GrainsInTheOpenMakeSixteenHops) {
    for (int round = 0; round < 40; ++round) {
        Terrain flat(64, 64);
        flat.sand[flat.at(20, 30)] = 0.3f;
        flat.carry_grain(20, 30, round);
        const Grain grain(flat, 20, 30, round);
        const auto [x, y] = landing(flat);
        EXPECT_NEAR(x, grain.start_x + 16.0 * grain.step_x, 1e-3);
        EXPECT_NEAR(y, grain.start_y + 16.0 * grain.step_y, 1e-3);
        EXPECT_NEAR(sum(flat.change), 0.3, 1e-7);
    }
}

TEST(DuneKernels, HopFromACellWithAnyShelterIsTheLastAndFullShadowThrowsFar) {
    for (int round = 0; round < 40; ++round) {
        Terrain partly(64, 64);
        std::fill(partly.shelter.begin(), partly.shelter.end(), 0.5f);
        partly.sand[partly.at(20, 30)] = 3.0f;
        partly.carry_grain(20, 30, round);
        const Grain grain(partly, 20, 30, round);
        EXPECT_NEAR(landing(partly).first, grain.start_x + grain.step_x, 1e-3);
        EXPECT_NEAR(sum(partly.change), 0.25, 1e-7);

        // Everything but one column lies in full shadow: an ordinary hop or a few, then the throw.
        Terrain shaded(64, 64);
        std::fill(shaded.shelter.begin(), shaded.shelter.end(), 0.0f);
        for (int y = 0; y < 64; ++y)
            shaded.shelter[shaded.at(20, y)] = 1.0f;
        shaded.sand[shaded.at(20, 30)] = 0.3f;
        shaded.carry_grain(20, 30, round);
        double expected = grain.start_x;
        while (expected < 21.0)
            expected += grain.step_x;
        EXPECT_NEAR(landing(shaded).first, expected + grain.step_x * grain.wild, 1e-3);
    }
}

TEST(DuneKernels, HopsGoAroundTheTorusOnGridsOfAnySize) {
    for (int round = 0; round < 200; ++round) {
        Terrain small(3, 2), strip(1, 50), line(50, 1);
        for (Terrain* terrain : {&small, &strip, &line}) {
            std::fill(terrain->shelter.begin(), terrain->shelter.end(), 0.0f);
            terrain->shelter[0] = 1.0f;
            terrain->sand[0] = 0.3f;
            terrain->wind_x.assign(terrain->wind_x.size(), -0.6f);
            terrain->wind_y.assign(terrain->wind_y.size(), -0.8f);
            terrain->carry_grain<false>(0, 0, round);
            EXPECT_NEAR(sum(terrain->change), 0.3, 1e-6);
        }
    }
    // Both ways of wrapping give the same position wherever no hop is longer than the grid.
    for (const float position : {0.0f, 0.25f, 31.999998f, 33.0f, 65.99999f, 66.0f, 66.00001f, 98.9f, 99.0f, 120.0f})
        EXPECT_EQ(arrakis::wrapped<true>(position, 33.0f), arrakis::wrapped<false>(position, 33.0f)) << position;
}

TEST(DuneKernels, BilinearSharesLoseNothingAtTheEdges) {
    for (const auto& [columns, rows] : {std::pair{5, 4}, {1, 4}, {5, 1}, {1, 1}}) {
        for (const float fx : {0.0f, 0.3f, 0.5f, 0.8f, 1.0f}) {
            for (const float fy : {0.0f, 0.3f, 1.0f}) {
                Terrain terrain(columns, rows);
                arrakis::atomic_add_bilinear(terrain.change.data(), terrain.setting, fx * static_cast<float>(columns),
                                             fy * static_cast<float>(rows), 2.0f);
                EXPECT_NEAR(sum(terrain.change), 2.0, 1e-6);
            }
        }
    }
    Terrain terrain(5, 4);
    arrakis::atomic_add_bilinear(terrain.change.data(), terrain.setting, 4.7f, 2.0f, 2.0f);
    EXPECT_EQ(terrain.change[terrain.at(4, 1)], 1.0f);
    EXPECT_EQ(terrain.change[terrain.at(4, 2)], 1.0f);
}

TEST(DuneKernels, SandStandsUpToTheThresholdItself) {
    const float threshold = 0.625f;
    const float above = std::nextafter(threshold, 1.0f);
    const auto slide_of_step = [&](int dx, int dy, float step) {
        Terrain terrain(3, 3);
        std::fill(terrain.height.begin(), terrain.height.end(), 10.0f); // out of the way, uphill
        terrain.height[terrain.at(1, 1)] = step;
        terrain.height[terrain.at(1 + dx, 1 + dy)] = 0.0f;
        terrain.sand[terrain.at(1, 1)] = 8.0f;
        return terrain.avalanche(1, 1, threshold).moved;
    };
    for (const auto& [dx, dy] : {std::pair{-1, 0}, {1, 0}, {0, -1}, {0, 1}}) {
        EXPECT_EQ(slide_of_step(dx, dy, threshold), 0.0f);
        EXPECT_GT(slide_of_step(dx, dy, above), 0.0f);
    }
    for (const auto& [dx, dy] : {std::pair{-1, -1}, {1, -1}, {-1, 1}, {1, 1}}) {
        EXPECT_EQ(slide_of_step(dx, dy, threshold / 0.70711f), 0.0f);
        EXPECT_GT(slide_of_step(dx, dy, threshold / 0.70709f), 0.0f);
    }
}

TEST(DuneKernels, SlideHalvesALoneStepAndNeverTakesMoreThanThereIs) {
    Terrain pair(2, 1);
    pair.height = {2.0f, 0.0f};
    pair.sand = {5.0f, 0.0f};
    // One lower neighbour: its share is both the largest and the sum, so half of it moves.
    const double share = (2.0 - 0.5) * 0.4 + 2.0 * 0.6;
    EXPECT_NEAR(pair.avalanche(0, 0, 0.5f).moved, share / 2.0, 1e-6);
    EXPECT_NEAR(pair.avalanche(0, 0, 0.5f, 0.5f).moved, share / 4.0, 1e-6);
    EXPECT_EQ(pair.avalanche(1, 0, 0.5f).moved, 0.0f);
    pair.sand[0] = 0.125f;
    EXPECT_EQ(pair.avalanche(0, 0, 0.5f).moved, 0.125f);
}

TEST(DuneKernels, WhatSlidesOffArrivesInProportionToTheFalls) {
    Terrain terrain(6, 5);
    const Cells rough = rough_terrain(6, 5);
    terrain.height = rough;
    std::fill(terrain.sand.begin(), terrain.sand.end(), 1.0f);
    Cells moved, inverse_sum;
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 6; ++x) {
            const arrakis::Slide slide = terrain.avalanche(x, y, 0.5f);
            moved.push_back(slide.moved);
            inverse_sum.push_back(slide.inverse_sum);
        }
    }
    const auto slid = [&](int x, int y) {
        return arrakis::slid_sand<false>(x, y, terrain.setting, terrain.height.data(), moved.data(), inverse_sum.data(),
                                         0.5f);
    };
    double balance = 0.0;
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x)
            balance += static_cast<double>(slid(x, y));
    EXPECT_NEAR(balance, 0.0, 1e-5);
    EXPECT_NEAR(std::accumulate(moved.begin(), moved.end(), 0.0), 29.0, 1.01); // all but the lowest cells slide

    // Two lower neighbours of falls 1 and 3, without a threshold.
    Terrain row(3, 1);
    row.height = {4.0f, 5.0f, 2.0f};
    row.sand = {0.0f, 9.0f, 0.0f};
    const arrakis::Slide slide = row.avalanche(1, 0, 0.0f);
    EXPECT_NEAR(slide.moved, 3.0 * 4.0 / (3.0 + 4.0), 1e-6);
    moved = {0.0f, slide.moved, 0.0f};
    inverse_sum = {0.0f, slide.inverse_sum, 0.0f};
    for (const auto& [x, part] : {std::pair{0, 0.25}, {1, -1.0}, {2, 0.75}})
        EXPECT_NEAR(
            arrakis::slid_sand<false>(x, 0, row.setting, row.height.data(), moved.data(), inverse_sum.data(), 0.0f),
            part * static_cast<double>(slide.moved), 1e-6);
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
    sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
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
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
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

TEST_F(Dunes, StreamlinesOnFlatGroundRunAlongTheRows) {
    const Result result = finished(parameters(64, 64, 1.0f), sheet(64, 64, 0.0f), sheet(64, 64, 0.0f));
    // Each line of four steps leaves its tent, 0, 1, 2 and 1 times 0.35, on two rows; 16 lines leave most cells alone.
    EXPECT_LE(std::count_if(result.wind_trace.begin(), result.wind_trace.end(), [](float t) { return t > 0.0f; }),
              16 * 2 * 4);
    EXPECT_NEAR(sum(result.wind_trace), 16 * 1.4, 1e-4);
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

TEST_F(Dunes, SteepSandSlidesTowardsRepose) {
    // A straight ridge of sand across the wind, far above repose.
    const int n = 96;
    Cells sand = sheet(n, n, 0.0f);
    for (int y = 0; y < n; ++y)
        for (int x = 40; x < 56; ++x)
            sand[cell_count(n, y) + static_cast<std::size_t>(x)] = 8.0f;
    const auto p = parameters(n, n, 30.0f);
    const Result result = finished(p, sheet(n, n, 0.0f), sand);
    float steepest = 0.0f;
    for (int y = 1; y < n - 1; ++y)
        for (int x = 1; x < n; ++x)
            steepest = std::max(steepest, std::fabs(result.height[cell_count(n, y) + static_cast<std::size_t>(x)] -
                                                    result.height[cell_count(n, y) + static_cast<std::size_t>(x) - 1]));
    EXPECT_LT(steepest, 2.0f * arrakis::repose_step(p));
    EXPECT_GT(steepest, 0.2f * arrakis::repose_step(p));
    EXPECT_NEAR(sum(result.sand), sum(sand), 1e-5 * sum(sand));
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
    const SingleThread one;
    const Cells ground = hills(48, 48), sand = sheet(48, 48, 0.3f);
    const Result two_rounds = finished(parameters(48, 48, 2.0f), ground, sand);
    host.cancel_questions = 0;
    host.cancel_at = 1; // at 5 %, after two rounds of 40
    const Result cancelled = finished(parameters(48, 48, 40.0f), ground, sand);
    EXPECT_EQ(host.cancel_questions, 1);
    EXPECT_TRUE(same_bits(cancelled.height, two_rounds.height));
    EXPECT_TRUE(same_bits(cancelled.sand, two_rounds.sand));
    EXPECT_TRUE(same_bits(cancelled.wind_trace, sheet(48, 48, 0.0f)));
    EXPECT_EQ(host.released, host.acquired);
}

TEST_F(Dunes, FrameTellsTimeAndNeed) {
    finished(parameters(1024, 1024, 0.0f), sheet(1024, 1024, 0.0f), sheet(1024, 1024, 0.0f));
    EXPECT_EQ(host.acquired, std::vector<std::size_t>{std::size_t{68} * 1024 * 1024});
    EXPECT_EQ(host.released, host.acquired);
    ASSERT_EQ(host.infos.size(), 1u);
    EXPECT_EQ(host.infos[0].rfind("Execution time: ", 0), 0u);
    EXPECT_EQ(host.infos[0].substr(host.infos[0].size() - 3), " ms");
}

/// Single rows and columns, grids below the blur's window and below the longest hop, around the CPU's pieces of rows.
const std::vector<std::pair<int, int>> awkward_sizes = {{1, 1},   {1, 300}, {300, 1}, {2, 2},   {3, 50},
                                                        {17, 31}, {31, 40}, {32, 32}, {513, 9}, {257, 34}};

TEST_F(Dunes, AnySizeWorks) {
    for (const auto& [width, height] : awkward_sizes) {
        const double expected = 0.3 * width * height;
        const Result result =
            finished(parameters(width, height, 12.0f), hills(width, height), sheet(width, height, 0.3f));
        EXPECT_NEAR(sum(result.sand), expected, 1e-4 * expected) << width << " x " << height;
        result.expect_height_is_ground_and_sand();
    }
}

TEST_F(Dunes, NonFiniteGridsAndExtremeParametersFinish) {
    for (const float bad : {nan, infinity, -infinity, 3e38f, -3e38f}) {
        for (const auto& [width, height] : {std::pair{48, 40}, {5, 3}, {1, 20}}) {
            Cells ground = hills(width, height), sand = sheet(width, height, 0.3f);
            ground[0] = bad;
            run(queue, parameters(width, height, 5.0f), ground, sand);
            ground[0] = 0.0f;
            sand[1] = bad;
            run(queue, parameters(width, height, 5.0f), ground, sand);
        }
    }
    for (const auto& [field, value] : {std::pair{&arrakis_Parameters::repose_angle, 1e30f},
                                       {&arrakis_Parameters::repose_angle, -1e30f},
                                       {&arrakis_Parameters::repose_angle, 90.0f},
                                       {&arrakis_Parameters::terrain_size, 1e30f},
                                       {&arrakis_Parameters::terrain_size, 1e-30f},
                                       {&arrakis_Parameters::terrain_height, 1e30f},
                                       {&arrakis_Parameters::terrain_height, 1e-30f},
                                       {&arrakis_Parameters::feature_size, nan},
                                       {&arrakis_Parameters::reserved_1, nan}}) {
        auto p = parameters(40, 40, 5.0f);
        p.*field = value;
        finished(p, hills(40, 40), sheet(40, 40, 0.3f)).expect_height_is_ground_and_sand();
    }
}

TEST_F(Dunes, BadInputIsRefusedWithOneLineThatNamesTheField) {
    struct Case {
        const char* field;
        std::function<void(arrakis_Parameters&)> spoil;
    };
    const std::vector<Case> cases = {
        {"width",
         [](auto& p) {
             p.width = 0;
         }},
        {"height",
         [](auto& p) {
             p.height = -3;
         }},
        {"width * height",
         [](auto& p) {
             p.width = p.height = std::numeric_limits<int>::max();
         }},
        {"duration",
         [](auto& p) {
             p.duration = -1e-6f;
         }},
        {"duration",
         [](auto& p) {
             p.duration = nan;
         }},
        {"duration",
         [](auto& p) {
             p.duration = infinity;
         }},
        {"duration",
         [](auto& p) {
             p.duration = 1e6f;
         }},
        {"repose_angle",
         [](auto& p) {
             p.repose_angle = nan;
         }},
        {"terrain_size",
         [](auto& p) {
             p.terrain_size = infinity;
         }},
        {"terrain_size",
         [](auto& p) {
             p.terrain_size = 0.0f;
         }},
        {"terrain_size",
         [](auto& p) {
             p.terrain_size = -1.0f;
         }},
        {"terrain_size",
         [](auto& p) {
             p.terrain_size = 1e-43f;
         }},
        {"terrain_height",
         [](auto& p) {
             p.terrain_height = nan;
         }},
        {"terrain_height",
         [](auto& p) {
             p.terrain_height = 0.0f;
         }},
        {"terrain_height",
         [](auto& p) {
             p.terrain_height = 3e38f;
         }},
    };
    const Cells ground = hills(16, 16), sand = sheet(16, 16, 0.1f);
    for (const Case& bad : cases) {
        auto p = parameters(16, 16, 3.0f);
        bad.spoil(p);
        host.errors.clear();
        const Result result = run(queue, p, ground, sand);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_failed)) << bad.field;
        ASSERT_EQ(host.errors.size(), 1u) << bad.field;
        EXPECT_NE(host.errors[0].find(bad.field), std::string::npos) << host.errors[0];
        EXPECT_TRUE(same_bits(result.height, ground));
        EXPECT_TRUE(same_bits(result.sand, sand));
        EXPECT_EQ(result.wind_trace[0], 77.0f);
    }
    EXPECT_TRUE(host.progress.empty());
    EXPECT_TRUE(host.acquired.empty());
}

TEST_F(Dunes, NullArgumentsAreRefused) {
    Cells height = hills(16, 16), sand = height, trace = height;
    const auto p = parameters(16, 16, 3.0f);
    const HostCallbacks record = host.callbacks();
    const auto failed = static_cast<std::uint32_t>(status_failed);
    EXPECT_EQ(DuneSimulation(nullptr, height.data(), sand.data(), trace.data(), &p, &record), failed);
    EXPECT_EQ(DuneSimulation(handle(queue), nullptr, sand.data(), trace.data(), &p, &record), failed);
    EXPECT_EQ(DuneSimulation(handle(queue), height.data(), nullptr, trace.data(), &p, &record), failed);
    EXPECT_EQ(DuneSimulation(handle(queue), height.data(), sand.data(), nullptr, &p, &record), failed);
    EXPECT_EQ(DuneSimulation(handle(queue), height.data(), sand.data(), trace.data(), nullptr, &record), failed);
    EXPECT_EQ(DuneSimulation(handle(queue), height.data(), sand.data(), trace.data(), &p, nullptr), failed);
    EXPECT_EQ(host.errors.size(), 5u);
    EXPECT_TRUE(same_bits(height, hills(16, 16)));
}

#ifdef HOSTSYCL
TEST_F(Dunes, ACellAWorkItemOnAGpuGivesTheBitsOfRowsOnACpu) {
    const SingleThread one;
    SimulatedGpu gpu;
    for (const auto& [width, height] : awkward_sizes) {
        const auto p = parameters(width, height, 6.0f);
        const Cells ground = hills(width, height), sand = sheet(width, height, 0.3f);
        const Result there = run(gpu.queue, p, ground, sand);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
        const Result here = finished(p, ground, sand);
        EXPECT_TRUE(same_bits(there.height, here.height)) << width << " x " << height;
        EXPECT_TRUE(same_bits(there.sand, here.sand)) << width << " x " << height;
        EXPECT_TRUE(same_bits(there.wind_trace, here.wind_trace)) << width << " x " << height;
    }
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(Dunes, ErrorsOfTheDeviceEndTheRun) {
    SimulatedGpu gpu;
    const Cells ground = hills(32, 32), sand = sheet(32, 32, 0.3f);
    gpu.device.throw_on_submit(20, "lost");
    run(gpu.queue, parameters(32, 32, 6.0f), ground, sand);
    EXPECT_EQ(status, static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.size(), 1u);
    for (unsigned n = 1; n <= 11; ++n) { // the caller's three grids, the level's three, five for the rounds
        gpu.device.clear_faults();
        gpu.device.fail_allocation(n + 1); // after the frame's trial
        run(gpu.queue, parameters(32, 32, 6.0f), ground, sand);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_out_of_memory)) << n;
    }
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}
#endif

} // namespace
