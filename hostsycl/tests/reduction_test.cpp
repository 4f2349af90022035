// Reductions over ranges.
#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>
#include <tbb/global_control.h>

namespace {

TEST(ReductionTest, SeveralAtOncePassOverNaN) {
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    sycl::queue queue;
    std::vector<float> values(10007);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = std::sin(static_cast<float>(i)) * 10.0f;
    const auto [least, greatest] = std::minmax_element(values.begin(), values.end());
    const float low = *least;
    const float high = *greatest;
    for (const std::size_t place : {0u, 40u, 5000u, 10006u})
        if (values[place] != low && values[place] != high)
            values[place] = nan;
    float bounds[2] = {nan, nan};
    queue.parallel_for(values.size(), sycl::reduction(bounds, sycl::minimum<float>()),
                       sycl::reduction(bounds + 1, sycl::maximum<float>()),
                       [data = values.data()](sycl::id<1> i, auto& smallest, auto& largest) {
                           smallest.combine(data[i]);
                           largest.combine(data[i]);
                       });
    EXPECT_EQ(bounds[0], low);
    EXPECT_EQ(bounds[1], high);
}

TEST(ReductionTest, TheOldValueTakesPart) {
    sycl::queue queue;
    int sum = 100;
    int untouched = 100;
    queue.parallel_for(sycl::range<2>(2, 5), sycl::reduction(&sum, sycl::plus<int>()),
                       [](sycl::item<2> item, auto& total) { total.combine(static_cast<int>(item.get_linear_id())); });
    queue.parallel_for(0, sycl::reduction(&untouched, sycl::plus<int>()),
                       [](sycl::id<1>, auto& total) { total.combine(1); });
    EXPECT_EQ(sum, 145);
    EXPECT_EQ(untouched, 100);
}

TEST(ReductionTest, SumsOfFloatsDoNotDependOnTheThreads) {
    const auto sum = [](std::size_t threads) {
        const tbb::global_control limit(tbb::global_control::max_allowed_parallelism, threads);
        sycl::queue queue;
        float total = 0.0f;
        queue.parallel_for(1000000, sycl::reduction(&total, sycl::plus<float>()), [](sycl::id<1> i, auto& partial) {
            partial.combine(1.0f / (1.0f + static_cast<float>(i[0])));
        });
        return total;
    };
    const float alone = sum(1);
    EXPECT_NEAR(alone, 14.39, 0.01);
    for (int repeat = 0; repeat < 5; ++repeat)
        EXPECT_EQ(sum(2), alone);
}

} // namespace
