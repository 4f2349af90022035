// atomic_ref under contention and its orders.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>

namespace {

template <class T>
using relaxed = sycl::atomic_ref<T, sycl::memory_order::relaxed, sycl::memory_scope::device,
                                 sycl::access::address_space::global_space>;

template <class T>
class AtomicTest : public testing::Test {};
using atomic_types = testing::Types<float, double, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t>;
TYPED_TEST_SUITE(AtomicTest, atomic_types);

TYPED_TEST(AtomicTest, NothingIsLostUnderContention) {
    using T = TypeParam;
    sycl::queue queue;
    constexpr std::size_t items = 200000;
    T cells[4] = {T{0}, T{0}, T{1000000}, T{0}};
    T* data = cells;
    queue.parallel_for(items, [=](sycl::id<1> i) {
        relaxed<T>(data[0]).fetch_add(T{1});
        relaxed<T>(data[1]).fetch_max(static_cast<T>(i[0]));
        relaxed<T>(data[2]).fetch_min(static_cast<T>(i[0] + 3));
        // A maximum by compare-and-exchange.
        T seen = relaxed<T>(data[3]).load();
        while (seen < static_cast<T>(i[0]) &&
               !relaxed<T>(data[3]).compare_exchange_strong(seen, static_cast<T>(i[0]))) {
        }
    });
    EXPECT_EQ(cells[0], static_cast<T>(items));
    EXPECT_EQ(cells[1], static_cast<T>(items - 1));
    EXPECT_EQ(cells[2], T{3});
    EXPECT_EQ(cells[3], static_cast<T>(items - 1));
}

TYPED_TEST(AtomicTest, OperationsGiveTheOldValueAndOperatorsTheNew) {
    using T = TypeParam;
    T value{5};
    const relaxed<T> cell(value);
    EXPECT_EQ(cell.fetch_add(T{2}), T{5});
    EXPECT_EQ(cell.fetch_sub(T{1}), T{7});
    EXPECT_EQ(cell += T{4}, T{10});
    EXPECT_EQ(cell -= T{1}, T{9});
    EXPECT_EQ(cell.exchange(T{3}), T{9});
    T expected{4};
    EXPECT_FALSE(cell.compare_exchange_strong(expected, T{8}));
    EXPECT_EQ(expected, T{3});
    EXPECT_TRUE(cell.compare_exchange_strong(expected, T{8}, sycl::memory_order::acq_rel));
    cell.store(T{11}, sycl::memory_order::release);
    EXPECT_EQ(cell.load(sycl::memory_order::acquire), T{11});
    if constexpr (std::is_integral_v<T>) {
        EXPECT_EQ(cell.fetch_and(T{6}), T{11});
        EXPECT_EQ(cell.fetch_or(T{8}), T{2});
        EXPECT_EQ(cell.fetch_xor(T{1}), T{10});
        EXPECT_EQ(cell++, T{11});
        EXPECT_EQ(--cell, T{11});
    }
}

TEST(AtomicTest, WorksOnLocalMemory) {
    sycl::queue queue;
    std::vector<int> counts(8, 0);
    int* out = counts.data();
    queue.submit([&](sycl::handler& command) {
        sycl::local_accessor<int> count(1, command);
        command.parallel_for(sycl::nd_range<1>(8 * 32, 32), [=](sycl::nd_item<1> item) {
            if (item.get_local_id(0) == 0)
                count[0] = 0;
            sycl::group_barrier(item.get_group());
            sycl::atomic_ref<int, sycl::memory_order::relaxed, sycl::memory_scope::work_group,
                             sycl::access::address_space::local_space>(count[0]) += 1;
            sycl::group_barrier(item.get_group());
            if (item.get_group().leader())
                out[item.get_group(0)] = count[0];
        });
    });
    EXPECT_EQ(counts, std::vector<int>(8, 32));
}

} // namespace
