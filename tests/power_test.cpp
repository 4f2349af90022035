#include "grid/power.hpp"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace {

using tarn::estimate_power;

// Every 251st float in the range; what is sure has the library's bits, and little is left to ask for.
TEST(Power, SureEstimatesHaveTheLibrarysBits) {
    for (const float exponent : {0.7071f, 0.25f, 1.5f, -0.9f}) {
        long count = 0, unsure = 0, wrong = 0;
        const auto first = std::bit_cast<std::uint32_t>(1e-20f), last = std::bit_cast<std::uint32_t>(1e20f);
        for (std::uint32_t bits = first; bits < last; bits += 251) {
            const float x = std::bit_cast<float>(bits);
            const tarn::PowerEstimate estimate = estimate_power(x, exponent);
            ++count;
            unsure += estimate.sure ? 0 : 1;
            wrong += estimate.sure && estimate.value != std::pow(x, exponent) ? 1 : 0;
        }
        EXPECT_EQ(wrong, 0) << exponent;
        EXPECT_LT(unsure, count / 20) << exponent;
    }
}

TEST(Power, ArgumentsOutsideTheNormalPositiveFloatsAreNeverSure) {
    const float infinity = std::numeric_limits<float>::infinity();
    for (const float x : {0.0f, -0.0f, 1e-40f, -1e-40f, -1.0f, -3e38f, infinity, -infinity, std::nanf("")})
        EXPECT_FALSE(estimate_power(x, 0.7071f).sure) << x;
}

} // namespace
