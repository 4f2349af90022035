// Work-groups: ids, barriers, local memory, sub-groups, collective functions.
#include <array>
#include <atomic>
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
        out[item.get_global_linear_id()] = {item.get_group_linear_id(), item.get_local_linear_id(),
                                            item.get_global_id(0), item.get_global_id(1)};
    });
    for (std::size_t y = 0; y < 6; ++y)
        for (std::size_t x = 0; x < 8; ++x)
            EXPECT_EQ(seen[y * 8 + x], (std::array<std::size_t, 4>{y / 3 * 4 + x / 2, y % 3 * 2 + x % 2, y, x}));
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
    EXPECT_THROW(queue.submit([](sycl::handler& command) {
        const sycl::local_accessor<char> huge(std::size_t{1} << 40, command);
        command.parallel_for(sycl::nd_range<1>(4, 4), [=](sycl::nd_item<1>) { static_cast<void>(huge); });
    }),
                 sycl::exception);
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
    for (const std::size_t size : {2, 16, 256, 1024}) {
        const std::size_t groups = 50;
        std::vector<int> expected(groups);
        for (std::size_t g = 0; g < groups; ++g)
            expected[g] = static_cast<int>(size * (2 * g * size + size - 1) / 2);
        EXPECT_EQ(tree_sums(cpu, groups, size), expected) << size;
        EXPECT_EQ(tree_sums(gpu, groups, size), expected) << size;
    }
}

TEST(WorkGroupTest, LocalMemoryOfAGpuHasNoContentsAtFirst) {
    const hostsycl::simulated_device_guard guard;
    sycl::queue queue(guard.get());
    int seen = 0;
    queue.submit([&](sycl::handler& command) {
        sycl::local_accessor<int> cell(1, command);
        command.parallel_for(sycl::nd_range<1>(2, 1), [=, &seen](sycl::nd_item<1>) {
            seen += cell[0] == -1;
            cell[0] = 3;
        });
    });
    EXPECT_EQ(seen, 2);
}

TEST(WorkGroupTest, CollectiveFunctionsOfTheGroup) {
    sycl::queue queue;
    constexpr std::size_t size = 24;
    std::vector<std::array<int, 7>> results(2 * size);
    auto* out = results.data();
    queue.parallel_for(sycl::nd_range<1>(2 * size, size), [=](sycl::nd_item<1> item) {
        const auto group = item.get_group();
        const int i = static_cast<int>(item.get_local_id(0));
        const int value = i + 100 * static_cast<int>(item.get_group(0));
        out[item.get_global_id(0)] = {sycl::reduce_over_group(group, value, sycl::plus<int>()),
                                      sycl::exclusive_scan_over_group(group, i, sycl::plus<>()),
                                      sycl::inclusive_scan_over_group(group, i, sycl::plus<>()),
                                      sycl::group_broadcast(group, value, 5),
                                      sycl::any_of_group(group, value == 103),
                                      sycl::all_of_group(group, value >= 100),
                                      sycl::none_of_group(group, i == 99)};
    });
    const int triangle = static_cast<int>(size * (size - 1) / 2);
    for (int g = 0; g < 2; ++g)
        for (int i = 0; i < static_cast<int>(size); ++i)
            EXPECT_EQ(results[static_cast<std::size_t>(g) * size + static_cast<std::size_t>(i)],
                      (std::array<int, 7>{triangle + g * 100 * static_cast<int>(size), i * (i - 1) / 2, i * (i + 1) / 2,
                                          5 + 100 * g, g, g, 1}));
}

TEST(WorkGroupTest, SubGroupsHaveTheSizeOfTheDevice) {
    hostsycl::simulated_device description;
    description.sub_group_sizes = {4, 8};
    const hostsycl::simulated_device_guard guard(description);
    sycl::queue queue(guard.get());
    constexpr std::size_t size = 20;
    std::vector<std::array<int, 6>> results(size);
    auto* out = results.data();
    queue.parallel_for(sycl::nd_range<1>(size, size), [=](sycl::nd_item<1> item) {
        const sycl::sub_group lanes = item.get_sub_group();
        const int i = static_cast<int>(item.get_local_id(0));
        // Sub-groups may go different ways.
        const int sum = lanes.get_group_id()[0] == 1 ? sycl::reduce_over_group(lanes, i, sycl::plus<int>()) : -1;
        sycl::group_barrier(item.get_group());
        out[i] = {static_cast<int>(lanes.get_local_range()[0]), sum,
                  sycl::shift_group_left(lanes, i, 1),          sycl::permute_group_by_xor(lanes, i, 1),
                  sycl::select_from_group(lanes, i, 0),         static_cast<int>(lanes.get_local_linear_id())};
    });
    for (int i = 0; i < static_cast<int>(size); ++i) {
        const int first = i / 8 * 8;
        const int length = first == 16 ? 4 : 8;
        const auto& result = results[static_cast<std::size_t>(i)];
        EXPECT_EQ(result[0], length);
        EXPECT_EQ(result[1], first == 8 ? 92 : -1);
        if (i + 1 < first + length) {
            EXPECT_EQ(result[2], i + 1);
        }
        EXPECT_EQ(result[3], i ^ 1);
        EXPECT_EQ(result[4], first);
        EXPECT_EQ(result[5], i - first);
    }
}

TEST(WorkGroupTest, ItemsThatEndedCountAsHavingCome) {
    sycl::queue queue;
    std::vector<int> seen(64, 0);
    int* out = seen.data();
    queue.parallel_for(sycl::nd_range<1>(64, 32), [=](sycl::nd_item<1> item) {
        if (item.get_global_id(0) >= 40)
            return;
        item.barrier();
        out[item.get_global_id(0)] = 1;
    });
    EXPECT_EQ(std::accumulate(seen.begin(), seen.end(), 0), 40);
}

TEST(WorkGroupTest, ErrorsInItemsAreThrownBySubmitAlsoBehindABarrier) {
    sycl::queue queue;
    EXPECT_THROW(queue.parallel_for(sycl::nd_range<1>(16, 16),
                                    [](sycl::nd_item<1> item) {
                                        item.barrier();
                                        if (item.get_local_id(0) == 3)
                                            throw std::runtime_error("in a fiber");
                                        item.barrier();
                                    }),
                 std::runtime_error);
}

TEST(WorkGroupTest, ManyGroupsWithoutBarrierRunEachItemOnce) {
    sycl::queue queue;
    std::vector<int> hits(400000, 0);
    int* out = hits.data();
    queue.parallel_for(sycl::nd_range<1>(hits.size(), 4),
                       [=](sycl::nd_item<1> item) { out[item.get_global_id(0)] += 1; });
    EXPECT_EQ(hits, std::vector<int>(hits.size(), 1));
}

} // namespace
