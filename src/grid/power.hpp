// A power function that loops can vectorise. The standard library's takes one value at a time, and its last bit is its
// own: a result counts only if it has the same bits. So the power is computed in double precision, and where that value
// lies too close to the middle of two floats to tell how the library rounds, the estimate says so and the caller asks
// the library.
#pragma once

#include <bit>
#include <cstdint>

namespace tarn {

/// a * b + c with one rounding where the processor does that as fast, else with two: the estimate allows for either.
inline double multiply_add(double a, double b, double c) {
#ifdef __FMA__
    return __builtin_fma(a, b, c);
#else
    return a * b + c;
#endif
}

struct PowerEstimate {
    float value;
    /// Whether `value` is what the standard library gives.
    bool sure;
};

/// x to the power of y, for an x that is positive and a result between the smallest normal float and the largest; for
/// other x it is not sure. The logarithm is the series of the inverse hyperbolic tangent, the exponential that of
/// Taylor, both good to 2^-36. Float power functions are within 2^-7 of a last place of the right rounding (the
/// GNU library's within 2^-9), which the margin allows for.
inline PowerEstimate estimate_power(float x, float y) {
    const auto bits = std::bit_cast<std::uint32_t>(x);
    const bool is_normal = bits - 0x00800000u < 0x7F000000u;

    // x = 2^exponent * mantissa, with the mantissa between sqrt(1/2) and sqrt(2).
    const std::uint32_t shifted = bits - 0x3F3504F3u;
    const auto exponent = static_cast<double>(static_cast<std::int32_t>(shifted) >> 23);
    const auto mantissa = static_cast<double>(std::bit_cast<float>(bits - (shifted & 0xFF800000u)));
    const double s = (mantissa - 1.0) / (mantissa + 1.0);
    const double q = s * s;
    double series = multiply_add(q, 1.0 / 13, 1.0 / 11);
    series = multiply_add(series, q, 1.0 / 9);
    series = multiply_add(series, q, 1.0 / 7);
    series = multiply_add(series, q, 1.0 / 5);
    series = multiply_add(series, q, 1.0 / 3);
    series = multiply_add(series, q, 1.0);
    constexpr double two_by_ln2 = 2.8853900817779268147;
    const double power = static_cast<double>(y) * (exponent + s * two_by_ln2 * series);

    // 2^power = 2^whole * e^r. Adding and taking away 1.5 * 2^52 rounds to a whole number, which then stands in the low
    // bits of the sum.
    constexpr double rounder = 0x1.8p52;
    const double sum = power + rounder;
    const double r = (power - (sum - rounder)) * 0.69314718055994530942;
    double e_to_r = multiply_add(r, 1.0 / 362880, 1.0 / 40320);
    e_to_r = multiply_add(e_to_r, r, 1.0 / 5040);
    e_to_r = multiply_add(e_to_r, r, 1.0 / 720);
    e_to_r = multiply_add(e_to_r, r, 1.0 / 120);
    e_to_r = multiply_add(e_to_r, r, 1.0 / 24);
    e_to_r = multiply_add(e_to_r, r, 1.0 / 6);
    e_to_r = multiply_add(e_to_r, r, 1.0 / 2);
    e_to_r = multiply_add(e_to_r, r, 1.0);
    e_to_r = multiply_add(e_to_r, r, 1.0);
    const double result =
        std::bit_cast<double>(std::bit_cast<std::uint64_t>(e_to_r) + (std::bit_cast<std::uint64_t>(sum) << 52));

    constexpr double margin = 0x1p-30;
    const auto low = static_cast<float>(result * (1.0 - margin));
    const auto high = static_cast<float>(result * (1.0 + margin));
    return {low, is_normal && low == high};
}

} // namespace tarn
