// Function objects of reductions, and their identities.
#pragma once

#include <concepts>
#include <functional>
#include <limits>

namespace sycl {

template <class T>
using plus = std::plus<T>;

// Of a number and a NaN, in either order, both choose the number.

template <class T>
struct minimum {
    constexpr T operator()(const T& a, const T& b) const { return b < a || a != a ? b : a; }
};

template <class T>
struct maximum {
    constexpr T operator()(const T& a, const T& b) const { return a < b || a != a ? b : a; }
};

template <class Operation, class T>
struct known_identity;
template <class T>
struct known_identity<plus<T>, T> {
    static constexpr T value{0};
};
template <std::floating_point T>
struct known_identity<minimum<T>, T> {
    static constexpr T value = std::numeric_limits<T>::infinity();
};
template <std::floating_point T>
struct known_identity<maximum<T>, T> {
    static constexpr T value = -std::numeric_limits<T>::infinity();
};
template <class Operation, class T>
inline constexpr T known_identity_v = known_identity<Operation, T>::value;

} // namespace sycl
