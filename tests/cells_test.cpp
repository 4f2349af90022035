#include "cells/cellular3d.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <set>

#include <tbb/global_control.h>

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

#include "cells/cellular3d_kernels.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

using Cells = std::vector<float>;

const float nan = std::numeric_limits<float>::quiet_NaN();
const float infinity = std::numeric_limits<float>::infinity();

TEST(CellularKernels, HashAndRandomNumbersAreTheSameOnEveryMachine) {
    // Worked out by hand with whole numbers of any length.
    EXPECT_EQ(cellular3d::lattice_hash(3, 0, 7, 5), 0x8497A328u);
    EXPECT_EQ(cellular3d::lattice_hash(-2, -2, -2, 0), 0xB54F0849u);
    const auto congruential = cellular3d::cell_randoms<0>(cellular3d::lattice_hash(3, 0, 7, 5));
    const float unit = 1.5259022e-05f; // 1 / 65535
    EXPECT_EQ(congruential.x, 45517.0f * unit);
    EXPECT_EQ(congruential.y, 50206.0f * unit);
    EXPECT_EQ(congruential.z, 41579.0f * unit);
    EXPECT_EQ(congruential.cell, 22468.0f * unit);
    const auto of_zero = cellular3d::cell_randoms<1>(0u), of_stand_in = cellular3d::cell_randoms<1>(0xA2351342u);
    EXPECT_EQ(of_zero.x, of_stand_in.x);
    EXPECT_EQ(of_zero.cell, of_stand_in.cell);
}

/// A block of 8 x 8 lattice cells over 64 x 64 cells of the grid, 4 high for a height of 1.
Cellular3D_Parameters parameters(int side = 64) {
    Cellular3D_Parameters p{};
    p.grid_width = p.grid_height = side;
    p.cell_density = 8.0f;
    p.extent_x = p.extent_y = p.extent_z = 1.0f;
    p.z_unit = 1.0f;
    p.z_range = 0.5f;
    return p;
}

Cellular3D_Parameters jittered(int side = 64) {
    Cellular3D_Parameters p = parameters(side);
    p.jitter_x = p.jitter_y = p.jitter_z = 0.9f;
    p.seed = 11;
    return p;
}

class Cellular : public ::testing::Test {
  protected:
    sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
    RecordingHost host;
    std::uint32_t status = 0;

    struct Result {
        Cells height, random;
    };

    Result run(sycl::queue& on, Cellular3D_Parameters& p, const Cells& ground, const Cells& gap_factor = {}) {
        Result result{ground, Cells(ground.size(), nan)};
        const HostCallbacks record = host.callbacks();
        status = Cellular3D_Render(handle(on), result.height.data(), gap_factor.empty() ? nullptr : gap_factor.data(),
                                   result.random.data(), &p, &record);
        return result;
    }

    Result finished(Cellular3D_Parameters p, const Cells& ground, const Cells& gap_factor = {}) {
        Result result = run(queue, p, ground, gap_factor);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
        EXPECT_TRUE(host.errors.empty());
        return result;
    }

    static Cells level(float height, int side = 64) {
        return Cells(static_cast<std::size_t>(side) * static_cast<std::size_t>(side), height);
    }

    /// Hills between 0.1 and 0.9.
    static Cells hills(int width = 64, int height = 64) {
        Cells cells = rough_terrain(width, height);
        const auto [lowest, highest] = std::minmax_element(cells.begin(), cells.end());
        const float least = *lowest, range = *highest - *lowest + 1e-6f;
        for (float& cell : cells)
            cell = 0.1f + 0.8f * (cell - least) / range;
        return cells;
    }
};

TEST_F(Cellular, RegularLatticeMakesFlatPlateausAtWholeLayers) {
    // Layer k is solid where its middle, at (k + 0.5) / 4, lies below the ground, and reaches up to (k + 1) / 4.
    for (const auto& [ground, top] : {std::pair{0.30f, 0.25f}, {0.40f, 0.5f}, {0.6f, 0.5f}, {0.99f, 1.0f}}) {
        const Result result = finished(parameters(), level(ground));
        for (const float height : result.height)
            ASSERT_NEAR(height, top, 1e-5f) << ground;
        // One number to a lattice column, but for the cells right on its border, which either may have.
        for (std::size_t y = 0; y < 64; ++y)
            for (std::size_t x = 0; x < 64; ++x)
                if (x % 8 != 0 && y % 8 != 0) {
                    ASSERT_EQ(result.random[y * 64 + x], result.random[(y / 8 * 8 + 4) * 64 + x / 8 * 8 + 4]);
                }
    }
    // A step in the ground stands out to the border of a lattice column.
    Cells step = level(0.3f);
    for (std::size_t i = 0; i < step.size(); ++i)
        if (i % 64 >= 32)
            step[i] = 0.8f;
    const Result result = finished(parameters(), step);
    for (std::size_t i = 0; i < step.size(); ++i)
        ASSERT_NEAR(result.height[i], i % 64 >= 32 ? 0.75f : 0.25f, 1e-5f) << i;
}

TEST_F(Cellular, GapDrawsAllFacesBackAndRemovesCellsAtOne) {
    auto p = parameters();
    p.gap = 0.25f;
    const Result result = finished(p, level(0.6f));
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x) {
            // The middle half of each lattice column, which is 8 cells wide, and both its sides.
            const bool inside = (x + 6) % 8 <= 4 && (y + 6) % 8 <= 4;
            const float height = result.height[static_cast<std::size_t>(y * 64 + x)];
            ASSERT_NEAR(height, inside ? (2.0f - 0.25f) / 4.0f : 0.0f, 1e-5f) << x << ", " << y;
        }
    for (const float gap : {1.0f, 1.3f, 1e30f}) {
        p.gap = gap;
        const Result gone = finished(p, hills());
        EXPECT_TRUE(same_bits(gone.height, level(0.0f))) << gap;
        EXPECT_TRUE(same_bits(gone.random, level(0.0f))) << gap;
    }
}

TEST_F(Cellular, GapFactorScalesTheGapWhereItStands) {
    auto p = jittered();
    p.gap = 0.2f;
    EXPECT_TRUE(same_bits(finished(p, hills(), level(1.0f)).height, finished(p, hills()).height));
    EXPECT_TRUE(same_bits(finished(p, hills(), level(nan)).height, level(0.0f)));
    Cells half = level(0.0f);
    std::fill(half.begin(), half.begin() + 32 * 64, 10.0f);
    const Result result = finished(p, hills(), half);
    p.gap = 0.0f;
    const Result whole = finished(p, hills());
    for (std::size_t i = 0; i < 64 * 20; ++i)
        ASSERT_EQ(result.height[i], 0.0f);
    for (std::size_t i = 64 * 44; i < 64 * 64; ++i)
        ASSERT_EQ(result.height[i], whole.height[i]);
}

TEST_F(Cellular, GroundBelowTheBlockGivesNothing) {
    for (const float ground : {0.0f, -5.0f, nan, -infinity}) {
        const Result result = finished(parameters(), level(ground));
        EXPECT_TRUE(same_bits(result.height, level(0.0f)));
        EXPECT_TRUE(same_bits(result.random, level(0.0f)));
    }
    for (const float height : finished(jittered(), level(0.0f)).height) {
        EXPECT_GE(height, 0.0f);
        EXPECT_LT(height, 0.25f); // the cell of a point just below 0 may reach up half a layer and more
    }
}

TEST_F(Cellular, ReliefFollowsTheGroundWithOneRandomNumberACell) {
    const Cells ground = hills();
    for (const std::uint32_t variant : {0u, 1u}) {
        auto p = jittered();
        p.cell_density = 16.0f;
        p.hash_variant = variant;
        const Result result = finished(p, ground);
        std::map<float, int> cells;
        for (std::size_t i = 0; i < ground.size(); ++i) {
            ASSERT_NEAR(result.height[i], ground[i], 0.35f) << i;
            ASSERT_GE(result.random[i], 0.0f);
            ASSERT_LE(result.random[i], 1.0f);
            ++cells[result.random[i]];
        }
        EXPECT_GT(cells.size(), 150u);
        EXPECT_LT(cells.size(), 600u);
    }
}

TEST_F(Cellular, SeedAndVariantDecideEverything) {
    std::set<Cells> results;
    for (const std::uint32_t variant : {0u, 1u})
        for (const std::uint32_t seed : {0u, 1u, 0xFFFFFFFFu}) {
            auto p = jittered();
            p.hash_variant = variant;
            p.seed = seed;
            const Result a = finished(p, hills());
            EXPECT_TRUE(same_bits(a.height, finished(p, hills()).height));
            results.insert(a.height);
            p.hash_variant = variant * 7;
            EXPECT_TRUE(same_bits(a.height, finished(p, hills()).height)); // any variant but 0 is 1
        }
    EXPECT_EQ(results.size(), 6u);
}

TEST_F(Cellular, BudgetCoarsensTheLatticeAndRewritesTheRecord) {
    auto p = parameters(16);
    run(queue, p, level(0.5f, 16));
    EXPECT_EQ(p.cell_density, 8.0f);
    EXPECT_EQ(host.acquired, std::vector<std::size_t>{64u << 20}); // (8 + 5)^2 (4 + 5) 24 + 12 * 256 bytes are less

    auto dense = parameters(16);
    dense.z_range = 0.01f;
    auto capped = dense;
    dense.cell_density = 1000.0f;
    capped.cell_density = 512.0f;
    const Result a = run(queue, dense, level(0.5f, 16)), b = run(queue, capped, level(0.5f, 16));
    EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
    EXPECT_EQ(dense.cell_density, 512.0f);
    EXPECT_TRUE(same_bits(a.height, b.height));

    p = parameters(16);
    p.cell_density = 512.0f;
    p.z_range = 1.0f;
    p.extent_x = 100.0f;
    const cellular3d::Budget budget = cellular3d::budget(p);
    const double cells = (512.0 * 100 + 5) * (512 + 5) * (512 + 5);
    EXPECT_NEAR(budget.cell_density, 512.0 * std::cbrt(1e8 / cells), 0.01);
    EXPECT_NEAR(static_cast<double>(budget.need), 24e8 + 12 * 256, 2e4);
}

TEST_F(Cellular, OneThreadGivesTheBitsOfMany) {
    auto p = jittered(100);
    p.gap = 0.1f;
    const Result many = finished(p, hills(100, 100));
    const tbb::global_control one{tbb::global_control::max_allowed_parallelism, 1};
    const Result single = finished(p, hills(100, 100));
    EXPECT_TRUE(same_bits(many.height, single.height));
    EXPECT_TRUE(same_bits(many.random, single.random));
}

TEST_F(Cellular, HostileRecordsFinish) {
    for (const auto& [field, value] : {std::pair{&Cellular3D_Parameters::gap, -1e30f},
                                       {&Cellular3D_Parameters::jitter_x, 1e30f},
                                       {&Cellular3D_Parameters::jitter_z, -1e6f},
                                       {&Cellular3D_Parameters::extent_x, 1e-6f},
                                       {&Cellular3D_Parameters::cell_density, 1e-3f},
                                       {&Cellular3D_Parameters::z_range, 1e-4f}}) {
        for (const std::uint32_t variant : {0u, 1u}) {
            auto p = jittered(20);
            p.grid_width = 31;
            p.hash_variant = variant;
            p.*field = value;
            run(queue, p, hills(31, 20));
            EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
        }
    }
    for (const float bad : {nan, infinity, -infinity, 3e38f}) {
        Cells ground = hills();
        for (std::size_t i = 0; i < ground.size(); i += 5)
            ground[i] = bad;
        finished(jittered(), ground);
        finished(jittered(), hills(), ground);
    }
    auto single = jittered(1);
    EXPECT_EQ(run(queue, single, {0.5f}).height.size(), 1u);
    EXPECT_TRUE(host.errors.empty());
}

TEST_F(Cellular, RefusalsNameTheFieldAndTouchNothing) {
    struct Case {
        const char* field;
        std::function<void(Cellular3D_Parameters&)> spoil;
    };
    const std::vector<Case> cases = {
        {"grid_width",
         [](auto& p) {
             p.grid_width = 0;
         }},
        {"grid_height",
         [](auto& p) {
             p.grid_height = -4;
         }},
        {"cell_density",
         [](auto& p) {
             p.cell_density = 0.0f;
         }},
        {"cell_density",
         [](auto& p) {
             p.cell_density = nan;
         }},
        {"gap",
         [](auto& p) {
             p.gap = nan;
         }},
        {"extent_x",
         [](auto& p) {
             p.extent_x = -1.0f;
         }},
        {"extent_y",
         [](auto& p) {
             p.extent_y = infinity;
         }},
        {"extent_z",
         [](auto& p) {
             p.extent_z = nan;
         }},
        {"jitter_y",
         [](auto& p) {
             p.jitter_y = nan;
         }},
        {"z_unit",
         [](auto& p) {
             p.z_unit = 0.0f;
         }},
        {"z_range",
         [](auto& p) {
             p.z_range = nan;
         }},
        {"z_range * extent_z / z_unit",
         [](auto& p) {
             p.z_range = -1.0f;
         }},
        {"cell_density",
         [](auto& p) {
             p.extent_x = 1e30f;
         }},
    };
    const Cells ground = hills(16, 16);
    for (const Case& bad : cases) {
        auto p = jittered(16);
        bad.spoil(p);
        const auto before = p;
        host.errors.clear();
        const Result result = run(queue, p, ground);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_failed)) << bad.field;
        ASSERT_EQ(host.errors.size(), 1u) << bad.field;
        EXPECT_NE(host.errors[0].find(bad.field), std::string::npos) << host.errors[0];
        EXPECT_TRUE(same_bits(result.height, ground));
        EXPECT_EQ(std::memcmp(&p, &before, sizeof(p)), 0) << bad.field;
    }
}

TEST_F(Cellular, NullGridsFailWithoutACallback) {
    auto p = jittered(16);
    Cells height = hills(16, 16), random = height;
    const HostCallbacks record = host.callbacks();
    const auto failed = static_cast<std::uint32_t>(status_failed);
    EXPECT_EQ(Cellular3D_Render(nullptr, height.data(), nullptr, random.data(), &p, &record), failed);
    EXPECT_EQ(Cellular3D_Render(handle(queue), nullptr, nullptr, random.data(), &p, &record), failed);
    EXPECT_EQ(Cellular3D_Render(handle(queue), height.data(), nullptr, nullptr, &p, &record), failed);
    EXPECT_TRUE(host.untouched());
    EXPECT_EQ(Cellular3D_Render(handle(queue), height.data(), nullptr, random.data(), nullptr, &record), failed);
    EXPECT_EQ(Cellular3D_Render(handle(queue), height.data(), nullptr, random.data(), &p, nullptr), failed);
    EXPECT_EQ(host.errors.size(), 1u);
}

#ifdef HOSTSYCL
TEST_F(Cellular, ACellAWorkItemOnAGpuGivesTheBitsOfRunsOnACpu) {
    SimulatedGpu gpu;
    for (const std::uint32_t variant : {0u, 1u})
        for (const float jitter : {0.0f, 1.0f}) {
            auto p = jittered(50);
            p.grid_width = 77;
            p.cell_density = 11.0f;
            p.jitter_x = p.jitter_y = p.jitter_z = jitter;
            p.hash_variant = variant;
            p.gap = 0.15f;
            const Cells ground = hills(77, 50), factor = hills(77, 50);
            const Result there = run(gpu.queue, p, ground, factor), here = run(queue, p, ground, factor);
            EXPECT_TRUE(same_bits(there.height, here.height)) << variant << ", " << jitter;
            EXPECT_TRUE(same_bits(there.random, here.random)) << variant << ", " << jitter;
        }
    EXPECT_TRUE(host.errors.empty());
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(Cellular, ErrorsOfTheDeviceEndTheRun) {
    SimulatedGpu gpu;
    auto p = jittered(16);
    gpu.device.throw_on_submit(6, "lost");
    run(gpu.queue, p, hills(16, 16));
    EXPECT_EQ(status, static_cast<std::uint32_t>(status_failed));
    for (unsigned n = 1; n <= 7; ++n) { // three lists, two grids, two layers
        gpu.device.clear_faults();
        gpu.device.fail_allocation(n + 1); // after the frame's trial
        run(gpu.queue, p, hills(16, 16));
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_out_of_memory)) << n;
    }
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}
#endif

} // namespace
