#include "flow/flow.hpp"

#include <algorithm>
#include <cmath>
#include <functional>

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

#include "flow/flow_kernels.hpp"
#include "flow/pit_filling_kernels.hpp"
#include "support.hpp"
#include "trail_support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;
using flow::Point;

sycl::queue make_queue() {
    return sycl::queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
}

// ---------------------------------------------------------------------------------------------------------------------
// Pits

TEST(PitFilling, WidthAloneSetsTheLevels) {
    for (const auto& [width, coarser] :
         {std::pair{1, 0}, {128, 0}, {511, 0}, {512, 1}, {1023, 1}, {1024, 2}, {2048, 3}, {65536, 8}}) {
        EXPECT_EQ(flow::coarser_levels(width), coarser) << width;
        EXPECT_EQ(flow::least_height(width), 1 << coarser) << width;
        if (coarser > 0) {
            EXPECT_TRUE(width >> coarser >= 256 && width >> coarser < 512);
        }
    }
}

TEST(PitFilling, CellsRiseToTheirSecondLowestNeighbour) {
    const auto level_among = [](const Cells& neighbours) {
        flow::LowestNeighbours lowest;
        for (const float height : neighbours)
            lowest.add(height);
        return lowest.level();
    };
    EXPECT_EQ(level_among({5, 3, 8, 4, 9, 7, 6, 5}), 4.0f);
    EXPECT_EQ(level_among({3, 5, 4, 3, 9}), 3.0f); // two equal ones
    EXPECT_EQ(level_among({9, 8, 7, 6}), 7.0f);
    EXPECT_EQ(level_among({2}), 2.0f); // a single one
    EXPECT_EQ(level_among({not_a_number, 2, not_a_number, 1}), 2.0f);
    EXPECT_EQ(level_among({not_a_number, infinity}), flow::LowestNeighbours::none);

    // Neighbours beyond the border do not count, and the interior form finds the same.
    const Ground rough(4, 3, [](float x, float y) { return std::fmod(7.0f * x + 5.0f * y, 11.0f); });
    EXPECT_EQ(flow::fill_level<false>(rough.heights.data(), 0, 0, 4, 3), 5.0f); // of 7, 5 and 1
    EXPECT_EQ(flow::fill_level<false>(rough.heights.data(), 3, 2, 4, 3), 4.0f); // of 8, 4 and 2
    for (const int x : {1, 2})
        EXPECT_EQ(flow::fill_level<true>(rough.heights.data(), x, 1, 4, 3),
                  flow::fill_level<false>(rough.heights.data(), x, 1, 4, 3));
}

Cells without_pits(const Cells& heights, int width) {
    sycl::queue queue = make_queue();
    Cells work = heights;
    {
        flow::Grid grid(work.data(),
                        sycl::range<2>(work.size() / static_cast<std::size_t>(width), static_cast<std::size_t>(width)));
        flow::fill_pits(grid, queue);
    }
    return work;
}

TEST(PitFilling, RaisesPitsAndLeavesSlopesWithTheirDetail) {
    // Detail that a coarser level cannot hold, on a slope.
    const auto checkered = [](float x, float y) {
        return std::fmod(x + y, 2.0f) == 0.0f ? 0.25f : -0.25f;
    };
    const Ground slope(512, 64, [&](float x, float y) { return 4.0f * x + checkered(x, y); });
    const Cells same = without_pits(slope.heights, 512);
    for (int y = 0; y < 64; ++y)
        for (std::size_t x = 8; x < 504; ++x)
            ASSERT_NEAR(same[static_cast<std::size_t>(y) * 512 + x],
                        slope.heights[static_cast<std::size_t>(y) * 512 + x], 1e-3);

    Cells pitted = slope.heights;
    // A pit that is one cell on the coarser level; the floor of a wider one holds itself down.
    for (std::size_t y = 30; y < 32; ++y)
        for (std::size_t x = 200; x < 202; ++x)
            pitted[y * 512 + x] -= 50.0f;
    const Cells filled = without_pits(pitted, 512);
    EXPECT_GT(filled[30 * 512 + 200], pitted[30 * 512 + 200] + 25.0f);
    EXPECT_LT(filled[30 * 512 + 200], slope.heights[30 * 512 + 200]);
    EXPECT_NEAR(filled[32 * 512 + 300], pitted[32 * 512 + 300], 1e-3);

    // Level ground counts as filled: its detail goes, but for the rim, where the coarser level is not quite level.
    const Ground plain(512, 40, [&](float x, float y) { return 8.0f + checkered(x, y); });
    const Cells smooth = without_pits(plain.heights, 512);
    for (std::size_t y = 6; y < 34; ++y)
        for (std::size_t x = 6; x < 506; ++x)
            ASSERT_NEAR(smooth[y * 512 + x], 8.0f, 0.1f);

    const Ground narrow(511, 2000, [&](float x, float y) { return 8.0f + checkered(x, y); });
    EXPECT_TRUE(same_bits(without_pits(narrow.heights, 511), narrow.heights));
}

// ---------------------------------------------------------------------------------------------------------------------
// Particles

std::vector<Point> seed(const Cells& mask, std::size_t columns, std::size_t rows, std::uint32_t value) {
    const sycl::range<2> extent(rows, columns);
    flow::Grid grid = mask.empty() ? flow::Grid(sycl::range<2>(1, 1)) : flow::Grid(mask.data(), extent);
    return flow::seed_particles(grid, extent, value);
}

TEST(Particles, StartOncePerCellInItsMiddle) {
    const auto points = seed({}, 37, 23, 5);
    ASSERT_EQ(points.size(), 37u * 23u);
    for (std::size_t i = 0; i < points.size(); ++i) {
        const float across = points[i].x() - static_cast<float>(i % 37),
                    down = points[i].y() - static_cast<float>(i / 37);
        ASSERT_TRUE(across > 0.0999f && across < 0.9001f && down > 0.0999f && down < 0.9001f) << i;
    }
    // The place in the row is drawn after the place in the column.
    const std::uint32_t first = xorshift(5);
    EXPECT_EQ(points[0].y(), 0.1f + random_number(first) * 1.8626452e-10f);
    EXPECT_EQ(points[0].x(), 0.1f + random_number(xorshift(first)) * 1.8626452e-10f);
    // A seed of 0 stands for the generator's usual one.
    EXPECT_EQ(seed({}, 3, 3, 0)[8].x(), seed({}, 3, 3, 0xA2351342u)[8].x());
    EXPECT_NE(seed({}, 3, 3, 1)[8].x(), seed({}, 3, 3, 2)[8].x());
}

TEST(Particles, StartByTheChanceOfTheMask) {
    EXPECT_TRUE(seed(Cells(1000, 0.0f), 50, 20, 1).empty());
    EXPECT_TRUE(seed(Cells(1000, -1.0f), 50, 20, 1).empty());
    EXPECT_TRUE(seed(Cells(1000, not_a_number), 50, 20, 1).empty());
    EXPECT_EQ(seed(Cells(1000, 1.5f), 50, 20, 1).size(), 1000u);
    EXPECT_NEAR(static_cast<double>(seed(Cells(100000, 0.3f), 500, 200, 1).size()), 30000.0, 600.0);
    EXPECT_EQ(seed({0.0f}, 1, 1, 1).size(), 1u); // a mask of one cell counts as none
    Cells one(1000, 0.0f);
    one[777] = 2.0f;
    const auto points = seed(one, 50, 20, 1);
    ASSERT_EQ(points.size(), 1u);
    EXPECT_EQ(static_cast<int>(points[0].x()), 27);
    EXPECT_EQ(static_cast<int>(points[0].y()), 15);
}

TEST(Particles, RunInBatchesWhoseLastTrailsAreLong) {
    const auto plan = [](std::uint32_t particles, const flow::TrailLengths& lengths) {
        return flow::plan_batches(particles, particles, lengths);
    };
    const flow::TrailLengths lengths(40, 1.0f);
    EXPECT_EQ(lengths.longest, 42.0f);
    EXPECT_EQ(lengths.shortest, 16.0f);
    EXPECT_EQ(flow::TrailLengths(40, 0.0f).shortest, 2.0f);

    const auto few = plan(31, lengths);
    ASSERT_EQ(few.size(), 31u);
    EXPECT_TRUE(std::all_of(few.begin(), few.end(),
                            [](const flow::Batch& batch) { return batch.short_count == 1 && batch.long_count == 0; }));

    const auto thousand = plan(1000, lengths);
    ASSERT_EQ(thousand.size(), 32u);
    EXPECT_EQ(thousand[1].start, 32u);
    EXPECT_EQ(thousand[1].short_count, 1u);
    EXPECT_EQ(thousand[1].long_count, 31u);
    const double steps = 1 * 16 + 31 * 42;
    EXPECT_NEAR(thousand[1].norm, 0.05 * (58.0 * 32.0 / steps) + 0.95 * (1000.0 / steps), 1e-6);
    // The last batch has eight particles left; all of them get long trails, and the norm counts as many as ever.
    EXPECT_EQ(thousand[31].start, 992u);
    EXPECT_EQ(thousand[31].short_count, 0u);
    EXPECT_EQ(thousand[31].long_count, 8u);
    EXPECT_NEAR(thousand[31].norm, 0.05 * (58.0 * 31.0 / (31 * 42)) + 0.95 * (1000.0 / (31 * 42)), 1e-6);

    const auto many = plan(1u << 22, lengths);
    EXPECT_EQ(many[0].long_count, 8192u);
    EXPECT_EQ(many[0].short_count, (1u << 17) - 8192u);
    // A map with fewer particles than cells weighs each of them more.
    EXPECT_GT(flow::plan_batches(1000, 100000, lengths)[0].norm, 0.0f);
    EXPECT_NEAR(flow::plan_batches(1000, 100000, lengths)[1].norm,
                (1 - 0.257) * (58.0 * 32.0 / steps) + 0.257 * (1000.0 / steps), 1e-6);
}

// ---------------------------------------------------------------------------------------------------------------------
// Trails

Cells trace(const Ground& ground, const std::vector<Point>& particles, std::uint32_t steps,
            const Cells& table = kicks(0.0f, 0.0f)) {
    Cells hits(ground.heights.size(), 0.0f), in_lanes = hits;
    const auto count = static_cast<std::uint32_t>(particles.size());
    for (std::uint32_t i = 0; i < count; ++i)
        flow::trace<1>(particles.data(), i, i + 1, 9, steps, ground.terrain(), table.data(), hits.data());
    flow::trace<16>(particles.data(), 0, count, 9, steps, ground.terrain(), table.data(), in_lanes.data());
    EXPECT_TRUE(same_bits(in_lanes, hits)) << "in lanes";
    return hits;
}

TEST(FlowTrails, HeightsAreBilinearAndTheFirstHalfCellIsPeculiar) {
    const Ground ground(4, 4, [](float x, float y) { return 3.0f * x + 5.0f * y + 2.0f * x * y; });
    const auto expect_sample = [&](float x, float y, float height, float gradient_x, float gradient_y) {
        const flow::Sample sample = flow::measure(ground.terrain(), x, y);
        EXPECT_FLOAT_EQ(sample.height, height);
        EXPECT_FLOAT_EQ(sample.gradient_x, gradient_x);
        EXPECT_FLOAT_EQ(sample.gradient_y, gradient_y);
    };
    expect_sample(1.5f, 2.5f, 3 + 10 + 4, 3 + 4, 5 + 2);
    expect_sample(2.0f, 2.25f, 3 * 1.5f + 5 * 1.75f + 2 * 1.5f * 1.75f, 3 + 3.5f, 5 + 3);
    expect_sample(0.25f, 1.5f, 0.75f * 5.0f + 5.0f, 3 + 2, 5 + 1.5f); // between the first two cells, three quarters on
    expect_sample(3.75f, 3.5f, 9 + 15 + 18, 0, 0);
}

TEST(FlowTrails, VisitOneCellLessThanTheirSteps) {
    const Ground slope(64, 9, [](float x, float) { return 100.0f - x; });
    for (const auto& [steps, visits] : {std::pair{16u, 15.0}, {2u, 1.0}, {42u, 41.0}}) {
        const Cells hits = trace(slope, {Point(4.4f, 4.6f)}, steps);
        EXPECT_EQ(sum(hits), visits);
        for (std::size_t x = 4; x < 4 + static_cast<std::size_t>(visits); ++x)
            EXPECT_EQ(hits[4 * 64 + x], 1.0f);
    }
    EXPECT_EQ(trace(slope, {Point(4.4f, 4.6f), Point(4.7f, 4.2f)}, 16)[4 * 64 + 4], 2.0f);
    // Kicks to one side bend the trail.
    const Cells bent = trace(slope, {Point(4.4f, 1.6f)}, 16, kicks(0.0f, 1.0f));
    EXPECT_EQ(bent[1 * 64 + 18], 0.0f);
    EXPECT_GT(std::count_if(bent.begin() + 3 * 64, bent.end(), [](float hit) { return hit > 0.0f; }), 5);
}

TEST(FlowTrails, DoNotStartOnLevelGroundButCrossIt) {
    const Ground level(40, 8, [](float, float) { return 3.0f; });
    EXPECT_EQ(sum(trace(level, {Point(4.4f, 4.6f)}, 16)), 0.0);
    const Ground broken(40, 8, [](float x, float) { return x == 9.0f ? not_a_number : 3.0f - x; });
    EXPECT_EQ(sum(trace(broken, {Point(9.4f, 4.6f)}, 16)), 0.0);

    // A step down onto a plain, below the zero of heights so that the start does not count as a climb. On the plain no
    // step descends: the fifth of them is the last.
    const Ground plain(40, 8, [](float x, float) { return x < 5.0f ? -1.0f - x : -6.0f; });
    const Cells hits = trace(plain, {Point(4.4f, 4.6f)}, 16);
    EXPECT_EQ(hits[4 * 40 + 4], 1.0f);
    EXPECT_EQ(sum(hits), 3.0 + 5.0); // heights between the centres descend for two steps
    // Long trails climb for 8 % of their steps.
    EXPECT_EQ(sum(trace(plain, {Point(4.4f, 4.6f)}, 100)), 3.0 + 9.0);
    // The height before the start counts as 0.
    Ground above = plain;
    for (float& height : above.heights)
        height += 64.0f;
    EXPECT_EQ(sum(trace(above, {Point(4.4f, 4.6f)}, 16)), 3.0 + 4.0);
}

TEST(FlowTrails, EndOneCellBeforeTheFarEdges) {
    const Ground right(20, 9, [](float x, float) { return -x; }), left(20, 9, [](float x, float) { return x; });
    const Ground down(9, 20, [](float, float y) { return -y; }), up(9, 20, [](float, float y) { return y; });
    EXPECT_EQ(sum(trace(right, {Point(12.5f, 4.5f)}, 50)), 7.0); // from 12.5 to 18.5
    EXPECT_EQ(sum(trace(left, {Point(6.5f, 4.5f)}, 50)), 7.0);
    EXPECT_EQ(sum(trace(down, {Point(4.5f, 12.5f)}, 50)), 7.0);
    EXPECT_EQ(sum(trace(up, {Point(4.5f, 6.5f)}, 50)), 7.0);
    // A start in the last column or row counts, and goes on if it leads back inside.
    EXPECT_EQ(sum(trace(right, {Point(19.3f, 4.5f)}, 50)), 1.0);
    EXPECT_EQ(sum(trace(right, {Point(12.5f, 8.3f)}, 50)), 1.0);
    EXPECT_EQ(sum(trace(left, {Point(19.3f, 4.5f)}, 50)), 20.0);
    EXPECT_EQ(sum(trace(left, {Point(19.5f - 0.3f, 4.5f)}, 9)), 8.0);
}

TEST(FlowTrails, SaturateBelowAThirtySecond) {
    EXPECT_EQ(flow::saturated(0.0f), 0.0f);
    EXPECT_EQ(flow::saturated(8.0f), 0.015625f);
    EXPECT_LT(flow::saturated(1e6f), 0.03125f);
}

// ---------------------------------------------------------------------------------------------------------------------
// Runs

flow_Parameters parameters(int width, int height, float flow_length = 0.5f, float spread = 0.0f,
                           std::uint32_t seed_value = 3) {
    return {width, height, flow_length, spread, seed_value};
}

class FlowMap : public ::testing::Test {
  protected:
    sycl::queue queue = make_queue();
    RecordingHost host;
    std::uint32_t status = 0;

    Cells run(sycl::queue& on, const flow_Parameters& p, const Cells& heights, const Cells& mask = {}) {
        Cells map(heights.size(), 77.0f);
        const HostCallbacks record = host.callbacks();
        status =
            FlowSimulation(handle(on), heights.data(), map.data(), mask.empty() ? nullptr : mask.data(), &p, &record);
        return map;
    }

    Cells finished(const flow_Parameters& p, const Cells& heights, const Cells& mask = {}) {
        const Cells map = run(queue, p, heights, mask);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
        EXPECT_TRUE(host.errors.empty());
        return map;
    }
};

TEST_F(FlowMap, IsHighInValleysAndBelowOne) {
    const Ground valley(200, 120, [](float x, float y) { return std::fabs(x - 80.0f) + 0.3f * y + 10.0f; });
    for (const float spread : {0.0f, 100.0f}) {
        const Cells map = finished(parameters(200, 120, 0.5f, spread), valley.heights);
        double centre = 0.0, sides = 0.0;
        for (std::size_t y = 0; y < 120; ++y) {
            centre += static_cast<double>(map[y * 200 + 80]);
            sides += static_cast<double>(map[y * 200 + 20] + map[y * 200 + 160]);
        }
        EXPECT_GT(centre, 5.0 * sides);
        EXPECT_TRUE(std::all_of(map.begin(), map.end(), [](float flow) { return flow >= 0.0f && flow < 1.0f; }));
    }
    const Cells narrow = finished(parameters(200, 120), valley.heights);
    const Cells wide = finished(parameters(200, 120, 0.5f, 3000.0f), valley.heights);
    EXPECT_GT(wide[100 * 200 + 84], narrow[100 * 200 + 84]); // pushed beside the channel
}

TEST_F(FlowMap, WithoutParticlesStaysAsItWas) {
    const Cells heights = rough_terrain(60, 40);
    EXPECT_TRUE(same_bits(finished(parameters(60, 40), heights, Cells(2400, 0.0f)), Cells(2400, 77.0f)));
    EXPECT_EQ(host.progress, std::vector<double>{0.0});
    EXPECT_EQ(host.released, host.acquired);
    // On level ground no particle walks, but the map is cleared.
    EXPECT_TRUE(same_bits(finished(parameters(60, 40), Cells(2400, 1.0f)), Cells(2400, 0.0f)));
}

TEST_F(FlowMap, ReportsRunUpToFifty) {
    finished(parameters(60, 40), rough_terrain(60, 40));
    ASSERT_EQ(host.progress.size(), 1u + 29u);
    EXPECT_EQ(host.progress[1], 6.25);
    EXPECT_EQ(host.progress[2], 7.8125);
    EXPECT_EQ(host.progress.back(), 50.0);
    EXPECT_EQ(host.acquired, std::vector<std::size_t>{std::size_t{64} << 20});
}

TEST_F(FlowMap, CancelKeepsTheBatchesThatWereDone) {
    const Cells heights = rough_terrain(60, 40);
    const Cells whole = finished(parameters(60, 40), heights);
    host.cancel_questions = 0;
    host.cancel_at = 1;
    const Cells part = run(queue, parameters(60, 40), heights);
    EXPECT_EQ(status, static_cast<std::uint32_t>(status_cancelled));
    EXPECT_EQ(host.cancel_questions, 1);
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_LT(*std::max_element(part.begin(), part.end()), 4.0f / 32.0f);
    EXPECT_NEAR(sum(part) / sum(whole), 4.0 / 32.0, 0.02);
}

TEST_F(FlowMap, IsRepeatableBySeedForAnyNumberOfThreads) {
    for (const auto& [width, height] : {std::pair{300, 200}, {700, 90}}) {
        const Cells heights = rough_terrain(width, height);
        const auto p = parameters(width, height, 0.7f, 4.0f, 11);
        const Cells map = finished(p, heights);
        for (const std::size_t count : {std::size_t{1}, std::size_t{2}}) {
            const Threads threads(count);
            EXPECT_TRUE(same_bits(finished(p, heights), map)) << count << " threads";
        }
        EXPECT_FALSE(same_bits(finished(parameters(width, height, 0.7f, 4.0f, 12), heights), map));
    }
}

TEST_F(FlowMap, AnySizeGivesAMap) {
    for (const auto& [width, height] : awkward_sizes) {
        const Cells map = finished(parameters(width, height, 2.0f, 10.0f), rough_terrain(width, height));
        EXPECT_TRUE(std::all_of(map.begin(), map.end(), [](float flow) { return flow >= 0.0f && flow < 1.0f; }))
            << width << " x " << height;
    }
}

TEST_F(FlowMap, NonFiniteGridsAndExtremeParametersFinish) {
    for (const float bad : {not_a_number, infinity, -infinity, 3e38f, -3e38f}) {
        for (const auto& [width, height] : {std::pair{48, 40}, {5, 3}, {520, 8}}) {
            Cells heights = rough_terrain(width, height), mask(heights.size(), 1.0f);
            heights[heights.size() / 2] = bad;
            mask[0] = bad;
            run(queue, parameters(width, height), heights, mask);
            EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
        }
    }
    const Cells heights = rough_terrain(40, 30);
    for (const float spread : {3e38f, -3e38f, 1e-40f})
        finished(parameters(40, 30, 0.5f, spread), heights);
    finished(parameters(40, 30, 400000.0f), heights);
}

TEST_F(FlowMap, BadInputIsRefusedWithOneLineThatNamesTheField) {
    struct Case {
        const char* field;
        flow_Parameters record;
    };
    const int most = std::numeric_limits<int>::max();
    for (const Case& bad :
         {Case{"width", parameters(0, 16)}, Case{"height", parameters(16, -3)},
          Case{"width * height", parameters(most, most)}, Case{"height", parameters(512, 1)},
          Case{"height", parameters(1 << 20, 1000)}, Case{"flow_length", parameters(16, 16, -1e-6f)},
          Case{"flow_length", parameters(16, 16, not_a_number)}, Case{"flow_length", parameters(16, 16, infinity)},
          Case{"flow_length", parameters(16, 16, 2e6f)}, Case{"spread", parameters(16, 16, 1.0f, not_a_number)},
          Case{"spread", parameters(16, 16, 1.0f, infinity)}}) {
        host.errors.clear();
        EXPECT_TRUE(same_bits(run(queue, bad.record, Cells(256, 0.0f)), Cells(256, 77.0f)));
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_failed)) << bad.field;
        ASSERT_EQ(host.errors.size(), 1u) << bad.field;
        EXPECT_NE(host.errors[0].find(std::string("FlowSimulation: ") + bad.field), std::string::npos)
            << host.errors[0];
    }
    EXPECT_TRUE(host.progress.empty() && host.acquired.empty());
}

TEST_F(FlowMap, NullArgumentsAreRefused) {
    const Cells heights = rough_terrain(16, 16);
    Cells map = heights;
    const auto p = parameters(16, 16);
    const HostCallbacks record = host.callbacks();
    const auto failed = static_cast<std::uint32_t>(status_failed);
    EXPECT_EQ(FlowSimulation(nullptr, heights.data(), map.data(), nullptr, &p, &record), failed);
    EXPECT_EQ(FlowSimulation(handle(queue), nullptr, map.data(), nullptr, &p, &record), failed);
    EXPECT_EQ(FlowSimulation(handle(queue), heights.data(), nullptr, nullptr, &p, &record), failed);
    EXPECT_EQ(FlowSimulation(handle(queue), heights.data(), map.data(), nullptr, nullptr, &record), failed);
    EXPECT_EQ(FlowSimulation(handle(queue), heights.data(), map.data(), nullptr, &p, nullptr), failed);
    EXPECT_EQ(host.errors.size(), 4u);
    EXPECT_TRUE(same_bits(map, heights));
}

#ifdef HOSTSYCL
TEST_F(FlowMap, AParticleAWorkItemOnAGpuGivesTheBitsOfLanesOnACpu) {
    SimulatedGpu gpu;
    for (const auto& [width, height] : awkward_sizes) {
        const auto p = parameters(width, height, 1.5f, 30.0f);
        const Cells heights = rough_terrain(width, height);
        const Cells mask = width % 2 == 1 ? Cells(heights.size(), 0.6f) : Cells();
        const Cells there = run(gpu.queue, p, heights, mask);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_ok));
        EXPECT_TRUE(same_bits(there, finished(p, heights, mask))) << width << " x " << height;
    }
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(FlowMap, ErrorsOfTheDeviceEndTheRun) {
    SimulatedGpu gpu;
    const Cells heights = rough_terrain(520, 20);
    gpu.device.throw_on_submit(30, "lost");
    run(gpu.queue, parameters(520, 20), heights);
    EXPECT_EQ(status, static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.size(), 1u);
    for (unsigned n = 1; n <= 10; ++n) { // four grids, five of the pyramid's levels, the particles
        gpu.device.clear_faults();
        gpu.device.fail_allocation(n + 1); // after the frame's trial
        run(gpu.queue, parameters(520, 20), heights);
        EXPECT_EQ(status, static_cast<std::uint32_t>(status_out_of_memory)) << n;
    }
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}
#endif

} // namespace
