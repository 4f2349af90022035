// Vectors, math functions, indices.
#include <cmath>
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>

namespace {

template <class T, int N>
void expect_equal(const sycl::vec<T, N>& a, const sycl::vec<T, N>& b) {
    for (int i = 0; i < N; ++i)
        EXPECT_EQ(a[i], b[i]) << "element " << i;
}

TEST(VecTest, LayoutIsThatOfDeviceVectors) {
    static_assert(sizeof(sycl::float2) == 8 && alignof(sycl::float2) == 8);
    static_assert(sizeof(sycl::float3) == 16 && alignof(sycl::float3) == 16);
    static_assert(sizeof(sycl::vec<std::uint32_t, 3>) == 16);
    static_assert(sizeof(sycl::vec<double, 16>) == 128);
    static_assert(std::is_trivially_copyable_v<sycl::float3> && sycl::is_device_copyable_v<sycl::float3>);
    static_assert(sycl::float3::size() == 3 && sycl::float3::byte_size() == 16);
}

TEST(VecTest, BuildsFromScalarsAndParts) {
    const sycl::float2 a(1.0f, 2.0f);
    const sycl::float4 b(a, 3.0f, 4.0f);
    expect_equal(b, sycl::float4(1.0f, 2.0f, 3.0f, 4.0f));
    EXPECT_EQ(b.x() + b.y() + b.z() + b.w(), 10.0f);
    expect_equal(b.swizzle<3, 0>(), sycl::float2(4.0f, 1.0f));
    expect_equal(sycl::int3(7), sycl::int3(7, 7, 7));
    sycl::int2 c(1, 2);
    c.y() = 5;
    c[0] += 1;
    expect_equal(c, sycl::int2(2, 5));
}

TEST(VecTest, ArithmeticComparisonConversion) {
    const sycl::float3 a(1.0f, 2.0f, 3.0f);
    expect_equal(a * 2.0f + 1.0f, sycl::float3(3.0f, 5.0f, 7.0f));
    expect_equal(6.0f / a, sycl::float3(6.0f, 3.0f, 2.0f));
    expect_equal(a > 1.5f, sycl::vec<std::int32_t, 3>(0, -1, -1));
    expect_equal(sycl::float2(1.9f, -1.9f).convert<int>(), sycl::int2(1, -1));
    EXPECT_EQ(sycl::float2(1.0f, -0.0f).as<sycl::uint2>().y(), 0x80000000u);
    sycl::uint2 bits(6u, 3u);
    bits <<= 1u;
    expect_equal((bits & 4u) | (bits ^ 6u), sycl::uint2(14u, 4u));
    // Small integers wrap in their own type.
    expect_equal(sycl::uchar2(200, 1) + sycl::uchar2(100, 1), sycl::uchar2(44, 2));
}

TEST(MathTest, ComparisonsKeepTheFirstOperandForNan) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(sycl::min(1.0f, nan), 1.0f);
    EXPECT_EQ(sycl::max(1.0f, nan), 1.0f);
    EXPECT_TRUE(std::isnan(sycl::min(nan, 1.0f)));
    EXPECT_EQ(sycl::fmin(nan, 1.0f), 1.0f);
    EXPECT_EQ(sycl::clamp(5, 0, 3), 3);
    EXPECT_EQ(sycl::clamp(-5.0f, -1.0f, 3.0f), -1.0f);
}

TEST(MathTest, FunctionsAreThoseOfTheStandardLibrary) {
    for (const float x : {0.1f, 0.5f, 0.9f}) {
        EXPECT_EQ(sycl::sqrt(x), std::sqrt(x));
        EXPECT_EQ(sycl::pow(x, 3.3f), std::pow(x, 3.3f));
        EXPECT_EQ(sycl::exp2(x), std::exp2(x));
        EXPECT_EQ(sycl::atan2(x, 2.0f), std::atan2(x, 2.0f));
    }
    EXPECT_EQ(sycl::mix(1.0f, 3.0f, 0.25f), 1.5f);
    EXPECT_EQ(sycl::popcount(0xF0u), 4u);
    EXPECT_EQ(sycl::clz(std::int32_t{1}), 31);
    EXPECT_EQ(sycl::ctz(std::uint64_t{8}), 3u);
    EXPECT_EQ(sycl::bit_cast<std::uint32_t>(1.0f), 0x3F800000u);
    EXPECT_EQ(sycl::sign(-2.0f), -1.0f);
    EXPECT_EQ(sycl::abs(-3), 3);
    expect_equal(sycl::cross(sycl::float3(1.0f, 0.0f, 0.0f), sycl::float3(0.0f, 1.0f, 0.0f)),
                 sycl::float3(0.0f, 0.0f, 1.0f));
}

TEST(IndexTest, RangesAndIdsComputeElementByElement) {
    const sycl::id<2> a(3, 4);
    EXPECT_EQ(a + sycl::id<2>(1, 1), sycl::id<2>(4, 5));
    EXPECT_EQ(a * 2, sycl::id<2>(6, 8));
    EXPECT_EQ(10 - a, sycl::id<2>(7, 6));
    EXPECT_EQ((a > 3), sycl::id<2>(0, 1));
    EXPECT_EQ(sycl::range<3>(2, 3, 4).size(), 24u);
    EXPECT_EQ(sycl::range<2>(7, 9) / 2, sycl::range<2>(3, 4));
    sycl::id<1> one(5);
    one += 2;
    EXPECT_EQ(one + 1, 8u);
    EXPECT_EQ(one, 7u);
    EXPECT_EQ(sycl::nd_range<1>(12, 4).get_group_range(), sycl::range<1>(3));
}

} // namespace
