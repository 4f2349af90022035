// atomic_ref under contention.
#include <cstdint>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>

namespace {

template <class T>
using relaxed = sycl::atomic_ref<T, sycl::memory_order::relaxed, sycl::memory_scope::device,
                                 sycl::access::address_space::global_space>;

template <class T>
class AtomicTest : public testing::Test {};
using atomic_types = testing::Types<float, std::int32_t, std::uint64_t>;
TYPED_TEST_SUITE(AtomicTest, atomic_types);

TYPED_TEST(AtomicTest, NothingIsLostUnderContention) {
    using T = TypeParam;
    sycl::queue queue;
    constexpr std::size_t items = 200000;
    T cells[3] = {T{0}, T{0}, T{0}};
    T* data = cells;
    queue.parallel_for(items, [=](sycl::id<1> i) {
        relaxed<T>(data[0]).fetch_add(T{1});
        // A maximum by compare-and-exchange.
        T seen = relaxed<T>(data[1]).load();
        while (seen < static_cast<T>(i[0]) &&
               !relaxed<T>(data[1]).compare_exchange_strong(seen, static_cast<T>(i[0]))) {
        }
        relaxed<T>(data[2]).store(T{7});
    });
    EXPECT_EQ(cells[0], static_cast<T>(items));
    EXPECT_EQ(cells[1], static_cast<T>(items - 1));
    EXPECT_EQ(relaxed<T>(cells[2]).exchange(T{3}), T{7});
    EXPECT_EQ(cells[2], T{3});
}

} // namespace
