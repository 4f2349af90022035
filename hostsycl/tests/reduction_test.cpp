// Reductions over ranges and work-groups.
#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>
#include <hostsycl/simulation.hpp>
#include <sycl/sycl.hpp>
#include <tbb/global_control.h>

namespace {

TEST(ReductionTest, SixAtOnceAsForABoundingBox) {
    sycl::queue queue;
    std::vector<sycl::float3> points(10007);
    for (std::size_t i = 0; i < points.size(); ++i) {
        const auto f = static_cast<float>(i);
        points[i] = {std::sin(f), std::cos(f * 1.3f) * 2.0f, f};
    }
    const sycl::float3* data = points.data();
    float box[6] = {1e30f, -1e30f, 1e30f, -1e30f, 1e30f, -1e30f};
    const sycl::minimum<float> low;
    const sycl::maximum<float> high;
    queue
        .parallel_for(points.size(), sycl::reduction(box, low), sycl::reduction(box + 1, high),
                      sycl::reduction(box + 2, low), sycl::reduction(box + 3, high), sycl::reduction(box + 4, low),
                      sycl::reduction(box + 5, high),
                      [=](sycl::id<1> i, auto& x0, auto& x1, auto& y0, auto& y1, auto& z0, auto& z1) {
                          x0.combine(data[i].x());
                          x1.combine(data[i].x());
                          y0.combine(data[i].y());
                          y1.combine(data[i].y());
                          z0.combine(data[i].z());
                          z1.combine(data[i].z());
                      })
        .wait();
    for (int axis = 0; axis < 3; ++axis) {
        const auto [least, greatest] = std::minmax_element(
            points.begin(), points.end(), [axis](const auto& a, const auto& b) { return a[axis] < b[axis]; });
        EXPECT_EQ(box[2 * axis], (*least)[axis]);
        EXPECT_EQ(box[2 * axis + 1], (*greatest)[axis]);
    }
}

TEST(ReductionTest, TheOldValueTakesPartUnlessToldOtherwise) {
    sycl::queue queue;
    int kept = 100;
    int fresh = 100;
    int untouched = 100;
    queue.parallel_for(10, sycl::reduction(&kept, sycl::plus<int>()), [](sycl::id<1>, auto& sum) { ++sum; });
    queue.parallel_for(sycl::range<2>(2, 5),
                       sycl::reduction(&fresh, sycl::plus<>(), {sycl::property::reduction::initialize_to_identity()}),
                       [](sycl::item<2> item, auto& sum) { sum += static_cast<int>(item.get_linear_id()); });
    queue.parallel_for(0, sycl::reduction(&untouched, sycl::plus<int>()), [](sycl::id<1>, auto& sum) { ++sum; });
    EXPECT_EQ(kept, 110);
    EXPECT_EQ(fresh, 45);
    EXPECT_EQ(untouched, 100);
}

TEST(ReductionTest, OperationsWithoutIdentity) {
    sycl::queue queue;
    const auto longer = [](sycl::int2 a, sycl::int2 b) {
        return a.y() < b.y() ? b : a;
    };
    sycl::int2 best(-1, -1);
    queue.parallel_for(1000, sycl::reduction(&best, longer), [](sycl::id<1> i, auto& most) {
        const auto n = static_cast<int>(i[0]);
        if (n % 2 == 1)
            most.combine(sycl::int2(n, n == 501 ? 7 : n % 7));
    });
    EXPECT_EQ(best.x(), 501);
}

TEST(ReductionTest, SumsOfFloatsDoNotDependOnTheThreads) {
    const auto sum = [](std::size_t threads) {
        const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
        sycl::queue queue;
        float total = 0.0f;
        queue.parallel_for(1000000, sycl::reduction(&total, sycl::plus<float>()),
                           [](sycl::id<1> i, auto& partial) { partial += 1.0f / (1.0f + static_cast<float>(i[0])); });
        return total;
    };
    const float alone = sum(1);
    EXPECT_NEAR(alone, 14.39, 0.01);
    for (int repeat = 0; repeat < 5; ++repeat)
        EXPECT_EQ(sum(2), alone);
}

TEST(ReductionTest, IntoBuffersOnADevice) {
    const hostsycl::simulated_device_guard gpu;
    sycl::queue queue(gpu.get());
    sycl::buffer<int> total(1);
    sycl::host_accessor(total, sycl::write_only)[0] = 1;
    queue.submit([&](sycl::handler& command) {
        command.parallel_for(100, sycl::reduction(total, command, sycl::plus<int>()),
                             [](sycl::id<1>, auto& sum) { sum += 1; });
    });
    EXPECT_EQ(sycl::host_accessor(total)[0], 101);
}

TEST(ReductionTest, OverWorkGroupsWithBarriers) {
    sycl::queue queue;
    int total = 0;
    queue.submit([&](sycl::handler& command) {
        sycl::local_accessor<int> tile(8, command);
        command.parallel_for(sycl::nd_range<1>(8000, 8), sycl::reduction(&total, sycl::plus<int>()),
                             [=](sycl::nd_item<1> item, auto& sum) {
                                 const std::size_t i = item.get_local_id(0);
                                 tile[i] = static_cast<int>(i);
                                 item.barrier();
                                 sum += tile[7 - i];
                             });
    });
    EXPECT_EQ(total, 28000);
}

} // namespace
