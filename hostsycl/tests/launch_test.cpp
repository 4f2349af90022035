// Launches over ranges: every item once, on as many threads as the work is worth.
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>
#include <sys/resource.h>
#include <tbb/global_control.h>
#include <unistd.h>

namespace {

TEST(LaunchTest, EveryItemRunsOnceWhateverTheShape) {
    sycl::queue queue;
    for (const std::size_t rows : {0u, 1u, 3u, 64u, 700u})
        for (const std::size_t columns : {0u, 1u, 5u, 64u, 1333u}) {
            std::vector<int> hits(rows * columns, 0);
            int* data = hits.data();
            queue.parallel_for(sycl::range<2>(rows, columns), [=](sycl::item<2> place) {
                data[place.get_linear_id()] +=
                    static_cast<int>(place[0] * place.get_range(1) + place[1] == place.get_linear_id());
            });
            EXPECT_EQ(hits, std::vector<int>(rows * columns, 1)) << rows << " x " << columns;
        }
    std::vector<int> hits(7 * 11 * 13, 0);
    int* data = hits.data();
    queue.parallel_for(sycl::range<3>(7, 11, 13), [=](sycl::id<3> i) { data[(i[0] * 11 + i[1]) * 13 + i[2]] += 1; });
    EXPECT_EQ(hits, std::vector<int>(7 * 11 * 13, 1));
}

TEST(LaunchTest, ARangeBeyondIntIsRefused) {
    sycl::queue queue;
    const auto total = static_cast<std::size_t>(static_cast<std::ptrdiff_t>(INT_MIN));
    try {
        queue.parallel_for(sycl::range<1>(total), [=](sycl::id<1>) {});
        FAIL();
    } catch (const sycl::exception& e) {
        EXPECT_EQ(e.code(), sycl::errc::nd_range);
    }
}

/// The threads that run `items` items of a millisecond each.
std::size_t threads_of_heavy_launch(std::size_t items) {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    sycl::queue queue;
    queue.parallel_for(items, [&mutex, &threads](sycl::id<1>) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const std::lock_guard lock(mutex);
        threads.insert(std::this_thread::get_id());
    });
    return threads.size();
}

TEST(LaunchTest, FewHeavyItemsUseAllThreads) {
    if (std::thread::hardware_concurrency() < 2)
        GTEST_SKIP() << "one core only";
#if defined(HOSTSYCL_NO_THREADS)
    GTEST_SKIP() << "built without threads";
#endif
    EXPECT_GT(threads_of_heavy_launch(32), 1u);
    EXPECT_EQ(threads_of_heavy_launch(1), 1u);
}

TEST(LaunchTest, GlobalControlLimitsTheThreads) {
#if defined(WITHOUT_TBB)
    GTEST_SKIP() << "built without oneTBB";
#endif
    for (const std::size_t limit : {1u, 2u}) {
        const tbb::global_control control(tbb::global_control::max_allowed_parallelism, limit);
        EXPECT_LE(threads_of_heavy_launch(32), limit);
    }
}

TEST(LaunchDeathTest, WithoutThreadsTheCallerDoesAll) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto run_alone = [] {
        const rlimit one{1, 1};
        // The limit does not bind the superuser.
        if (setrlimit(RLIMIT_NPROC, &one) != 0 || (geteuid() == 0 && setuid(65534) != 0))
            std::_Exit(2);
        const tbb::global_control four(tbb::global_control::max_allowed_parallelism, 4);
        std::vector<int> hits(1 << 22, 0);
        sycl::queue queue;
        queue.parallel_for(hits.size(), [data = hits.data()](sycl::id<1> i) { data[i] += 1; });
        int total = 0;
        queue.parallel_for(hits.size(), sycl::reduction(&total, sycl::plus<int>()),
                           [data = hits.data()](sycl::id<1> i, auto& sum) { sum.combine(data[i]); });
        std::_Exit(threads_of_heavy_launch(32) == 1 && hits == std::vector<int>(1 << 22, 1) && total == 1 << 22 ? 0
                                                                                                                : 1);
    };
    EXPECT_EXIT(run_alone(), testing::ExitedWithCode(0), "");
}

TEST(LaunchTest, LightLaunchesStayOnTheCallingThread) {
    sycl::queue queue;
    const auto caller = std::this_thread::get_id();
    int warm_up[64 * 64] = {};
    for (int repeat = 0; repeat < 3; ++repeat)
        queue.parallel_for(sycl::range<2>(64, 64), [data = warm_up](sycl::id<2> i) { data[i[0] * 64 + i[1]] += 1; });
    std::atomic<int> elsewhere{0};
    queue.parallel_for(16, [&](sycl::id<1>) { elsewhere += std::this_thread::get_id() != caller; });
    EXPECT_EQ(elsewhere, 0);
}

TEST(LaunchTest, TwoThreadsMaySubmitAtOnce) {
    constexpr std::size_t size = 300;
    constexpr int rounds = 200;
    sycl::queue shared;
    sycl::buffer<int, 2> common(sycl::range<2>(size, size));
    for (int& cell : sycl::host_accessor(common, sycl::write_only, sycl::no_init))
        cell = 0;
    const auto work = [&](bool swapped) {
        std::vector<int> host(size * size, 0);
        {
            sycl::buffer<int, 2> own(host.data(), sycl::range<2>(size, size));
            for (int round = 0; round < rounds; ++round)
                shared.submit([&](sycl::handler& command) {
                    // Both orders of asking for the same two kinds of buffers, so that a lock order would show.
                    if (swapped) {
                        sycl::accessor b(own, command);
                        sycl::accessor a(common, command);
                        command.parallel_for(own.get_range(), [=](sycl::id<2> i) { a[i] += 1, b[i] += 1; });
                    } else {
                        sycl::accessor a(common, command);
                        sycl::accessor b(own, command);
                        command.parallel_for(own.get_range(), [=](sycl::id<2> i) { a[i] += 1, b[i] += 1; });
                    }
                });
        }
        EXPECT_EQ(host, std::vector<int>(size * size, rounds));
    };
    std::thread other(work, true);
    work(false);
    other.join();
    for (const int cell : sycl::host_accessor(common, sycl::read_only))
        ASSERT_EQ(cell, 2 * rounds);
}

TEST(LaunchTest, KernelsOfTwoThreadsMayLaunchKernelsAndThrow) {
    const auto work = [] {
        constexpr std::size_t size = 1 << 16;
        std::vector<int> hits(size * 16, 0);
        sycl::queue outer;
        outer.parallel_for(16, [data = hits.data()](sycl::id<1> i) {
            sycl::queue inner;
            inner.parallel_for(size, [row = data + i * size](sycl::id<1> j) { row[j] += 1; });
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        });
        EXPECT_EQ(hits, std::vector<int>(size * 16, 1));
        std::atomic<int> begun{0};
        const auto fail = [&](sycl::id<1>) {
            ++begun;
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            if (begun > 20)
                throw std::runtime_error("late");
        };
        EXPECT_THROW(outer.parallel_for(100000, fail), std::runtime_error);
        EXPECT_LT(begun, 10000) << "the rest runs on after a failure";
    };
    std::thread other(work);
    work();
    other.join();
}

} // namespace
