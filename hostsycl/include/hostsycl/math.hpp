// Math functions of kernels: those of the standard library.
#pragma once

#include <bit>
#include <cmath>
#include <concepts>

namespace sycl {

template <class To, class From>
requires(sizeof(To) == sizeof(From)) constexpr To bit_cast(const From& value) noexcept {
    return std::bit_cast<To>(value);
}

#define HOSTSYCL_MATH_1(name)                                                                                          \
    template <std::floating_point T>                                                                                   \
    inline T name(T x) {                                                                                               \
        return std::name(x);                                                                                           \
    }
HOSTSYCL_MATH_1(sqrt)
HOSTSYCL_MATH_1(exp)
HOSTSYCL_MATH_1(sin)
HOSTSYCL_MATH_1(cos)
HOSTSYCL_MATH_1(acos)
HOSTSYCL_MATH_1(atan)
HOSTSYCL_MATH_1(floor)
HOSTSYCL_MATH_1(ceil)
HOSTSYCL_MATH_1(fabs)
#undef HOSTSYCL_MATH_1

template <std::floating_point T>
inline T pow(T x, T y) {
    return std::pow(x, y);
}
template <std::floating_point T>
inline T fmod(T x, T y) {
    return std::fmod(x, y);
}

} // namespace sycl
