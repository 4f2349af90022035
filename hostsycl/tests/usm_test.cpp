// USM allocations and copies.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>

namespace {

TEST(UsmTest, EveryFormAllocatesAlignedMemoryOfItsKind) {
    sycl::queue queue;
    const sycl::device device = queue.get_device();
    const sycl::context context = queue.get_context();
    const auto check = [&](void* block, sycl::usm::alloc kind, std::size_t alignment) {
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0u);
        EXPECT_EQ(sycl::get_pointer_type(block, context), kind);
        EXPECT_EQ(sycl::get_pointer_device(block, context), device);
        sycl::free(block, context);
        EXPECT_EQ(sycl::get_pointer_type(block, context), sycl::usm::alloc::unknown);
    };
    using sycl::usm::alloc;
    check(sycl::malloc_device(10, queue), alloc::device, 16);
    check(sycl::malloc_device<double>(10, device, context), alloc::device, alignof(double));
    check(sycl::aligned_alloc_device(256, 10, device, context, {}), alloc::device, 256);
    check(sycl::aligned_alloc_device<float>(512, 10, queue), alloc::device, 512);
    check(sycl::malloc_host(10, queue), alloc::host, 16);
    check(sycl::malloc_host<int>(10, context), alloc::host, 16);
    check(sycl::aligned_alloc_host(128, 10, context), alloc::host, 128);
    check(sycl::malloc_shared<int>(10, queue), alloc::shared, 16);
    check(sycl::aligned_alloc_shared(128, 10, queue), alloc::shared, 128);
    check(sycl::malloc_device(std::size_t{16} << 20, queue), alloc::device, 4096);
}

TEST(UsmTest, WhatCannotBeAllocatedIsNull) {
    sycl::queue queue;
    EXPECT_EQ(sycl::malloc_device(SIZE_MAX, queue), nullptr);
    EXPECT_EQ(sycl::malloc_device(SIZE_MAX / 2, queue), nullptr);
    EXPECT_EQ(sycl::malloc_device<double>(SIZE_MAX / 4, queue), nullptr) << "a size that overflows";
    EXPECT_EQ(sycl::malloc_host(SIZE_MAX - 100, queue), nullptr);
    EXPECT_EQ(sycl::aligned_alloc_device(3, 8, queue), nullptr) << "an alignment that is no power of two";
    EXPECT_NO_THROW(sycl::free(nullptr, queue));
    int local = 0;
    EXPECT_EQ(sycl::get_pointer_type(&local, queue.get_context()), sycl::usm::alloc::unknown);
    EXPECT_THROW(sycl::free(&local, queue), sycl::exception);
}

TEST(UsmTest, PointersInsideABlockBelongToIt) {
    sycl::queue queue;
    char* block = sycl::malloc_device<char>(100, queue);
    EXPECT_EQ(sycl::get_pointer_type(block + 99, queue.get_context()), sycl::usm::alloc::device);
    sycl::free(block, queue);
}

TEST(UsmTest, LargeAndOddlySizedCopiesAndFillsAreComplete) {
    sycl::queue queue;
    for (const std::size_t bytes : {std::size_t{1}, std::size_t{4097}, (std::size_t{9} << 20) + 13}) {
        auto* source = sycl::malloc_host<unsigned char>(bytes, queue);
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
}

} // namespace
