// Math functions: the float and double functions of the standard library, on scalars and element by element on vectors.
// min, max and clamp are comparisons, so that they become single instructions.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "hostsycl/vec.hpp"

namespace sycl {

template <class To, class From>
requires(sizeof(To) == sizeof(From)) constexpr To bit_cast(const From& value) noexcept {
    return std::bit_cast<To>(value);
}

namespace detail {

template <class T>
concept arithmetic = std::is_arithmetic_v<T>;

template <class T, int N, class Function, class... Rest>
constexpr vec<T, N> map(Function function, const vec<T, N>& first, const Rest&... rest) {
    vec<T, N> result(T{});
    for (int i = 0; i < N; ++i)
        result[i] = function(first[i], rest[i]...);
    return result;
}

} // namespace detail

#define HOSTSYCL_MATH_1(name)                                                                                          \
    template <std::floating_point T>                                                                                   \
    inline T name(T x) {                                                                                               \
        return std::name(x);                                                                                           \
    }                                                                                                                  \
    template <std::floating_point T, int N>                                                                            \
    inline vec<T, N> name(const vec<T, N>& x) {                                                                        \
        return detail::map([](T a) { return std::name(a); }, x);                                                       \
    }
HOSTSYCL_MATH_1(sqrt)
HOSTSYCL_MATH_1(cbrt)
HOSTSYCL_MATH_1(exp)
HOSTSYCL_MATH_1(exp2)
HOSTSYCL_MATH_1(expm1)
HOSTSYCL_MATH_1(log)
HOSTSYCL_MATH_1(log2)
HOSTSYCL_MATH_1(log10)
HOSTSYCL_MATH_1(log1p)
HOSTSYCL_MATH_1(sin)
HOSTSYCL_MATH_1(cos)
HOSTSYCL_MATH_1(tan)
HOSTSYCL_MATH_1(asin)
HOSTSYCL_MATH_1(acos)
HOSTSYCL_MATH_1(atan)
HOSTSYCL_MATH_1(sinh)
HOSTSYCL_MATH_1(cosh)
HOSTSYCL_MATH_1(tanh)
HOSTSYCL_MATH_1(asinh)
HOSTSYCL_MATH_1(acosh)
HOSTSYCL_MATH_1(atanh)
HOSTSYCL_MATH_1(erf)
HOSTSYCL_MATH_1(erfc)
HOSTSYCL_MATH_1(floor)
HOSTSYCL_MATH_1(ceil)
HOSTSYCL_MATH_1(fabs)
HOSTSYCL_MATH_1(round)
HOSTSYCL_MATH_1(trunc)
HOSTSYCL_MATH_1(rint)
#undef HOSTSYCL_MATH_1

#define HOSTSYCL_MATH_2(name)                                                                                          \
    template <std::floating_point T>                                                                                   \
    inline T name(T x, T y) {                                                                                          \
        return std::name(x, y);                                                                                        \
    }                                                                                                                  \
    template <std::floating_point T, int N>                                                                            \
    inline vec<T, N> name(const vec<T, N>& x, const vec<T, N>& y) {                                                    \
        return detail::map([](T a, T b) { return std::name(a, b); }, x, y);                                            \
    }
HOSTSYCL_MATH_2(pow)
HOSTSYCL_MATH_2(atan2)
HOSTSYCL_MATH_2(fmod)
HOSTSYCL_MATH_2(remainder)
HOSTSYCL_MATH_2(hypot)
HOSTSYCL_MATH_2(copysign)
HOSTSYCL_MATH_2(nextafter)
HOSTSYCL_MATH_2(fdim)
HOSTSYCL_MATH_2(fmin)
HOSTSYCL_MATH_2(fmax)
#undef HOSTSYCL_MATH_2

template <std::floating_point T>
inline T rsqrt(T x) {
    return T{1} / std::sqrt(x);
}

template <std::floating_point T>
inline T powr(T x, T y) {
    return std::pow(x, y);
}

template <std::floating_point T>
inline T pown(T x, int y) {
    return std::pow(x, static_cast<T>(y));
}

template <std::floating_point T>
inline T fma(T a, T b, T c) {
    return std::fma(a, b, c);
}

template <std::floating_point T>
inline T mad(T a, T b, T c) {
    return a * b + c;
}

template <std::floating_point T>
inline T ldexp(T x, int exponent) {
    return std::ldexp(x, exponent);
}

template <std::floating_point T>
inline T fract(T x, T* whole) {
    *whole = std::floor(x);
    return std::fmin(x - *whole, std::nextafter(T{1}, T{0}));
}

template <std::floating_point T>
inline bool isnan(T x) {
    return std::isnan(x);
}
template <std::floating_point T>
inline bool isinf(T x) {
    return std::isinf(x);
}
template <std::floating_point T>
inline bool isfinite(T x) {
    return std::isfinite(x);
}
template <std::floating_point T>
inline bool signbit(T x) {
    return std::signbit(x);
}

template <detail::arithmetic T>
constexpr T min(T a, T b) {
    return b < a ? b : a;
}
template <detail::arithmetic T>
constexpr T max(T a, T b) {
    return a < b ? b : a;
}
template <detail::arithmetic T>
constexpr T clamp(T x, T low, T high) {
    return sycl::min(sycl::max(x, low), high);
}
template <detail::arithmetic T, int N>
constexpr vec<T, N> min(const vec<T, N>& a, const vec<T, N>& b) {
    return detail::map([](T x, T y) { return sycl::min(x, y); }, a, b);
}
template <detail::arithmetic T, int N>
constexpr vec<T, N> max(const vec<T, N>& a, const vec<T, N>& b) {
    return detail::map([](T x, T y) { return sycl::max(x, y); }, a, b);
}
template <detail::arithmetic T, int N>
constexpr vec<T, N> clamp(const vec<T, N>& x, const vec<T, N>& low, const vec<T, N>& high) {
    return sycl::min(sycl::max(x, low), high);
}
template <detail::arithmetic T, int N>
constexpr vec<T, N> clamp(const vec<T, N>& x, T low, T high) {
    return sycl::clamp(x, vec<T, N>(low), vec<T, N>(high));
}

template <detail::arithmetic T>
constexpr T abs(T x) {
    if constexpr (std::is_unsigned_v<T>)
        return x;
    else if constexpr (std::is_integral_v<T>)
        return static_cast<T>(x < T{0} ? -x : x);
    else
        return std::fabs(x);
}
template <detail::arithmetic T, int N>
constexpr vec<T, N> abs(const vec<T, N>& x) {
    return detail::map([](T a) { return sycl::abs(a); }, x);
}

/// The linear blend x + (y - x) * a.
template <std::floating_point T>
constexpr T mix(T x, T y, T a) {
    return x + (y - x) * a;
}
template <std::floating_point T, int N>
constexpr vec<T, N> mix(const vec<T, N>& x, const vec<T, N>& y, const vec<T, N>& a) {
    return x + (y - x) * a;
}
template <std::floating_point T, int N>
constexpr vec<T, N> mix(const vec<T, N>& x, const vec<T, N>& y, T a) {
    return x + (y - x) * a;
}

template <std::floating_point T>
constexpr T step(T edge, T x) {
    return x < edge ? T{0} : T{1};
}
template <std::floating_point T>
constexpr T smoothstep(T low, T high, T x) {
    const T t = sycl::clamp((x - low) / (high - low), T{0}, T{1});
    return t * t * (T{3} - T{2} * t);
}
template <std::floating_point T>
constexpr T sign(T x) {
    return x > T{0} ? T{1} : x < T{0} ? T{-1} : x == T{0} ? x : T{0};
}
template <std::floating_point T>
constexpr T degrees(T radians) {
    return static_cast<T>(57.295779513082320877) * radians;
}
template <std::floating_point T>
constexpr T radians(T degrees) {
    return static_cast<T>(0.017453292519943295769) * degrees;
}

/// `b` where `condition` holds, else `a`.
template <detail::arithmetic T>
constexpr T select(T a, T b, bool condition) {
    return condition ? b : a;
}

template <std::floating_point T, int N>
constexpr T dot(const vec<T, N>& a, const vec<T, N>& b) {
    T sum = a[0] * b[0];
    for (int i = 1; i < N; ++i)
        sum += a[i] * b[i];
    return sum;
}
template <std::floating_point T>
constexpr vec<T, 3> cross(const vec<T, 3>& a, const vec<T, 3>& b) {
    return {a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(), a.x() * b.y() - a.y() * b.x()};
}
template <std::floating_point T, int N>
inline T length(const vec<T, N>& a) {
    return std::sqrt(sycl::dot(a, a));
}
template <std::floating_point T, int N>
inline T distance(const vec<T, N>& a, const vec<T, N>& b) {
    return sycl::length(a - b);
}
template <std::floating_point T, int N>
inline vec<T, N> normalize(const vec<T, N>& a) {
    return a / sycl::length(a);
}

template <std::integral T>
constexpr T popcount(T x) {
    return static_cast<T>(std::popcount(static_cast<std::make_unsigned_t<T>>(x)));
}
template <std::integral T>
constexpr T clz(T x) {
    return static_cast<T>(std::countl_zero(static_cast<std::make_unsigned_t<T>>(x)));
}
template <std::integral T>
constexpr T ctz(T x) {
    return static_cast<T>(std::countr_zero(static_cast<std::make_unsigned_t<T>>(x)));
}

} // namespace sycl
