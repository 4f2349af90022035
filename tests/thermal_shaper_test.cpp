#include "thermal/thermal_shaper.hpp"

#include <algorithm>
#include <limits>
#include <numeric>

#include <tbb/global_control.h>

#include "grid/resampling.hpp"
#include "support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

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
    sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
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
        EXPECT_EQ(run(queue, cells, p, mask), static_cast<std::uint32_t>(status_ok));
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

TEST_F(ThermalShaper, MaskOfOnesIsNoMaskAndMaskOfZerosMovesPitsAlone) {
    const std::vector<float> terrain = rough_terrain(40, 40);
    const std::vector<float> open(40 * 40, 1.0f), closed(40 * 40, 0.0f);
    const auto deep = parameters(40, 40, 9.0f, -0.7f);
    EXPECT_TRUE(same_bits(shaped(terrain, deep, &open), shaped(terrain, deep)));

    const std::vector<float> result = shaped(terrain, parameters(40, 40, single_iteration_ratio, -0.7f), &closed);
    int pits = 0;
    for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 40; ++x) {
            const auto at = [&](int i, int j) {
                return terrain[static_cast<std::size_t>(std::clamp(j, 0, 39) * 40 + std::clamp(i, 0, 39))];
            };
            float lowest = std::numeric_limits<float>::infinity();
            for (int k = 0; k < 9; ++k)
                if (k != 4)
                    lowest = std::min(lowest, at(x + k % 3 - 1, y + k / 3 - 1));
            const float after = result[static_cast<std::size_t>(y * 40 + x)];
            if (at(x, y) < lowest) {
                ++pits;
                EXPECT_GT(after, at(x, y));
                EXPECT_LE(after, lowest + 1e-4f);
            } else {
                EXPECT_EQ(after, at(x, y));
            }
        }
    }
    EXPECT_GT(pits, 10);
}

TEST_F(ThermalShaper, DetailGainZeroKeepsOnlyWhatTheCoarserLevelHas) {
    // A slope with a checkerboard on it, which halving takes away exactly. Rate 0 sheds nothing, and there are no pits.
    std::vector<float> cells;
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 24; ++x)
            cells.push_back(4.0f * static_cast<float>(x) + 3.0f * static_cast<float>(y) +
                            0.5f * static_cast<float>((x + y) % 2));
    auto p = parameters(24, 16, 4.0f, 0.0f);
    p.detail_gain = 0.0f;
    resampling::Grid root(Extent<2>(24, 16), queue, cells.data(), false, true);
    resampling::Grid coarse = resampling::downsample_magic(root);
    const resampling::Grid smooth = resampling::upsample_magic(coarse);
    queue.wait();
    const std::vector<float> expected(smooth.data(), smooth.data() + smooth.size());
    const std::vector<float> result = shaped(cells, p);
    for (std::size_t i = 0; i < result.size(); ++i)
        ASSERT_NEAR(result[i], expected[i], 1e-5f) << i;
    p.detail_gain = 1.0f;
    EXPECT_NE(shaped(cells, p), result);
}

TEST_F(ThermalShaper, TransposedTerrainGivesTheTransposedResult) {
    constexpr int n = 32;
    const auto transposed = [](const std::vector<float>& cells) {
        std::vector<float> result(cells.size());
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x)
                result[static_cast<std::size_t>(x * n + y)] = cells[static_cast<std::size_t>(y * n + x)];
        return result;
    };
    const std::vector<float> terrain = rough_terrain(n, n);
    const auto p = parameters(n, n, 9.0f, -0.5f);
    const std::vector<float> there = shaped(terrain, p), back = transposed(shaped(transposed(terrain), p));
    for (std::size_t i = 0; i < there.size(); ++i)
        ASSERT_NEAR(there[i], back[i], 2e-3f) << i;
}

TEST_F(ThermalShaper, ReportsOnlyItsStartAndBalancesMemory) {
    std::vector<float> terrain = rough_terrain(64, 64);
    host.cancel_at = 1;
    EXPECT_EQ(run(queue, terrain, parameters(64, 64, 10.0f, -1.0f)), static_cast<std::uint32_t>(status_ok));
    EXPECT_EQ(host.progress, std::vector<double>{0.0});
    EXPECT_EQ(host.cancel_questions, 0);
    EXPECT_EQ(host.acquired, std::vector<std::size_t>{0x4000000});
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_TRUE(host.errors.empty());
}

TEST_F(ThermalShaper, BadInputIsRefusedWithOneLineThatNamesTheField) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), infinity = std::numeric_limits<float>::infinity();
    struct Case {
        const char* field;
        std::function<void(thermal_shaper_Parameters&)> spoil;
    };
    const std::vector<Case> cases = {
        {"width",
         [](auto& p) {
             p.width = 0;
         }},
        {"width",
         [](auto& p) {
             p.width = std::numeric_limits<int>::min();
         }},
        {"height",
         [](auto& p) {
             p.height = -3;
         }},
        {"width * height",
         [](auto& p) {
             p.width = p.height = std::numeric_limits<int>::max();
         }},
        {"level_divisor",
         [](auto& p) {
             p.level_divisor = 0.0f;
         }},
        {"level_divisor",
         [=](auto& p) {
             p.level_divisor = nan;
         }},
        {"scale_numerator",
         [](auto& p) {
             p.scale_numerator = 0.0f;
         }},
        {"scale_numerator",
         [](auto& p) {
             p.scale_numerator = 1e-44f;
         }},
        {"scale_numerator",
         [=](auto& p) {
             p.scale_numerator = -infinity;
         }},
        {"level_multiplier",
         [=](auto& p) {
             p.level_multiplier = nan;
         }},
        {"level_multiplier",
         [](auto& p) {
             p.level_multiplier = -1.0f;
         }},
        {"level_multiplier",
         [](auto& p) {
             p.level_multiplier = 0.0f;
         }},
        {"level_multiplier",
         [](auto& p) {
             p.level_multiplier = 3e38f;
         }},
        {"blend",
         [=](auto& p) {
             p.blend = infinity;
         }},
        {"rate",
         [=](auto& p) {
             p.rate = nan;
         }},
        {"detail_gain",
         [=](auto& p) {
             p.detail_gain = nan;
         }},
    };
    const std::vector<float> terrain = rough_terrain(16, 16);
    for (const Case& bad : cases) {
        auto p = parameters(16, 16, 6.0f, -1.0f);
        bad.spoil(p);
        std::vector<float> cells = terrain;
        host.errors.clear();
        EXPECT_EQ(run(queue, cells, p), static_cast<std::uint32_t>(status_failed)) << bad.field;
        ASSERT_EQ(host.errors.size(), 1u) << bad.field;
        EXPECT_NE(host.errors[0].find(bad.field), std::string::npos) << host.errors[0];
        EXPECT_TRUE(same_bits(cells, terrain));
    }
    EXPECT_TRUE(host.progress.empty());
    EXPECT_TRUE(host.acquired.empty());
}

TEST_F(ThermalShaper, NullArgumentsAreRefused) {
    std::vector<float> cells = rough_terrain(16, 16);
    auto p = parameters(16, 16, 6.0f, -1.0f);
    const HostCallbacks record = host.callbacks();
    const auto failed = static_cast<std::uint32_t>(status_failed);
    EXPECT_EQ(ThermalShaper_Process(nullptr, cells.data(), nullptr, &p, &record), failed);
    EXPECT_EQ(ThermalShaper_Process(handle(queue), nullptr, nullptr, &p, &record), failed);
    EXPECT_EQ(ThermalShaper_Process(handle(queue), cells.data(), nullptr, &p, nullptr), failed);
    EXPECT_TRUE(host.untouched());
    EXPECT_EQ(ThermalShaper_Process(handle(queue), cells.data(), nullptr, nullptr, &record), failed);
    EXPECT_EQ(host.errors, std::vector<std::string>{"ThermalShaper_Process: parameters is null"});
    EXPECT_TRUE(same_bits(cells, rough_terrain(16, 16)));
}

TEST_F(ThermalShaper, ExtremeButFiniteParametersFinish) {
    for (const auto& [field, value] : {std::pair{&thermal_shaper_Parameters::rate, 1e30f},
                                       {&thermal_shaper_Parameters::rate, -1e30f},
                                       {&thermal_shaper_Parameters::blend, -4e8f},
                                       {&thermal_shaper_Parameters::detail_gain, 1e20f},
                                       {&thermal_shaper_Parameters::level_multiplier, 1e30f},
                                       {&thermal_shaper_Parameters::level_multiplier, 1e-30f},
                                       {&thermal_shaper_Parameters::scale_numerator, -1e20f}}) {
        auto p = parameters(24, 24, 8.0f, -1.0f);
        p.*field = value;
        shaped(rough_terrain(24, 24), p);
    }
}

/// Sizes that no halving divides evenly, single rows and columns, and more levels than there is room for.
const std::vector<std::pair<int, int>> awkward_sizes = {{1, 1}, {1, 9},   {17, 1},   {2, 2},
                                                        {3, 5}, {33, 18}, {101, 67}, {256, 31}};

TEST_F(ThermalShaper, AnySizeWorksAndThreadsDoNotShowInTheBits) {
    for (const auto& [width, height] : awkward_sizes) {
        const std::vector<float> terrain = rough_terrain(width, height), mask(terrain.size(), 0.7f);
        const auto p = parameters(width, height, 40.0f, -0.8f);
        const std::vector<float> many = shaped(terrain, p, &mask);
        EXPECT_TRUE(std::all_of(many.begin(), many.end(), [](float cell) { return std::isfinite(cell); }));
        const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
        EXPECT_TRUE(same_bits(shaped(terrain, p, &mask), many)) << width << " x " << height;
    }
    const std::vector<float> large = rough_terrain(512, 512);
    const auto p = parameters(512, 512, 20.0f, -0.8f);
    const std::vector<float> many = shaped(large, p);
    const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
    EXPECT_TRUE(same_bits(shaped(large, p), many));
}

#ifdef HOSTSYCL

TEST_F(ThermalShaper, GpuOfItsOwnMemoryGivesTheSameBits) {
    SimulatedGpu gpu;
    for (const auto& [width, height] : awkward_sizes) {
        const std::vector<float> terrain = rough_terrain(width, height), mask(terrain.size(), 0.7f);
        for (const float ratio : {single_iteration_ratio, 9.5f}) // odd and even numbers of iterations at the root
            for (const float rate : {-0.8f, 0.3f}) {
                const auto p = parameters(width, height, ratio, rate);
                std::vector<float> cells = terrain, mask_cells = mask;
                EXPECT_EQ(run(gpu.queue, cells, p, &mask_cells), status_ok);
                EXPECT_TRUE(same_bits(cells, shaped(terrain, p, &mask))) << width << " x " << height;
                EXPECT_TRUE(same_bits(mask_cells, mask));
            }
    }
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(ThermalShaper, NeedIsProbedWithAndWithoutMask) {
    // 48 and 64 thirds of a byte a cell, and the reserve of 256 MiB.
    const std::vector<float> terrain = rough_terrain(64, 32), mask(terrain.size(), 1.0f);
    const std::size_t reserve = std::size_t{256} << 20, cells = 64 * 32;
    for (const auto& [need, given] :
         {std::pair<std::size_t, const std::vector<float>*>{48 * cells / 3, nullptr}, {64 * cells / 3, &mask}}) {
        for (const std::size_t missing : {0u, 1u}) {
            SimulatedGpu gpu(discrete_gpu(reserve + need - missing));
            std::vector<float> grid = terrain;
            EXPECT_EQ(run(gpu.queue, grid, parameters(64, 32, 8.0f, -1.0f), given),
                      missing == 0 ? status_ok : status_out_of_memory);
            EXPECT_EQ(same_bits(grid, terrain), missing != 0);
        }
    }
}

TEST_F(ThermalShaper, AllocationFailureOnTheWayEndsInOutOfMemory) {
    SimulatedGpu gpu;
    const std::vector<float> terrain = rough_terrain(64, 64);
    // The first allocation is the probe's; the run's own follow it: heights, details, copy, coarser levels, scratch.
    for (unsigned n = 2; n < 9; ++n) {
        host.errors.clear();
        gpu.device.fail_allocation(n);
        std::vector<float> cells = terrain;
        EXPECT_EQ(run(gpu.queue, cells, parameters(64, 64, 8.0f, -1.0f)), status_out_of_memory) << n;
        EXPECT_EQ(host.errors, std::vector<std::string>{"Memory allocation error on device Discrete GPU (Level Zero): "
                                                        "Failed to allocate memory on device"});
        gpu.device.clear_faults();
    }
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(ThermalShaper, DeviceErrorsFailTheRun) {
    SimulatedGpu gpu;
    device_callbacks.set(host.callbacks());
    std::vector<float> cells = rough_terrain(64, 64);
    EXPECT_EQ(run(gpu.queue, cells, parameters(64, 64, 8.0f, -1.0f)), status_ok);
    // The last kernel: errors from before an allocation would be taken for that allocation's.
    gpu.device.raise_asynchronous_error(static_cast<unsigned>(gpu.device.counters().kernels_launched), "lost a page");
    EXPECT_EQ(run(gpu.queue, cells, parameters(64, 64, 8.0f, -1.0f)), status_failed);
    EXPECT_EQ(host.errors, std::vector<std::string>{"Caught asynchronous SYCL exception: lost a page"});
    gpu.device.throw_on_submit(4, "queue is full");
    EXPECT_EQ(run(gpu.queue, cells, parameters(64, 64, 8.0f, -1.0f)), status_failed);
    EXPECT_EQ(host.errors.back(), "Runtime error on device Discrete GPU (Level Zero): queue is full");
    EXPECT_EQ(host.released, host.acquired);
    device_callbacks.set(HostCallbacks{});
}

#endif

} // namespace
