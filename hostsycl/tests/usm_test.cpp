// USM allocations and copies.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>

namespace {

TEST(UsmTest, AllocationsAreAlignedAndWhatCannotBeIsNull) {
    sycl::queue queue;
    for (const std::size_t alignment : {std::size_t{1}, std::size_t{512}}) {
        void* block = sycl::aligned_alloc_device(alignment, 10, queue.get_device(), queue.get_context());
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % std::max<std::size_t>(64, alignment), 0u);
        sycl::free(block, queue);
    }
    EXPECT_EQ(sycl::malloc_device(SIZE_MAX, queue), nullptr);
    EXPECT_EQ(sycl::malloc_device<double>(SIZE_MAX / 4, queue), nullptr) << "a size that overflows";
    EXPECT_EQ(sycl::malloc_host(SIZE_MAX - 100, queue), nullptr);
    EXPECT_EQ(sycl::aligned_alloc_device(3, 8, queue.get_device(), queue.get_context()), nullptr)
        << "an alignment that is no power of two";
    EXPECT_NO_THROW(sycl::free(nullptr, queue));
    int local = 0;
    EXPECT_THROW(sycl::free(&local, queue), sycl::exception);
}

TEST(UsmTest, LargeAndOddlySizedCopiesAndFillsAreComplete) {
    sycl::queue queue;
    for (const std::size_t bytes : {std::size_t{1}, std::size_t{4097}, (std::size_t{9} << 20) + 13}) {
        auto* source = static_cast<unsigned char*>(sycl::malloc_host(bytes, queue));
        auto* target = sycl::malloc_device<unsigned char>(bytes + 1, queue);
        queue.memset(target, 0xAB, bytes + 1);
        queue.parallel_for(bytes, [=](sycl::id<1> i) { source[i] = static_cast<unsigned char>(i[0] * 7); });
        EXPECT_EQ(target[bytes / 2], 0xAB);
        queue.memcpy(target, source, bytes).wait();
        EXPECT_TRUE(std::equal(source, source + bytes, target));
        EXPECT_EQ(target[bytes], 0xAB);
        sycl::free(source, queue);
        sycl::free(target, queue);
    }
    std::vector<float> values(100000, 0.0f);
    queue.fill(values.data(), 2.5f, values.size() - 1);
    EXPECT_EQ(values.front(), 2.5f);
    EXPECT_EQ(values[values.size() - 2], 2.5f);
    EXPECT_EQ(values.back(), 0.0f);
    EXPECT_THROW(queue.fill(values.data(), 1.0f, std::size_t{1} << 32), sycl::exception) << "whole or refused";
}

} // namespace
