#include "thermal/thermal.hpp"

#include <algorithm>
#include <bit>
#include <functional>
#include <limits>
#include <numeric>

#include <tbb/global_control.h>

#include "support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

namespace {

using namespace tarn;
using namespace tarn_test;
using thermal::Phase;
using thermal::Schedule;

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

double sum(const Cells& cells) {
    return std::accumulate(cells.begin(), cells.end(), 0.0);
}

class Thermal : public ::testing::Test {
  protected:
    sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
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
        EXPECT_EQ(w.status, static_cast<std::uint32_t>(status_ok));
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

TEST_F(Thermal, ScheduleAtTheLevelCountsThatMatter) {
    const auto schedule = [](float levels, float iterations) {
        return Schedule(parameters(256, 256, levels, iterations));
    };
    // Below 1: one level with a share of exp(count - 1).
    EXPECT_EQ(schedule(-1.0f, 2560.0f).levels(), 1);
    EXPECT_EQ(schedule(-1.0f, 2560.0f).iterations(0), std::ceil(std::exp(-2.0f) * 2560.0f));
    EXPECT_EQ(schedule(1.0f, 1000.0f).levels(), 1);
    EXPECT_EQ(schedule(1.0f, 1000.0f).iterations(0), 1000.0f);

    const Schedule four = schedule(4.0f, 1024.0f);
    EXPECT_EQ(four.levels(), 4);
    EXPECT_EQ(four.iterations(0), 1024.0f);
    EXPECT_EQ(four.iterations(1), 1024.0f);
    // A level half a step behind the bend: e^-3 / 6 + 1/2 - 1/6 halvings.
    EXPECT_EQ(four.iterations(2), std::ceil(1024.0 * std::exp2(-(std::exp(-3.0) / 6.0 + 0.5 - 1.0 / 6.0))));
    EXPECT_NEAR(four.iterations(3) / schedule(6.0f, 1024.0f).iterations(4), 2.0, 0.02); // halvings from there on

    const Schedule fraction = schedule(3.25f, 1024.0f);
    EXPECT_EQ(fraction.levels(), 4);
    EXPECT_EQ(fraction.iterations(0), 256.0f);
    EXPECT_EQ(fraction.iterations(1), 1024.0f);
    EXPECT_EQ(fraction.iterations(2), 1024.0f);
    EXPECT_LT(fraction.iterations(3), 1024.0f);

    // As many as the feature size asks for, also where there is nothing left to halve.
    EXPECT_EQ(Schedule(parameters(8, 64, 7.0f, 1.0f)).levels(), 7);
}

TEST_F(Thermal, PhasesOfALevel) {
    const auto phases = [](float iterations, int level_index, bool is_root) {
        std::string text;
        for (float t = 0.0f; t < iterations; t += 1.0f) {
            const Phase phase = thermal::phase_of(t, iterations, level_index, is_root);
            text += phase == Phase::plain ? 'p' : phase == Phase::directional ? 'd' : 's';
        }
        return text;
    };
    const auto row = [](int plain, int directional, int settling) {
        const auto count = [](int n) {
            return static_cast<std::size_t>(n);
        };
        return std::string(count(plain), 'p') + std::string(count(directional), 'd') +
               std::string(count(settling), 's');
    };
    EXPECT_EQ(phases(100.0f, 3, true), row(80, 12, 8));
    EXPECT_EQ(phases(40.0f, 3, true), row(20, 12, 8));
    EXPECT_EQ(phases(18.0f, 3, true), row(9, 1, 8));
    EXPECT_EQ(phases(16.0f, 3, true), row(8, 0, 8));
    EXPECT_EQ(phases(5.0f, 3, true), row(0, 0, 5));
    EXPECT_EQ(phases(100.0f, 2, false), row(92, 0, 8));
    EXPECT_EQ(phases(100.0f, 0, true), row(0, 0, 100));
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

TEST_F(Thermal, SurfaceRisesAndFallsWithItsCover) {
    // On a single level loosening leaves the surface alone and a move changes surface and cover alike, whatever the
    // border and the absorption take.
    const Cells terrain = rough_terrain(50, 41);
    auto p = parameters(50, 41, 1.0f, 30.0f);
    for (const float absorption : {0.0f, 0.6f, 1.0f}) {
        p.absorption = absorption;
        const Weathered w = weathered(terrain, p);
        for (std::size_t i = 0; i < terrain.size(); ++i)
            ASSERT_NEAR(w.heights[i] - terrain[i], w.depth[i] - w.wear[i], 1e-3f) << i;
        EXPECT_GT(sum(w.wear), 1000.0);
    }
}

TEST_F(Thermal, BorderCellsShedOverTheEdge) {
    Cells ramp;
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 32; ++x)
            ramp.push_back(2.0f * static_cast<float>(x));
    const Weathered w = weathered(ramp, parameters(32, 32, 1.0f, 20.0f));
    EXPECT_LT(sum(w.heights), sum(ramp) - 1.0);
    EXPECT_EQ(w.heights[16 * 32], 0.0f); // the lowest column has no lower neighbour, and takes nothing in
    EXPECT_LT(w.heights[16 * 32 + 31], ramp[31]);
}

TEST_F(Thermal, SteepConeRelaxesToTheReposeSlope) {
    // Two levels, the coarser one, which always settles, next to idle.
    auto p = parameters(64, 64, 1.002f, 1000.0f);
    p.erosion_rate = 10.0f;
    const float talus = std::atan(p.repose_angle * 3.14159265f / 180.0f);
    const Weathered w = weathered(cone(64, 2.0f), p);
    float steepest = 0.0f;
    for (std::size_t x = 2; x < 62; ++x)
        steepest = std::max(steepest, std::abs(w.heights[32 * 64 + x + 1] - w.heights[32 * 64 + x - 1]) / 2.0f);
    EXPECT_NEAR(steepest, talus, 0.15f * talus);
    EXPECT_GT(w.heights[32 * 64 + 32], 10.0f); // still a hill
    // Gentle ground stays as it is, but for what settles.
    const Cells gentle = cone(64, 0.8f * talus);
    p.erosion_rate = 0.0f;
    const Weathered untouched = weathered(gentle, p);
    for (std::size_t i = 0; i < gentle.size(); ++i)
        ASSERT_NEAR(untouched.heights[i], gentle[i], 1e-4f);
    EXPECT_EQ(sum(untouched.wear), 0.0);
}

/// Everything to the bit: a terrain and masks of numbers that are exact in a float, and a run through all levels and
/// phases. The sums come from a scalar program that follows the rules one by one and shares nothing with the library.
TEST_F(Thermal, BitsAreThoseOfAScalarRun) {
    Cells terrain, erosion, absorption;
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 24; ++x) {
            terrain.push_back(static_cast<float>((x * 7 + y * 13) % 29) * 0.125f +
                              static_cast<float>(std::abs(2 * x - y)) * 0.5f);
            erosion.push_back(static_cast<float>((x + y) % 5) * 0.25f);
            absorption.push_back(static_cast<float>((x * 3 + y) % 4) * 0.25f);
        }
    auto p = parameters(24, 20, 3.0f, 60.0f);
    p.curvature_bias = 0.5f;
    p.absorption = 0.25f;
    p.use_erosion_mask = p.use_absorption_mask = 1;
    const auto checksum = [](const Cells& cells) { // FNV-1a
        std::uint32_t state = 2166136261u;
        for (const float cell : cells) {
            const auto bits = std::bit_cast<std::uint32_t>(cell + 0.0f); // one zero
            for (int shift = 0; shift < 32; shift += 8)
                state = (state ^ ((bits >> shift) & 255u)) * 16777619u;
        }
        return state;
    };
    const Weathered w = weathered(terrain, p, &erosion, &absorption);
    EXPECT_EQ(checksum(w.heights), 0xD797443Cu) << "their sum is " << sum(w.heights) << ", not 1678.27";
    EXPECT_EQ(checksum(w.depth), 0x37FAD4C3u) << "their sum is " << sum(w.depth) << ", not 640.334";
    EXPECT_EQ(checksum(w.wear), 0xBAFDD816u) << "their sum is " << sum(w.wear) << ", not 3621.64";
}

TEST_F(Thermal, FoldBackBuriesDetailWearsItAndAbsorbsCover) {
    using thermal::Grid;
    const sycl::range<2> coarse_shape(2, 2), fine_shape(4, 4);
    const auto grid = [](const sycl::range<2>& shape, float value) {
        Grid result(shape);
        const sycl::host_accessor cells(result, sycl::write_only);
        for (std::size_t i = 0; i < shape.size(); ++i)
            cells[sycl::id<2>(i / shape[1], i % shape[1])] = value;
        return result;
    };
    struct Result {
        float heights, depth, wear;
    };
    // Uniform coarse grids come through the upsampling as they are.
    const auto folded = [&](float cover, float worn, float detail, float fine_mask, float coarse_mask) {
        auto p = parameters(4, 4, 2.0f, 1.0f);
        p.terrain_size = 12.0f; // coarse cells are six wide
        p.absorption = 0.5f;
        p.use_absorption_mask = 1;
        thermal::LaplacianLevel fine(queue, grid(fine_shape, 0.0f), grid(fine_shape, 7.0f), grid(fine_shape, 7.0f),
                                     Grid(sycl::range<2>(1, 1)), grid(fine_shape, fine_mask), nullptr);
        fine.detail = grid(fine_shape, detail);
        thermal::LaplacianLevel coarse(queue, grid(coarse_shape, 100.0f), grid(coarse_shape, cover),
                                       grid(coarse_shape, worn), Grid(sycl::range<2>(1, 1)),
                                       grid(coarse_shape, coarse_mask), &fine);
        coarse.reconstruct_previous_level(p);
        const sycl::host_accessor heights(fine.heights, sycl::read_only), depth(fine.depth, sycl::read_only),
            wear(fine.wear, sycl::read_only);
        const sycl::id<2> cell(2, 1);
        return Result{heights[cell], depth[cell], wear[cell]};
    };
    const auto expect = [](const Result& result, float heights, float depth, float wear) {
        EXPECT_FLOAT_EQ(result.heights, heights);
        EXPECT_FLOAT_EQ(result.depth, depth);
        EXPECT_FLOAT_EQ(result.wear, wear);
    };
    expect(folded(0.0f, 8.0f, -0.5f, 0, 0), 99.5f, 0.0f, 8.0f);   // bare ground keeps all its detail
    expect(folded(2.0f, 8.0f, 0.75f, 0, 0), 100.0f, 1.25f, 8.0f); // buried
    expect(folded(2.0f, 8.0f, -1.0f, 0, 0), 100.0f, 3.0f, 8.0f);  // a hollow takes more cover
    expect(folded(2.0f, 3.0f, 5.0f, 0, 0), 103.0f, 0.0f, 3.0f);   // stands out: twice the wear is just a cell's width
    expect(folded(2.0f, 6.0f, 5.0f, 0, 0), 101.5f, 0.0f, 6.0f);   // worn to the half
    expect(folded(2.0f, 1.0f, 0.0f, 0.75f, 0.5f), 99.5f, 1.5f, 1.0f); // a quarter: half the mask's excess, half of that
    expect(folded(2.0f, 1.0f, 0.0f, 1.0f, 0.25f), 99.0f, 1.0f, 1.0f); // no more than the absorption
    expect(folded(2.0f, 1.0f, 0.0f, 0.5f, 0.75f), 100.0f, 2.0f, 1.0f);
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

TEST_F(Thermal, ProgressAndCancel) {
    const Cells terrain = rough_terrain(32, 32);
    const auto p = parameters(32, 32, 3.0f, 30.0f);
    const Schedule schedule(p);
    const int iterations = static_cast<int>(schedule.iterations(0) + schedule.iterations(1) + schedule.iterations(2));
    const Weathered whole = weathered(terrain, p);
    EXPECT_EQ(host.progress.front(), 0.0);
    EXPECT_EQ(host.progress.back(), 100.0);
    EXPECT_TRUE(std::is_sorted(host.progress.begin(), host.progress.end()));
    // The coarse levels' first 5 % pass in silence; from then on every iteration reports.
    EXPECT_LT(host.progress.size(), static_cast<std::size_t>(iterations) + 1);
    EXPECT_GT(host.progress.size(), static_cast<std::size_t>(iterations) / 2);

    for (const int at : {1, 20, host.cancel_questions}) {
        host.cancel_questions = 0;
        host.cancel_at = at;
        host.progress.clear();
        const Weathered cancelled = run(queue, terrain, p);
        EXPECT_EQ(cancelled.status, static_cast<std::uint32_t>(status_cancelled));
        EXPECT_EQ(host.cancel_questions, at); // not asked again
        EXPECT_GT(sum(cancelled.wear), 0.0);  // what was done before has been folded back
        for (std::size_t i = 0; i < terrain.size(); ++i)
            ASSERT_LT(std::abs(cancelled.heights[i] - terrain[i]), 60.0f);
    }
    EXPECT_EQ(host.released, host.acquired);
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
        Weathered cancelled = run(queue, terrain, parameters(40, 24, 1.0f, 32.0f));
        EXPECT_EQ(cancelled.status, static_cast<std::uint32_t>(status_cancelled));
        host.cancel_at = 0;
        expect_same(cancelled, weathered(terrain, parameters(40, 24, 1.0f, static_cast<float>(reports + 1))));
    }
}

TEST_F(Thermal, BadInputIsRefusedWithOneLineThatNamesTheField) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), infinity = std::numeric_limits<float>::infinity();
    const std::vector<std::pair<const char*, std::function<void(thermal_Parameters&)>>> cases = {
        {"width",
         [](auto& p) {
             p.width = 0;
         }},
        {"height",
         [](auto& p) {
             p.height = -1;
         }},
        {"duration",
         [=](auto& p) {
             p.duration = nan;
         }},
        {"duration",
         [](auto& p) {
             p.duration = -0.5f;
         }},
        {"duration",
         [](auto& p) {
             p.duration = 1e9f;
         }},
        {"erosion_rate",
         [=](auto& p) {
             p.erosion_rate = infinity;
         }},
        {"curvature_bias",
         [=](auto& p) {
             p.curvature_bias = nan;
         }},
        {"repose_angle",
         [=](auto& p) {
             p.repose_angle = nan;
         }},
        {"repose_angle",
         [](auto& p) {
             p.repose_angle = -1.0f;
         }},
        {"feature_size",
         [](auto& p) {
             p.feature_size = 0.0f;
         }},
        {"terrain_size",
         [](auto& p) {
             p.terrain_size = 0.0f;
         }},
        {"terrain_size",
         [](auto& p) {
             p.terrain_size = -3.0f;
         }},
        {"terrain_height",
         [](auto& p) {
             p.terrain_height = 0.0f;
         }},
        {"absorption",
         [=](auto& p) {
             p.absorption = nan;
         }},
    };
    const Cells terrain = rough_terrain(16, 16);
    for (const auto& [field, spoil] : cases) {
        auto p = parameters(16, 16, 2.0f, 20.0f);
        spoil(p);
        host.errors.clear();
        const Weathered w = run(queue, terrain, p);
        EXPECT_EQ(w.status, static_cast<std::uint32_t>(status_failed)) << field;
        ASSERT_EQ(host.errors.size(), 1u) << field;
        EXPECT_NE(host.errors[0].find(field), std::string::npos) << host.errors[0];
        EXPECT_TRUE(same_bits(w.heights, terrain));
        EXPECT_EQ(w.depth[0], -77.0f);
    }
    EXPECT_TRUE(host.acquired.empty());
    const HostCallbacks record = host.callbacks();
    const auto p = parameters(16, 16, 2.0f, 20.0f);
    Cells cells = terrain;
    EXPECT_EQ(ThermalSimulation(handle(queue), cells.data(), nullptr, cells.data(), nullptr, nullptr, &p, &record),
              static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.back(), "ThermalSimulation: depth is null");
}

TEST_F(Thermal, HostileButFiniteParametersFinish) {
    for (const auto& [field, value] : {std::pair{&thermal_Parameters::erosion_rate, 1e30f},
                                       {&thermal_Parameters::erosion_rate, -1e30f},
                                       {&thermal_Parameters::curvature_bias, -1e20f},
                                       {&thermal_Parameters::repose_angle, 1e30f},
                                       {&thermal_Parameters::feature_size, 1e30f},
                                       {&thermal_Parameters::feature_size, 1e-30f},
                                       {&thermal_Parameters::absorption, 1e10f}}) {
        auto p = parameters(24, 20, 2.5f, 12.0f);
        p.*field = value;
        weathered(rough_terrain(24, 20), p);
    }
}

const std::vector<std::pair<int, int>> sizes = {{1, 1}, {1, 9}, {2, 2}, {17, 3}, {33, 18}, {64, 64}, {101, 67}};

/// One iteration more or less changes which buffers hold the result.
TEST_F(Thermal, ResultsReachTheCallerForOddAndEvenCountsAndAnyNumberOfThreads) {
    for (const auto& [width, height] : sizes) {
        const Cells terrain = rough_terrain(width, height), mask(terrain.size(), 0.7f);
        for (const float iterations : {1.0f, 2.0f, 19.0f, 20.0f, 43.0f}) {
            auto p = parameters(width, height, 1.0f, iterations);
            p.use_erosion_mask = p.use_absorption_mask = 1;
            const Weathered one_level = weathered(terrain, p, &mask, &mask);
            EXPECT_EQ(width * height > 1, !same_bits(one_level.heights, terrain)) << iterations;
            p.feature_size = 11.0f;
            p.absorption = 0.2f;
            const Weathered many = weathered(terrain, p, &mask, &mask);
            EXPECT_TRUE(
                std::all_of(many.heights.begin(), many.heights.end(), [](float h) { return std::isfinite(h); }));
            const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
            expect_same(weathered(terrain, p, &mask, &mask), many);
        }
    }
}

#ifdef HOSTSYCL

TEST_F(Thermal, GpuOfItsOwnMemoryGivesTheSameBits) {
    SimulatedGpu gpu;
    for (const auto& [width, height] : sizes) {
        const Cells terrain = rough_terrain(width, height);
        Cells mask = terrain;
        for (float& cell : mask)
            cell = std::abs(std::sin(cell));
        for (const float iterations : {0.0f, 7.0f, 40.0f}) {
            auto p = parameters(width, height, 2.5f, iterations);
            p.use_erosion_mask = p.use_absorption_mask = 1;
            p.absorption = 0.2f;
            const Weathered there = run(gpu.queue, terrain, p, &mask, &mask);
            EXPECT_EQ(there.status, static_cast<std::uint32_t>(status_ok));
            expect_same(there, weathered(terrain, p, &mask, &mask));
        }
    }
}

TEST_F(Thermal, MasksWithoutTheirFlagsStayWhereTheyAre) {
    const Cells terrain = rough_terrain(32, 32), mask(terrain.size(), 0.5f);
    auto p = parameters(32, 32, 2.5f, 20.0f);
    const auto uploaded = [&](const Cells* given) {
        SimulatedGpu gpu;
        EXPECT_EQ(run(gpu.queue, terrain, p, given, given).status, static_cast<std::uint32_t>(status_ok));
        return gpu.device.counters().bytes_copied_to_device;
    };
    EXPECT_EQ(uploaded(&mask), uploaded(nullptr));
    p.use_erosion_mask = 1;
    EXPECT_GT(uploaded(&mask), uploaded(nullptr));
}

TEST_F(Thermal, DeviceFaultsEndInTheirStatus) {
    SimulatedGpu gpu;
    device_callbacks.set(host.callbacks());
    const Cells terrain = rough_terrain(32, 32);
    const auto p = parameters(32, 32, 2.5f, 20.0f);
    // The first delivery after the memory probe is taken for the probe's own; the next one is not.
    gpu.device.raise_asynchronous_error(9, "lost a page");
    gpu.device.raise_asynchronous_error(90, "lost another");
    EXPECT_EQ(run(gpu.queue, terrain, p).status, static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors, std::vector<std::string>{"Caught asynchronous SYCL exception: lost another"});
    gpu.device.throw_on_submit(9, "queue is full");
    EXPECT_EQ(run(gpu.queue, terrain, p).status, static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.back(), "Runtime error on device Discrete GPU (Level Zero): queue is full");
    EXPECT_EQ(host.released, host.acquired);
    device_callbacks.set(HostCallbacks{});

    // 68 bytes a cell and the reserve.
    const std::size_t need = 68 * 32 * 32 + (std::size_t{256} << 20);
    SimulatedGpu small(discrete_gpu(need - 1)), enough(discrete_gpu(need));
    EXPECT_EQ(run(small.queue, terrain, p).status, static_cast<std::uint32_t>(status_out_of_memory));
    EXPECT_EQ(run(enough.queue, terrain, p).status, static_cast<std::uint32_t>(status_ok));
}

#endif

} // namespace
