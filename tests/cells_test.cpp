#include "cells/cellular3d.hpp"

#include <algorithm>
#include <cmath>

#include "support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

namespace {

using namespace tarn;
using namespace tarn_test;

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
    sycl::queue queue = cpu_queue();
    RecordingHost host;
    std::uint32_t status = 0;

    struct Result {
        Cells height, random;
    };

    Result run(sycl::queue& on, Cellular3D_Parameters& p, const Cells& ground, const Cells& gap_factor = {}) {
        Result result{ground, Cells(ground.size(), not_a_number)};
        const HostCallbacks record = host.callbacks();
        status = Cellular3D_Render(handle(on), result.height.data(), gap_factor.empty() ? nullptr : gap_factor.data(),
                                   result.random.data(), &p, &record);
        return result;
    }

    Result finished(Cellular3D_Parameters p, const Cells& ground, const Cells& gap_factor = {}) {
        Result result = run(queue, p, ground, gap_factor);
        EXPECT_EQ(status, ok);
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

TEST_F(Cellular, GroundBelowTheBlockGivesNothing) {
    for (const float ground : {0.0f, -5.0f, not_a_number, -infinity}) {
        const Result result = finished(parameters(), level(ground));
        EXPECT_TRUE(same_bits(result.height, level(0.0f)));
        EXPECT_TRUE(same_bits(result.random, level(0.0f)));
    }
    for (const float height : finished(jittered(), level(0.0f)).height) {
        EXPECT_GE(height, 0.0f);
        EXPECT_LT(height, 0.25f); // the cell of a point just below 0 may reach up half a layer and more
    }
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
    EXPECT_EQ(status, ok);
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

#ifdef HOSTSYCL

TEST_F(Cellular, ALatticeLargerThanTheMemoryIsRefusedBeforeItIsBegun) {
    hostsycl::simulated_device machine = discrete_gpu(std::size_t{3} << 30);
    machine.kind = hostsycl::device_kind::cpu;
    SimulatedGpu small(machine);
    // Half a lattice cell wide and deep: the cells around the block are most of the lattice, and no lower density makes
    // them fewer. The budget says 2.4 GB, the lattice takes 12.
    auto p = parameters(16);
    p.cell_density = 512.0f;
    p.extent_x = 0.001f;
    p.extent_y = 1e5f;
    p.z_range = 0.001f;
    const auto before = p;
    const Result result = run(small.queue, p, level(0.5f, 16));
    EXPECT_EQ(status, out_of_memory);
    EXPECT_EQ(p.cell_density, before.cell_density);
    EXPECT_EQ(result.height, level(0.5f, 16));
    EXPECT_TRUE(host.acquired.empty());
    ASSERT_EQ(host.errors.size(), 1u);
    EXPECT_NE(host.errors[0].find("cell_density is 512"), std::string::npos) << host.errors[0];
}

#endif

} // namespace
