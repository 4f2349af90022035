// Work-groups: ids, barriers, local memory.
#include <array>
#include <cstdint>
#include <numeric>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <hostsycl/simulation.hpp>
#include <sycl/sycl.hpp>

namespace {

TEST(WorkGroupTest, IdsOfTwoDimensions) {
    sycl::queue queue;
    std::vector<std::array<std::size_t, 4>> seen(6 * 8);
    auto* out = seen.data();
    queue.parallel_for(sycl::nd_range<2>({6, 8}, {3, 2}), [=](sycl::nd_item<2> item) {
        out[item.get_global_id(0) * 8 + item.get_global_id(1)] = {item.get_group(0), item.get_group(1),
                                                                  item.get_local_id(0), item.get_local_id()[1]};
    });
    for (std::size_t y = 0; y < 6; ++y)
        for (std::size_t x = 0; x < 8; ++x)
            EXPECT_EQ(seen[y * 8 + x], (std::array<std::size_t, 4>{y / 3, x / 2, y % 3, x % 2}));
}

TEST(WorkGroupTest, RangesThatDoNotDivideAreRefused) {
    sycl::queue queue;
    const auto code_of = [&](sycl::nd_range<1> extent) {
        try {
            queue.parallel_for(extent, [](sycl::nd_item<1>) {});
        } catch (const sycl::exception& e) {
            return e.code();
        }
        return sycl::make_error_code(sycl::errc::success);
    };
    EXPECT_EQ(code_of({10, 4}), sycl::errc::nd_range);
    EXPECT_EQ(code_of({10, 0}), sycl::errc::nd_range);
    EXPECT_EQ(code_of({std::size_t{1} << 20, std::size_t{1} << 20}), sycl::errc::nd_range) << "too large a group";
    EXPECT_EQ(code_of({0, 4}), sycl::errc::success);
    EXPECT_EQ(code_of({8, 4}), sycl::errc::success);
    for (const std::size_t huge : {std::size_t{1} << 40, SIZE_MAX / 2})
        EXPECT_THROW(queue.submit([&](sycl::handler& command) {
            const sycl::local_accessor<int> tile(huge, command);
            command.parallel_for(sycl::nd_range<1>(4, 4), [=](sycl::nd_item<1>) { static_cast<void>(tile); });
        }),
                     sycl::exception);
    EXPECT_THROW(queue.submit([](sycl::handler& command) {
        const sycl::local_accessor<int> tile(4, command);
        command.parallel_for(4, [=](sycl::id<1> i) { tile[i] = 1; });
    }),
                 sycl::exception)
        << "local memory without work-groups";
}

/// A sum over each group by halves, with a barrier in every step.
std::vector<int> tree_sums(sycl::queue& queue, std::size_t groups, std::size_t size) {
    std::vector<int> sums(groups, 0);
    sycl::buffer<int> out(sums.data(), groups);
    queue.submit([&](sycl::handler& command) {
        sycl::accessor result(out, command, sycl::write_only, sycl::no_init);
        sycl::local_accessor<int> tile(size, command);
        sycl::local_accessor<int, 2> unused({2, 3}, command);
        command.parallel_for(sycl::nd_range<1>(groups * size, size), [=](sycl::nd_item<1> item) {
            const std::size_t i = item.get_local_id(0);
            tile[i] = static_cast<int>(item.get_global_id(0));
            unused[1][2] = 5;
            for (std::size_t half = size / 2; half > 0; half /= 2) {
                sycl::group_barrier(item.get_group());
                if (i < half)
                    tile[i] += tile[i + half];
            }
            sycl::group_barrier(item.get_group());
            if (i == size - 1)
                result[item.get_group(0)] = tile[0];
        });
    });
    std::vector<int> result;
    for (const int sum : sycl::host_accessor(out, sycl::read_only))
        result.push_back(sum);
    return result;
}

TEST(WorkGroupTest, BarriersOrderLocalMemory) {
    sycl::queue cpu(sycl::cpu_selector_v);
    const hostsycl::simulated_device_guard guard;
    sycl::queue gpu(guard.get());
    for (const std::size_t size : {2u, 16u, 256u, 1024u}) {
        const std::size_t groups = 50;
        std::vector<int> expected(groups);
        for (std::size_t g = 0; g < groups; ++g)
            expected[g] = static_cast<int>(size * (2 * g * size + size - 1) / 2);
        EXPECT_EQ(tree_sums(cpu, groups, size), expected) << size;
        EXPECT_EQ(tree_sums(gpu, groups, size), expected) << size;
    }
}

TEST(WorkGroupTest, ItemsThatEndedCountAsHavingCome) {
    sycl::queue queue;
    std::vector<int> seen(64, 0);
    int* out = seen.data();
    queue.parallel_for(sycl::nd_range<1>(64, 32), [=](sycl::nd_item<1> item) {
        if (item.get_global_id(0) >= 40)
            return;
        sycl::group_barrier(item.get_group());
        out[item.get_global_id(0)] = 1;
    });
    EXPECT_EQ(std::accumulate(seen.begin(), seen.end(), 0), 40);
}

TEST(WorkGroupTest, ErrorsInItemsAreThrownBySubmitAlsoBehindABarrier) {
    sycl::queue queue;
    EXPECT_THROW(queue.parallel_for(sycl::nd_range<1>(16, 16),
                                    [](sycl::nd_item<1> item) {
                                        sycl::group_barrier(item.get_group());
                                        if (item.get_local_id(0) == 3)
                                            throw std::runtime_error("in a fiber");
                                        sycl::group_barrier(item.get_group());
                                    }),
                 std::runtime_error);
}

} // namespace
