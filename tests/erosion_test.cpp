#include "erosion/parallel_erosion.hpp"

#include <algorithm>
#include <bit>
#include <functional>
#include <limits>
#include <numeric>

#include <tbb/global_control.h>

#include "erosion/parallel_erosion_kernels.hpp"
#include "grid/shuffle.hpp"
#include "support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

namespace {

using namespace tarn;
using namespace tarn_test;
namespace erosion = parallel_erosion;
using erosion::Context;
using erosion::Particle;
using erosion::Vector;

using Cells = std::vector<float>;

const float nan = std::numeric_limits<float>::quiet_NaN();
const float infinity = std::numeric_limits<float>::infinity();

double sum(const Cells& cells) {
    return std::accumulate(cells.begin(), cells.end(), 0.0);
}

/// Cells one unit of height wide. `levels` is the logarithm that counts levels, exact while the feature stays small.
parallel_erosion_Parameters parameters(int width, int height, float levels, float iterations) {
    parallel_erosion_Parameters p{};
    p.Resolution = {static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
    p.terrain_size = static_cast<float>(width);
    p.terrain_height = 1.0f;
    p.feature_size = 2.0f * std::exp2(levels);
    p.iterations = iterations;
    p.seed = 7;
    p.erosion_strength = 0.6f;
    p.shaping_strength = 0.5f;
    p.shaping_sharpness = 0.5f;
    p.shaping_detail = 0.25f;
    p.fill_slope_scale = 1.0f;
    p.fill_angle = 30.0f;
    p.plain_deposition = 0.3f;
    p.plain_angle = 8.0f;
    p.terrace_deposition = 0.2f;
    p.terrace_angle = 35.0f;
    p.constant_capacity = 0.25f;
    return p;
}

/// Hills with pits and rough ground, a few cells high.
Cells hills(int width, int height) {
    Cells cells = rough_terrain(width, height);
    for (float& cell : cells)
        cell *= 0.1f;
    return cells;
}

// ---------------------------------------------------------------------------------------------------------------------
// The plan

Context context_of(float level_float) {
    Context context{};
    context.level_float = level_float;
    context.shaping_level = 100.0f;
    return context;
}

TEST(ErosionPlan, LevelsAndTheirRounds) {
    const auto planned = [](float levels) {
        auto p = parameters(256, 256, levels, 1000.0f);
        return erosion::plan(p, false);
    };
    EXPECT_EQ(planned(2.0f).level_float, 2.0f);
    EXPECT_EQ(planned(2.0f).level_count, 2);
    EXPECT_EQ(planned(2.3f).level_count, 3);
    EXPECT_EQ(planned(1.0f).level_count, 1);
    EXPECT_EQ(planned(-3.0f).level_count, 1); // features below a cell

    const auto p = parameters(256, 256, 2.0f, 1000.0f);
    const auto rounds = [&](float level_float, int k) {
        return erosion::rounds(p, context_of(level_float), k);
    };
    EXPECT_EQ(rounds(2.0f, 0), 1000);
    EXPECT_EQ(rounds(2.3f, 0), 300); // the coarsest level stands for the fraction
    EXPECT_EQ(rounds(2.3f, 1), 1000);
    EXPECT_EQ(rounds(2.3f, 2), 1000);
    EXPECT_EQ(rounds(0.0f, 0), static_cast<int>(std::ceil(1000.0 * std::exp(-1.0))));
    // Half a level behind the bend, a curve that begins flat; far behind it, halves.
    EXPECT_EQ(rounds(4.0f, 3), static_cast<int>(std::ceil(1000.0 * std::exp2((1.0 - std::exp(-0.375)) / 0.75 - 0.5))));
    EXPECT_NEAR(static_cast<double>(rounds(12.0f, 10)) / rounds(12.0f, 11), 2.0, 0.2);
}

TEST(ErosionPlan, CapacityShapingAndSmoothingPerLevel) {
    auto p = parameters(256, 256, 2.0f, 1000.0f);
    Context context = context_of(5.0f);
    const auto ratio = [&](auto function, int k) {
        return function(p, context, k + 1) / function(p, context, k);
    };
    EXPECT_FLOAT_EQ(erosion::capacity_scale(p, context, 0), p.erosion_strength);
    EXPECT_FLOAT_EQ(erosion::capacity_scale(p, context, 1), p.erosion_strength);
    EXPECT_NEAR(ratio(erosion::capacity_scale, 6), 0.6, 0.002);
    for (int k = 0; k < 12; ++k) // without a detail to fade from
        EXPECT_EQ(erosion::shaping_amount(p, context, k), erosion::shaping_amount(p, context, 0));
    EXPECT_FLOAT_EQ(erosion::shaping_amount(p, context, 0), p.shaping_strength);
    context.shaping_level = 2.0f;
    EXPECT_FLOAT_EQ(erosion::shaping_amount(p, context, 2), p.shaping_strength);
    EXPECT_NEAR(ratio(erosion::shaping_amount, 5), 0.4, 1e-4);
    EXPECT_EQ(erosion::smoothing_amount(context, 0), 1.0f);
    EXPECT_NEAR(erosion::smoothing_amount(context, 4) / erosion::smoothing_amount(context, 3), 2.0, 1e-5);
    EXPECT_EQ(erosion::smoothing_amount(context_of(5.5f), 0), 1.0f); // never below

    // Angles are true ones; at 90 degrees the float tangent has come around to the other side.
    p.shaping_detail = 0.0f;
    p.plain_angle = 45.0f;
    p.terrace_angle = 90.0f;
    const Context planned = erosion::plan(p, false);
    EXPECT_EQ(planned.shaping_level, 100.0f);
    EXPECT_FLOAT_EQ(planned.plain_tangent, 1.0f);
    EXPECT_LT(planned.terrace_tangent, -1e6f);
}

TEST(ErosionPlan, LargeFeaturesLevelOff) {
    EXPECT_EQ(erosion::softened_feature_size(16.0f, 256.0f), 16.0f);
    EXPECT_EQ(erosion::softened_feature_size(0.2f, 1.0f), 0.2f);
    EXPECT_NEAR(erosion::softened_feature_size(0.2002f, 1.0f), 0.2002f, 1e-6f); // with an equal slope
    EXPECT_NEAR(erosion::softened_feature_size(100.0f, 100.0f), 33.8f, 0.05f);
    EXPECT_NEAR(erosion::softened_feature_size(1e30f, 1.0f), 0.36666667f, 1e-6f);
}

// ---------------------------------------------------------------------------------------------------------------------
// Particles

/// One level for the kernels alone.
struct Ground {
    Ground(int columns, int rows, const std::function<float(float, float)>& height_at) {
        setting.columns = columns;
        setting.rows = rows;
        setting.cell = setting.inverse_cell = 1.0f;
        setting.fill_slope_scale = 1.0f;
        setting.fill_tangent = 0.5f;
        setting.largest_change = 1e6f;
        for (int y = 0; y < rows; ++y)
            for (int x = 0; x < columns; ++x)
                height.push_back(height_at(static_cast<float>(x) + 0.5f, static_cast<float>(y) + 0.5f));
        wanted.resize(height.size());
    }

    static Particle particle(float x, float y) {
        Particle p{};
        p.position = Vector(x, y);
        p.surface = erosion::no_surface;
        return p;
    }

    bool walk(Particle& p) {
        const std::uint32_t active = 0;
        bool goes_on = true;
        erosion::walk<1>(&p, &active, 1, height.data(), directions.data(), setting, &goes_on);
        return goes_on;
    }

    void carve(Particle& p) {
        const std::uint32_t active = 0;
        std::fill(wanted.begin(), wanted.end(), erosion::DeltaSum{});
        erosion::carve<1>(&p, &active, 1, setting, wanted.data(), changed);
    }

    /// What the last carving wants of a cell.
    const erosion::DeltaSum& at(float x, float y) const { return wanted[setting.cell_at(x, y)]; }
    double change(const Vector& position) const {
        return static_cast<double>(at(position.x(), position.y()).changes) / 8388608.0;
    }

    erosion::Setting setting{};
    Cells height;
    /// No turns: all random directions are null.
    Cells directions = Cells(64, 0.0f);
    std::vector<erosion::DeltaSum> wanted;
    std::uint32_t changed[erosion::longest_path];
};

/// Falls by a quarter a cell along x.
float ramp(float x, float) {
    return 64.0f - 0.25f * x;
}

TEST(ErosionParticle, WalksStraightDownAPlaneAndIsCarriedOn) {
    Ground plane(64, 32, ramp);
    Particle p = Ground::particle(10.0f, 16.25f);
    EXPECT_TRUE(plane.walk(p));
    ASSERT_EQ(p.path_length, 12u);
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(p.positions[i].x(), 10.0f + static_cast<float>(i));
        EXPECT_EQ(p.positions[i].y(), 16.25f);
        EXPECT_EQ(p.heights[i], 64.0f - 0.25f * p.positions[i].x());
        EXPECT_EQ(p.rises[i], 0.0f);
    }
    EXPECT_EQ(p.surface, p.heights[0]);
    EXPECT_EQ(p.direction_index, 11u);
    // The next piece begins on the last point, and the bed goes on from where it was.
    p.surface = 3.0f;
    EXPECT_TRUE(plane.walk(p));
    EXPECT_EQ(p.positions[0].x(), 21.0f);
    EXPECT_EQ(p.total_steps, 24u);
    EXPECT_EQ(p.surface, 3.0f);
    EXPECT_EQ(p.previous_surface, p.heights[0]);
}

TEST(ErosionParticle, RandomDirectionsTurnItByAQuarterAgainstTheGradient) {
    Ground plane(64, 32, ramp);
    plane.directions[2 * 6] = 0.6f;
    plane.directions[2 * 6 + 1] = -0.8f;
    Particle p = Ground::particle(10.0f, 16.0f);
    p.direction_index = 5; // the first step takes the next one for the second step
    plane.walk(p);
    const double x = 0.5 + 0.25 * 0.6 + 1.0, y = 0.25 * -0.8;
    EXPECT_NEAR(p.positions[2].x() - p.positions[1].x(), x / std::hypot(x, y), 1e-6);
    EXPECT_NEAR(p.positions[2].y() - p.positions[1].y(), y / std::hypot(x, y), 1e-6);
}

TEST(ErosionParticle, EndsWhereItLeavesTheGridOrLiesOutside) {
    Ground plane(64, 32, ramp);
    Particle p = Ground::particle(60.25f, 16.0f); // the margin ends at 62.5
    EXPECT_FALSE(plane.walk(p));
    EXPECT_EQ(p.path_length, 3u);
    EXPECT_EQ(p.position.x(), 62.25f);
    EXPECT_EQ(p.dead, 0);
    EXPECT_EQ(p.stopped, 1);
    for (const Vector& outside : {Vector(0.4f, 9.0f), Vector(62.5f, 9.0f), Vector(9.0f, 0.25f), Vector(9.0f, 30.5f)}) {
        p = Ground::particle(outside.x(), outside.y());
        EXPECT_FALSE(plane.walk(p));
        EXPECT_EQ(p.path_length, 0u);
        plane.carve(p);
        EXPECT_TRUE(std::all_of(std::begin(plane.changed), std::end(plane.changed),
                                [](std::uint32_t cell) { return cell == erosion::no_cell; }));
    }
}

TEST(ErosionParticle, StopsOnLevelGroundAndOnWhatIsNoNumber) {
    Ground flat(32, 32, [](float, float) { return 2.0f; });
    Particle p = Ground::particle(9.25f, 9.5f);
    EXPECT_FALSE(flat.walk(p));
    EXPECT_EQ(p.path_length, 1u);
    EXPECT_EQ(p.dead, 0);
    flat.carve(p); // one point: all neighbours are itself
    EXPECT_NEAR(flat.change(p.positions[0]), 0.0, 1e-6);
    EXPECT_EQ(flat.at(9.25f, 9.5f).counts, erosion::one_visit + 1);

    // It is carried on from the step that ends on a terrace, and stops in the next pass.
    Ground terrace(64, 32, [](float x, float) { return std::max(64.0f - x, 40.0f); });
    p = Ground::particle(20.0f, 9.5f);
    EXPECT_TRUE(terrace.walk(p));
    EXPECT_LT(p.path_length, 12u);
    EXPECT_FALSE(terrace.walk(p));
    EXPECT_EQ(p.path_length, 1u);

    flat.height[9 * 32 + 9] = nan;
    p = Ground::particle(9.25f, 9.5f);
    EXPECT_FALSE(flat.walk(p));
    EXPECT_EQ(p.path_length, 1u);
    flat.carve(p);
    EXPECT_EQ(flat.at(9.25f, 9.5f).changes, 0);
}

TEST(ErosionParticle, RisesFillAndKill) {
    // A ditch along y whose lowest line lies at x = 10.5.
    Ground ditch(64, 32, [](float x, float) { return 0.5f * std::abs(x - 10.5f); });
    Particle p = Ground::particle(10.75f, 9.5f);
    EXPECT_FALSE(ditch.walk(p));
    EXPECT_EQ(p.dead, 1);
    ASSERT_EQ(p.path_length, 1u);
    EXPECT_EQ(p.uphill_steps, 1u);
    EXPECT_EQ(p.heights[0], 0.375f); // where the step rises to
    EXPECT_EQ(p.rises[0], 0.25f);
    ditch.carve(p);
    EXPECT_EQ(ditch.change(p.positions[0]), 0.25); // the dead fill in full and do nothing else
    EXPECT_EQ(ditch.at(10.75f, 9.5f).counts, erosion::one_visit + 1);

    // Older ones climb four times in their life. After a climb they run straight on.
    const auto walked = [&](std::uint32_t uphill_steps, std::uint32_t total_steps) {
        Particle old = Ground::particle(13.75f, 9.5f);
        old.uphill_steps = uphill_steps;
        old.total_steps = total_steps;
        ditch.walk(old);
        return old;
    };
    p = walked(0, 0);
    EXPECT_EQ(p.positions[3].x(), 10.75f); // the third fall ends at the bottom, and the rise after it is no end at once
    EXPECT_EQ(p.rises[3], 0.25f);
    EXPECT_EQ(p.positions[5].x(), 10.75f); // falls back,
    EXPECT_EQ(p.positions[6].x(), 11.75f); // and with its impetus climbs where the ground says to turn
    EXPECT_EQ(p.uphill_steps, 4u);
    EXPECT_EQ(p.path_length, 12u);
    EXPECT_EQ(p.dead, 0);
    while (ditch.walk(p)) {
    }
    EXPECT_EQ(p.dead, 1);
    EXPECT_EQ(p.uphill_steps, 5u);
    EXPECT_EQ(walked(3, 50).path_length, 6u);
    EXPECT_EQ(walked(4, 50).path_length, 4u);
    EXPECT_EQ(walked(4, 50).uphill_steps, 5u);
    // The end of a piece on a rise is the end of the particle too.
    Ground slope(64, 32, [](float x, float) { return x < 20.5f ? 0.5f * (20.5f - x) : 0.5f * (x - 20.5f); });
    p = Ground::particle(30.75f, 9.5f);
    EXPECT_FALSE(slope.walk(p));
    EXPECT_EQ(p.dead, 1);
    EXPECT_EQ(p.path_length, 11u);
}

TEST(ErosionParticle, CarvesAPlaneToItsCapacity) {
    Ground plane(64, 32, ramp);
    plane.setting.drop_capacity = 0.5f;
    Particle p = Ground::particle(10.0f, 16.25f);
    plane.walk(p);
    plane.carve(p);
    double carried = 0.0;
    for (int i = 2; i <= 9; ++i) {
        const double ahead = 0.25 * (0.05 * (11 - i) + 0.95 * 2);
        EXPECT_NEAR(plane.change(p.positions[i]), -2.0 * 0.5 * ahead, 1e-4) << i;
        EXPECT_EQ(plane.at(p.positions[i].x(), 16.0f).counts, erosion::one_visit + 2);
        carried += 0.5 * ahead;
    }
    EXPECT_GT(p.sediment, carried);
    EXPECT_EQ(plane.at(10.0f, 16.0f).counts, erosion::one_visit + 1); // the ends count half
    EXPECT_EQ(plane.at(21.0f, 16.0f).counts, erosion::one_visit + 1);

    // A constant capacity does not look at the path.
    plane.setting.drop_capacity = 0.0f;
    plane.setting.constant_capacity = 0.125f;
    p = Ground::particle(10.0f, 16.25f);
    plane.walk(p);
    plane.carve(p);
    for (int i = 2; i <= 9; ++i)
        EXPECT_NEAR(plane.change(p.positions[i]), -2.0 * 0.125, 1e-4) << i;
    // On a plain it drops what it carries above that, as far as the capacity goes.
    p = Ground::particle(10.0f, 16.25f);
    p.sediment = 1000.0f;
    plane.setting.plain_tangent = 0.3f;
    plane.setting.plain_share = 0.00001f;
    plane.walk(p);
    plane.carve(p);
    for (int i = 2; i <= 9; ++i)
        EXPECT_NEAR(plane.change(p.positions[i]), 2.0 * (0.01 - 0.125), 1e-3) << i;
}

TEST(ErosionParticle, LanesGiveTheBitsOfSingleParticles) {
    const int columns = 70, rows = 50;
    const Cells heights = hills(columns, rows);
    Ground ground(columns, rows, [&](float x, float y) {
        return heights[static_cast<std::size_t>(y) * std::size_t{columns} + static_cast<std::size_t>(x)];
    });
    ground.setting.drop_capacity = 0.4f;
    ground.setting.plain_tangent = 0.4f;
    ground.setting.plain_share = 0.05f;
    std::size_t i = 0;
    for (const auto& direction : random_directions(3)) {
        ground.directions[i++] = direction.x();
        ground.directions[i++] = direction.y();
    }
    std::vector<Particle> alone, together;
    for (std::uint32_t id = 0; id < 29; ++id)
        alone.push_back(erosion::newborn(5, id, ground.setting));
    together = alone;
    std::vector<erosion::DeltaSum> wanted(ground.height.size());
    std::uint32_t changed[16 * erosion::longest_path];
    for (int pass = 0; pass < 6; ++pass) {
        std::fill(ground.wanted.begin(), ground.wanted.end(), erosion::DeltaSum{});
        std::fill(wanted.begin(), wanted.end(), erosion::DeltaSum{});
        bool goes_on[32];
        for (std::uint32_t first = 0; first < 29; first += 16) {
            const int count = std::min(16, 29 - static_cast<int>(first));
            std::uint32_t active[16];
            std::iota(active, active + count, first);
            erosion::walk<16>(together.data(), active, count, ground.height.data(), ground.directions.data(),
                              ground.setting, goes_on + first);
            erosion::carve<16>(together.data(), active, count, ground.setting, wanted.data(), changed);
        }
        for (std::uint32_t id = 0; id < 29; ++id) {
            bool goes_on_alone = false;
            erosion::walk<1>(alone.data(), &id, 1, ground.height.data(), ground.directions.data(), ground.setting,
                             &goes_on_alone);
            erosion::carve<1>(alone.data(), &id, 1, ground.setting, ground.wanted.data(), changed);
            EXPECT_EQ(goes_on[id], goes_on_alone);
            EXPECT_EQ(together[id].path_length, alone[id].path_length);
            EXPECT_EQ(together[id].sediment, alone[id].sediment);
            EXPECT_EQ(together[id].scoured, alone[id].scoured);
        }
        EXPECT_EQ(std::memcmp(wanted.data(), ground.wanted.data(), wanted.size() * sizeof(wanted[0])), 0);
    }
}

TEST(ErosionParticle, SumsAreBoundedAndTakeNoNonsense) {
    erosion::Setting s{};
    s.largest_change = 0x1p39f / 48.0f; // four particles
    EXPECT_EQ(erosion::fixed(-0.75f, s), -6291456);
    EXPECT_EQ(erosion::fixed(1000.0f, s), 8388608000); // past 32 bits
    EXPECT_EQ(erosion::fixed(nan, s), 0);
    for (const float extreme : {infinity, -infinity, 1e38f, -1e38f})
        EXPECT_LT(std::abs(static_cast<double>(erosion::fixed(extreme, s))) * 48.0, 0x1p63);
}

// ---------------------------------------------------------------------------------------------------------------------
// Cells

TEST(ErosionCells, SettlingTakesTheMeanAndKeepsTheBooks) {
    float height = 5.0f, flow = 2.0f, sediment = 0.25f, wear = 1.0f;
    erosion::DeltaSum wanted{3 * 8388608, 3 * erosion::one_visit + 4};
    const erosion::Layers layers{&height, &flow, &sediment, &wear};
    erosion::settle(0, wanted, layers); // raised by 3 / 4
    EXPECT_EQ(height, 5.75f);
    EXPECT_EQ(flow, 5.0f);
    EXPECT_EQ(sediment, 1.0f);
    EXPECT_EQ(wear, 1.0f);
    EXPECT_EQ(wanted.changes, 0);
    EXPECT_EQ(wanted.counts, 0u);
    wanted = {-8388608, erosion::one_visit + 2}; // lowered by 1 / 2, of which 95 % are sediment
    erosion::settle(0, wanted, layers);
    EXPECT_EQ(height, 5.25f);
    EXPECT_FLOAT_EQ(sediment, 0.525f);
    EXPECT_EQ(wear, 1.5f);
}

TEST(ErosionCells, FoldBackBuriesAndWearsDetail) {
    const auto expect = [](const erosion::FoldedCell& cell, float height, float sediment, float wear) {
        EXPECT_FLOAT_EQ(cell.height, height);
        EXPECT_FLOAT_EQ(cell.sediment, sediment);
        EXPECT_FLOAT_EQ(cell.wear, wear);
    };
    expect(erosion::fold_back(100.0f, 0.0f, 3.0f, -2.0f, 1.0f), 98.0f, 0.0f, 5.0f);      // bare
    expect(erosion::fold_back(100.0f, 4.0f, 3.0f, 1.0f, 1.0f), 100.25f, 3.75f, 2.0f);    // buried: a quarter shows
    expect(erosion::fold_back(100.0f, 4.0f, 3.0f, 1.0f, 5.0f), 101.0f, 3.0f, 2.0f);      // at most all of it
    expect(erosion::fold_back(100.0f, 16.0f, 0.0f, 1.0f, 1.0f), 99.875f, 16.125f, 0.0f); // thick cover: a hollow
    expect(erosion::fold_back(100.0f, 4.0f, 3.0f, -1.0f, 1.0f), 100.0f, 4.0f, 4.0f);
    expect(erosion::fold_back(100.0f, 1.0f, 4.0f, 3.0f, 2.0f), 101.0f, 0.0f, 1.0f);     // stands out, worn to the half
    expect(erosion::fold_back(100.0f, 1.0f, 0.5f, 3.0f, 2.0f), 102.0f, 0.0f, 0.0f);     // unworn
    expect(erosion::fold_back(100.0f, 1.0f, 900.0f, 3.0f, 2.0f), 100.2f, 0.0f, 897.0f); // a tenth stays
}

float shaped(const Cells& heights, float sharpness, float cell = 1.0f) {
    const erosion::ShapeSetting s{3, 3, cell, sharpness, sharpness * sharpness * 0.9f, 0.02f - sharpness * 0.02f, 1.0f};
    float spread = 1.0f;
    const float change = erosion::shaped<false, true>(heights.data(), nullptr, 1, 1, s, spread);
    EXPECT_EQ((erosion::shaped<false, false>(heights.data(), nullptr, 1, 1, s, spread)), change);
    return change;
}

TEST(ErosionCells, ShapingCutsSteepFacesAndSmooths) {
    EXPECT_NEAR(shaped(Cells(9, 3.0f), 0.5f), 0.0f, 1e-6f);
    const auto plane = [](float slope) {
        return Cells{0, slope, 2 * slope, 0, slope, 2 * slope, 0, slope, 2 * slope};
    };
    // The pull is the mean drop, weighted by slope, here the drop itself; without sharpness only the smoothing counts.
    EXPECT_NEAR(shaped(plane(2.0f), 1.0f), -2.0f, 1e-5f); // no more than the pull
    EXPECT_NEAR(shaped(plane(0.8f), 1.0f), -(0.8f - 0.3f) * 0.7f, 1e-5f);
    EXPECT_NEAR(shaped(plane(0.8f), 1.0f, 4.0f), 0.0f, 1e-5f); // 0.2 on wider cells
    EXPECT_NEAR(shaped(plane(2.0f), 0.0f), 0.0f, 1e-5f);
    // A pit rises by smoothing alone; a peak sinks by it.
    const Cells pit{1, 1, 1, 1, 0, 1, 1, 1, 1}, peak{0, 0, 0, 0, 1, 0, 0, 0, 0};
    EXPECT_NEAR(shaped(pit, 0.0f), 0.02f, 1e-6f);
    EXPECT_NEAR(shaped(pit, 0.5f), 0.01f, 1e-6f);
    EXPECT_NEAR(shaped(pit, 1.0f), 0.0f, 1e-6f);
    EXPECT_NEAR(shaped(peak, 0.0f), -0.02f, 1e-6f);
}

TEST(ErosionCells, ReachClimbsSteepBanks) {
    EXPECT_EQ(erosion::reached(0.0f, 1.0f), 0.25f);
    EXPECT_EQ(erosion::reached(0.0f, 9.0f), 1.0f);
    EXPECT_EQ(erosion::reached(0.75f, 1.0f), 0.75f);
    const erosion::ShapeSetting s{3, 3, 1.0f, 0.5f, 0.225f, 0.01f, 1.0f};
    const auto spread = [&](std::size_t neighbour, float drop) {
        Cells heights(9, 5.0f), reach(9, 0.0f);
        heights[neighbour] -= drop;
        reach[neighbour] = 0.5f;
        float result = -1.0f;
        const float change = erosion::shaped<true, true>(heights.data(), reach.data(), 1, 1, s, result);
        EXPECT_EQ(change != 0.0f, result > 0.0f);
        return result;
    };
    for (const std::size_t straight : {1u, 3u, 5u, 7u}) {
        EXPECT_EQ(spread(straight, 0.36f), 0.5f);
        EXPECT_EQ(spread(straight, 0.35f), 0.0f);
    }
    for (const std::size_t diagonal : {0u, 2u, 6u, 8u}) {
        EXPECT_EQ(spread(diagonal, 0.51f), 0.5f);
        EXPECT_EQ(spread(diagonal, 0.50f), 0.0f);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Runs

struct Eroded {
    Cells height, flow, sediment, wear;
    std::uint32_t status;
};

class Erosion : public ::testing::Test {
  protected:
    sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
    RecordingHost host;

    Eroded run(sycl::queue& on, const Cells& height, const parallel_erosion_Parameters& p,
               const Cells* spawn_map = nullptr) {
        const HostCallbacks record = host.callbacks();
        // What the outputs held before must not show.
        Eroded e{height, Cells(height.size(), 9.0f), Cells(height.size(), nan), Cells(height.size(), -77.0f), 0};
        e.status =
            ParallelErosionSimulation(handle(on), e.height.data(), spawn_map != nullptr ? spawn_map->data() : nullptr,
                                      e.flow.data(), e.sediment.data(), nullptr, e.wear.data(), &p, &record);
        return e;
    }

    Eroded eroded(const Cells& height, const parallel_erosion_Parameters& p, const Cells* spawn_map = nullptr) {
        Eroded e = run(queue, height, p, spawn_map);
        EXPECT_EQ(e.status, static_cast<std::uint32_t>(status_ok));
        return e;
    }

    static void expect_same(const Eroded& actual, const Eroded& expected) {
        EXPECT_TRUE(same_bits(actual.height, expected.height));
        EXPECT_TRUE(same_bits(actual.flow, expected.flow));
        EXPECT_TRUE(same_bits(actual.sediment, expected.sediment));
        EXPECT_TRUE(same_bits(actual.wear, expected.wear));
    }
};

const std::vector<std::pair<int, int>> sizes = {{1, 1},   {2, 9},    {3, 3},   {5, 5},   {64, 64},
                                                {65, 48}, {101, 67}, {7, 200}, {200, 7}, {130, 131}};

Cells striped_map(int width, int height) {
    Cells map;
    for (int i = 0; i < width * height; ++i)
        map.push_back(static_cast<float>(i % 7) * 0.25f - 0.25f);
    return map;
}

/// Everything to the bit: a terrain and a map of numbers that are exact in a float, and a run through three levels. The
/// sums come from a scalar program that follows the rules one by one and shares nothing with the library.
TEST_F(Erosion, BitsAreThoseOfAScalarRun) {
    Cells terrain, map;
    for (int y = 0; y < 52; ++y)
        for (int x = 0; x < 60; ++x) {
            terrain.push_back(static_cast<float>((x * 7 + y * 13) % 29) * 0.03125f +
                              static_cast<float>(std::abs(2 * x - y)) * 0.25f);
            map.push_back(static_cast<float>((x + y) % 5) * 0.25f);
        }
    const auto checksum = [](const Cells& cells) { // FNV-1a
        std::uint32_t state = 2166136261u;
        for (const float cell : cells) {
            const auto bits = std::bit_cast<std::uint32_t>(cell + 0.0f); // one zero
            for (int shift = 0; shift < 32; shift += 8)
                state = (state ^ ((bits >> shift) & 255u)) * 16777619u;
        }
        return state;
    };
    const auto expect = [&](const Eroded& e, std::uint32_t height, std::uint32_t flow, std::uint32_t sediment,
                            std::uint32_t wear) {
        EXPECT_EQ(checksum(e.height), height) << "their sum is " << sum(e.height);
        EXPECT_EQ(checksum(e.flow), flow) << "their sum is " << sum(e.flow);
        EXPECT_EQ(checksum(e.sediment), sediment) << "their sum is " << sum(e.sediment);
        EXPECT_EQ(checksum(e.wear), wear) << "their sum is " << sum(e.wear);
    };
    const auto p = parameters(60, 52, 2.5f, 40.0f);
    expect(eroded(terrain, p), 0xE3723A82u, 0xB063659Cu, 0xCA4D0CFBu, 0x9FD2FE22u);
    expect(eroded(terrain, p, &map), 0x92EFE7A3u, 0x0B4BCAD7u, 0x60FEA29Fu, 0x47EA0693u);
}

TEST_F(Erosion, HeightWearAndSedimentBalance) {
    const Cells terrain = hills(96, 80);
    auto p = parameters(96, 80, 1.0f, 60.0f); // one level: nothing but the particles
    p.shaping_strength = 0.0f;
    const Eroded e = eroded(terrain, p);
    for (std::size_t i = 0; i < terrain.size(); ++i) {
        const float raised = e.height[i] - terrain[i] + e.wear[i];
        ASSERT_GE(e.wear[i], 0.0f);
        ASSERT_GE(raised, -1e-3f) << i;
        ASSERT_LE(e.sediment[i], raised + 1e-3f) << i;
        ASSERT_GE(e.sediment[i], raised - 0.95f * e.wear[i] - 1e-3f) << i;
    }
    EXPECT_GT(sum(e.wear), 100.0);
    EXPECT_GT(sum(e.sediment), 10.0);
    // Shaping counts what it cuts with its sign.
    p.shaping_strength = 1.0f;
    const Eroded shaped = eroded(Cells(terrain), p);
    EXPECT_LT(sum(shaped.wear), sum(e.wear));
}

TEST_F(Erosion, FlatGroundIsVisitedOnceByEachParticleAndStaysFlat) {
    const Cells flat(64 * 64, 0.0f);
    auto p = parameters(64, 64, 1.0f, 50.0f);
    p.constant_capacity = 0.0f;
    const Eroded e = eroded(flat, p);
    EXPECT_TRUE(same_bits(e.height, flat));
    // 16 particles a round; those in the margins are not counted.
    EXPECT_GT(sum(e.flow), 0.9 * 0.8);
    EXPECT_LT(sum(e.flow), 0.8);
}

TEST_F(Erosion, FlowIsFullAtAThousandVisits) {
    Cells funnel;
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 16; ++x)
            funnel.push_back(std::hypot(static_cast<float>(x) - 7.5f, static_cast<float>(y) - 7.5f));
    const Eroded e = eroded(funnel, parameters(16, 16, 1.0f, 12000.0f));
    EXPECT_EQ(*std::max_element(e.flow.begin(), e.flow.end()), 1.0f);
    EXPECT_LT(sum(e.flow), 120.0);
}

TEST_F(Erosion, SpawnMapsDecideWhereParticlesAreBorn) {
    const Cells terrain = hills(80, 70), zeros(80 * 70, 0.0f), ones(80 * 70, 1.0f);
    auto p = parameters(80, 70, 2.5f, 12.0f);
    p.shaping_strength = 0.0f;
    const Eroded plain = eroded(terrain, p);
    const std::size_t reports = host.progress.size();
    host.progress.clear();
    expect_same(eroded(terrain, p, &ones), plain);
    const Eroded dry = eroded(terrain, p, &zeros);
    EXPECT_EQ(sum(dry.flow), 0.0);
    EXPECT_EQ(sum(dry.sediment), 0.0);
    for (std::size_t i = 0; i < terrain.size(); ++i)
        ASSERT_NEAR(dry.height[i], terrain[i], 1e-4f);
    EXPECT_EQ(host.progress.size(), 2 * reports); // progress goes on all the same
    // Shaping acts where the flow has been.
    p.shaping_strength = 1.0f;
    expect_same(eroded(terrain, p, &zeros), dry);
    EXPECT_FALSE(same_bits(eroded(terrain, p, &ones).height, plain.height));

    // On flat ground births are all the visits there are.
    const Cells flat(80 * 70, 0.0f), map = striped_map(80, 70);
    p = parameters(80, 70, 1.0f, 300.0f);
    p.constant_capacity = 0.0f;
    const Eroded born = eroded(flat, p, &map);
    for (std::size_t i = 0; i < map.size(); ++i) {
        if (map[i] <= 0.0f) {
            ASSERT_EQ(born.flow[i], 0.0f) << i;
        }
    }
    EXPECT_GT(sum(born.flow), 0.3 * 0.001 * 300.0 * (80 * 70 / 256));
    // A map of one cell counts as none.
    const Cells one(1, 0.0f);
    expect_same(eroded(one, parameters(1, 1, 1.0f, 4.0f), &one), eroded(one, parameters(1, 1, 1.0f, 4.0f)));
}

TEST_F(Erosion, SeedsRepeat) {
    const Cells terrain = hills(64, 64);
    auto p = parameters(64, 64, 2.0f, 10.0f);
    const Eroded first = eroded(terrain, p);
    expect_same(eroded(terrain, p), first);
    p.seed = 8;
    EXPECT_FALSE(same_bits(eroded(terrain, p).height, first.height));
    p.seed = 0;
    eroded(terrain, p);
}

TEST_F(Erosion, ReservedFieldsAreNotRead) {
    const Cells terrain = hills(64, 64);
    auto p = parameters(64, 64, 2.0f, 6.0f);
    const Eroded expected = eroded(terrain, p);
    p.reserved_1 = p.reserved_2 = p.reserved_3 = nan;
    expect_same(eroded(terrain, p), expected);
}

TEST_F(Erosion, NoRoundsFoldThePyramidBack) {
    const Cells terrain = hills(64, 48);
    for (const float iterations : {0.0f, -5.0f}) {
        const Eroded e = eroded(terrain, parameters(64, 48, 3.0f, iterations));
        for (std::size_t i = 0; i < terrain.size(); ++i)
            ASSERT_NEAR(e.height[i], terrain[i], 1e-4f);
        EXPECT_EQ(sum(e.flow) + sum(e.sediment), 0.0);
        EXPECT_EQ(host.progress.back(), 0.0); // no work, no report
    }
    const Eroded single = eroded(terrain, parameters(64, 48, 1.0f, 0.0f));
    EXPECT_TRUE(same_bits(single.height, terrain));
}

TEST_F(Erosion, LogsOneFirstOfAll) {
    static std::string order;
    order.clear();
    HostCallbacks record = host.callbacks();
    record.log_info = [](const char* text) {
        order += text;
    };
    record.acquire_memory = [](std::size_t) {
        order += 'a';
    };
    record.progress = [](double percent) {
        order += percent == 0.0 ? "0" : "p";
    };
    Cells cells = hills(8, 8), flow = cells, sediment = cells, wear = cells;
    auto p = parameters(8, 8, 1.0f, 1.0f);
    EXPECT_EQ(ParallelErosionSimulation(handle(queue), cells.data(), nullptr, flow.data(), sediment.data(), nullptr,
                                        wear.data(), &p, &record),
              static_cast<std::uint32_t>(status_ok));
    EXPECT_EQ(order, "1a0p");
    // Also before a refusal, and through the record that was passed.
    p.terrain_size = nan;
    HostCallbacks other = record;
    other.log_info = [](const char* text) {
        order += std::string("o") + text;
    };
    ParallelErosionSimulation(handle(queue), cells.data(), nullptr, flow.data(), sediment.data(), nullptr, wear.data(),
                              &p, &other);
    EXPECT_EQ(order, "1a0po1");
}

TEST_F(Erosion, ReportsEveryRoundAndStopsWhereTold) {
    // One level of 32 equal rounds: the report step after the first is 0.05 units, not 5 %.
    const Cells terrain = hills(40, 24);
    eroded(terrain, parameters(40, 24, 1.0f, 32.0f));
    std::vector<double> expected{0.0};
    for (int done = 2; done <= 32; ++done)
        expected.push_back(done * 100.0 / 32.0);
    EXPECT_EQ(host.progress, expected);

    // A cancelled run of one level is a shorter one whose visits are not scaled.
    for (const int reports : {1, 7, 31}) {
        host.cancel_questions = 0;
        host.cancel_at = reports;
        Eroded cancelled = run(queue, terrain, parameters(40, 24, 1.0f, 32.0f));
        EXPECT_EQ(cancelled.status, static_cast<std::uint32_t>(status_cancelled));
        EXPECT_EQ(host.cancel_questions, reports);
        host.cancel_at = 0;
        for (float& visits : cancelled.flow)
            visits = std::min(visits * 0.001f, 1.0f);
        expect_same(cancelled, eroded(terrain, parameters(40, 24, 1.0f, static_cast<float>(reports + 1))));
    }
}

TEST_F(Erosion, CancelsOnCoarseLevelsLeaveTheHeightAlone) {
    const Cells terrain = hills(160, 160);
    const auto p = parameters(160, 160, 4.0f, 20.0f);
    eroded(terrain, p);
    EXPECT_EQ(host.progress.back(), 100.0);
    const int questions = host.cancel_questions;
    auto planned = p;
    const Context context = erosion::plan(planned, false);
    const auto rounds = [&](int k) {
        return erosion::rounds(p, context, k);
    };
    // Rounds up to the end of the second level and of the one below the full size; reports begin in the second.
    const int second = rounds(0) + rounds(1), third = second + rounds(2), silent = third + rounds(3) - questions;
    ASSERT_LT(silent + 1, second);

    for (const int rounds_done : {silent + 1, second, second + 1, third, third + 1, silent + questions}) {
        host.cancel_questions = 0;
        host.cancel_at = rounds_done - silent;
        const Eroded e = run(queue, terrain, p);
        EXPECT_EQ(e.status, static_cast<std::uint32_t>(status_cancelled)) << rounds_done;
        EXPECT_EQ(host.cancel_questions, host.cancel_at);
        EXPECT_EQ(static_cast<bool>(same_bits(e.height, terrain)), rounds_done <= second) << rounds_done;
        EXPECT_EQ(sum(e.sediment) == 0.0, rounds_done <= second) << rounds_done;
        EXPECT_EQ(sum(e.wear) == 0.0, rounds_done <= second) << rounds_done;
        EXPECT_EQ(sum(e.flow) == 0.0, rounds_done <= third) << rounds_done; // the full-size level's own
    }
    EXPECT_EQ(host.released, host.acquired);
}

TEST_F(Erosion, ResultsAreTheSameForAnyNumberOfThreads) {
    for (const auto& [width, height] : sizes) {
        const Cells terrain = hills(width, height), map = striped_map(width, height);
        const auto p = parameters(width, height, 3.5f, 8.0f);
        const Eroded plain = eroded(terrain, p), mapped = eroded(terrain, p, &map);
        EXPECT_TRUE(std::all_of(plain.height.begin(), plain.height.end(), [](float h) { return std::isfinite(h); }));
        const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
        expect_same(eroded(terrain, p), plain);
        expect_same(eroded(terrain, p, &map), mapped);
    }
}

TEST_F(Erosion, BadInputIsRefusedWithOneLineThatNamesTheField) {
    using P = parallel_erosion_Parameters;
    const auto set = [](float P::*field, float value) {
        return [=](P& p) {
            p.*field = value;
        };
    };
    std::vector<std::pair<const char*, std::function<void(P&)>>> cases = {
        {"width",
         [](P& p) {
             p.Resolution.width = 0;
         }},
        {"width",
         [](P& p) {
             p.Resolution.width = 0x80000000u;
         }},
        {"width",
         [](P& p) {
             p.Resolution = {(1u << 24) + 1, 3};
         }},
        {"height",
         [](P& p) {
             p.Resolution.height = 0xFFFFFFFFu;
         }},
        {"height",
         [](P& p) {
             p.Resolution = {3, (1u << 24) + 1};
         }},
        {"width * height",
         [](P& p) {
             p.Resolution = {1u << 20, 1u << 20};
         }},
        {"terrain_size", set(&P::terrain_size, 0.0f)},
        {"terrain_size", set(&P::terrain_size, -3.0f)},
        {"terrain_height", set(&P::terrain_height, 0.0f)},
        {"terrain_height", set(&P::terrain_height, 1e-45f)},
        {"feature_size", set(&P::feature_size, 0.0f)},
        {"feature_size", set(&P::feature_size, 1e-45f)},
        {"iterations", set(&P::iterations, 3e9f)},
        {"shaping_detail", set(&P::shaping_detail, -0.5f)},
    };
    for (const auto& [name, field] : {std::pair{"terrain_size", &P::terrain_size},
                                      {"terrain_height", &P::terrain_height},
                                      {"feature_size", &P::feature_size},
                                      {"iterations", &P::iterations},
                                      {"erosion_strength", &P::erosion_strength},
                                      {"shaping_strength", &P::shaping_strength},
                                      {"shaping_sharpness", &P::shaping_sharpness},
                                      {"shaping_detail", &P::shaping_detail},
                                      {"fill_slope_scale", &P::fill_slope_scale},
                                      {"fill_angle", &P::fill_angle},
                                      {"plain_deposition", &P::plain_deposition},
                                      {"plain_angle", &P::plain_angle},
                                      {"terrace_deposition", &P::terrace_deposition},
                                      {"terrace_angle", &P::terrace_angle},
                                      {"constant_capacity", &P::constant_capacity}}) {
        cases.emplace_back(name, set(field, nan));
        cases.emplace_back(name, set(field, infinity));
    }
    const Cells terrain = hills(16, 16);
    for (const auto& [field, spoil] : cases) {
        auto p = parameters(16, 16, 2.0f, 20.0f);
        spoil(p);
        host.errors.clear();
        const Eroded e = run(queue, terrain, p);
        EXPECT_EQ(e.status, static_cast<std::uint32_t>(status_failed)) << field;
        ASSERT_EQ(host.errors.size(), 1u) << field;
        EXPECT_NE(host.errors[0].find(field), std::string::npos) << host.errors[0];
        EXPECT_TRUE(same_bits(e.height, terrain));
        EXPECT_EQ(e.wear[0], -77.0f);
    }
    EXPECT_TRUE(host.acquired.empty());

    const HostCallbacks record = host.callbacks();
    const auto p = parameters(16, 16, 2.0f, 20.0f);
    Cells cells = terrain, a = terrain, b = terrain, c = terrain;
    EXPECT_EQ(ParallelErosionSimulation(handle(queue), cells.data(), nullptr, a.data(), nullptr, nullptr, c.data(), &p,
                                        &record),
              static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.back(), "ParallelErosionSimulation: sediment is null");
    EXPECT_EQ(ParallelErosionSimulation(handle(queue), cells.data(), nullptr, a.data(), b.data(), nullptr, c.data(), &p,
                                        nullptr),
              static_cast<std::uint32_t>(status_failed));
}

TEST_F(Erosion, HostileButFiniteInputFinishes) {
    using P = parallel_erosion_Parameters;
    for (const auto& [field, value] : {std::pair{&P::erosion_strength, 1e30f},
                                       {&P::erosion_strength, -1e30f},
                                       {&P::erosion_strength, -2.0f},
                                       {&P::shaping_strength, 1e30f},
                                       {&P::shaping_sharpness, -1e20f},
                                       {&P::shaping_detail, 1e30f},
                                       {&P::shaping_detail, 1e-45f},
                                       {&P::fill_slope_scale, -1e30f},
                                       {&P::fill_angle, 1e30f},
                                       {&P::plain_deposition, 1e38f},
                                       {&P::plain_angle, -1e10f},
                                       {&P::terrace_deposition, -1e38f},
                                       {&P::terrace_angle, 90.0f},
                                       {&P::constant_capacity, -1e30f},
                                       {&P::constant_capacity, 50.0f},
                                       {&P::feature_size, 1e30f},
                                       {&P::feature_size, 1e-30f}}) {
        auto p = parameters(48, 40, 2.5f, 12.0f);
        p.*field = value;
        eroded(hills(48, 40), p);
    }
    const auto p = parameters(48, 40, 2.5f, 12.0f);
    for (const float nonsense : {nan, infinity, -infinity, 3e38f, -3e38f}) {
        Cells terrain = hills(48, 40), map(terrain.size(), 0.5f);
        for (std::size_t i = 0; i < terrain.size(); i += 97)
            terrain[i] = map[i] = nonsense;
        eroded(terrain, p, &map);
        eroded(Cells(terrain.size(), nonsense), p, &map);
    }
}

#ifdef HOSTSYCL

TEST_F(Erosion, GpuOfItsOwnMemoryGivesTheSameBits) {
    SimulatedGpu gpu;
    for (const auto& [width, height] : sizes) {
        const Cells terrain = hills(width, height), map = striped_map(width, height);
        const auto p = parameters(width, height, 3.5f, 8.0f);
        for (const Cells* spawn_map : {static_cast<const Cells*>(nullptr), &map}) {
            const Eroded there = run(gpu.queue, terrain, p, spawn_map);
            EXPECT_EQ(there.status, static_cast<std::uint32_t>(status_ok));
            expect_same(there, eroded(terrain, p, spawn_map));
        }
    }
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(Erosion, DeviceFaultsEndInTheirStatus) {
    SimulatedGpu gpu;
    const Cells terrain = hills(32, 32), map(terrain.size(), 1.0f);
    const auto p = parameters(32, 32, 2.5f, 20.0f);
    gpu.device.throw_on_submit(60, "lost");
    EXPECT_EQ(run(gpu.queue, terrain, p).status, static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.size(), 1u);
    unsigned refused = 0;
    for (unsigned n = 2; n < 200; ++n, ++refused) { // the first one is the frame's trial
        gpu.device.clear_faults();
        gpu.device.fail_allocation(n);
        if (run(gpu.queue, terrain, p, &map).status == static_cast<std::uint32_t>(status_ok))
            break;
    }
    EXPECT_GT(refused, 20u);
    EXPECT_EQ(host.errors.size(), 1u + refused);
    EXPECT_NE(host.errors.back().find("Memory allocation error"), std::string::npos);
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

#endif

} // namespace
