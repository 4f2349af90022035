// Vectors.
#include <cstdint>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>

namespace {

using float3 = sycl::vec<float, 3>;

TEST(VecTest, ElementsAndArithmetic) {
    float3 a(1, 2.0f, 3.0f);
    a.y() += 4.0f;
    a[0] = 2.0f;
    const float3 b = 6.0f / (a * 2.0f - float3(1.0f));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(b[i], 6.0f / (a[i] * 2.0f - 1.0f));
    EXPECT_EQ(a.x() + a.y() + a.z(), 11.0f);
    // Small integers wrap in their own type.
    const sycl::vec<std::uint8_t, 2> sum = sycl::vec<std::uint8_t, 2>(200, 1) + sycl::vec<std::uint8_t, 2>(100, 1);
    EXPECT_EQ(sum.x(), 44);
}

} // namespace
