// Function objects for reductions and group algorithms, and what is known of their identities.
#pragma once

#include <functional>
#include <limits>
#include <type_traits>

namespace sycl {

template <class T = void>
using plus = std::plus<T>;
template <class T = void>
using multiplies = std::multiplies<T>;
template <class T = void>
using bit_and = std::bit_and<T>;
template <class T = void>
using bit_or = std::bit_or<T>;
template <class T = void>
using bit_xor = std::bit_xor<T>;
template <class T = void>
using logical_and = std::logical_and<T>;
template <class T = void>
using logical_or = std::logical_or<T>;

template <class T = void>
struct minimum {
    constexpr T operator()(const T& a, const T& b) const { return b < a ? b : a; }
};
template <>
struct minimum<void> {
    template <class T>
    constexpr T operator()(const T& a, const T& b) const {
        return b < a ? b : a;
    }
};
template <class T = void>
struct maximum {
    constexpr T operator()(const T& a, const T& b) const { return a < b ? b : a; }
};
template <>
struct maximum<void> {
    template <class T>
    constexpr T operator()(const T& a, const T& b) const {
        return a < b ? b : a;
    }
};

namespace detail {

template <class Operation, template <class> class Template, class T>
inline constexpr bool is_operation =
    std::is_same_v<Operation, Template<T>> || std::is_same_v<Operation, Template<void>>;

template <class Operation, class T>
inline constexpr bool is_zero_identity = is_operation<Operation, plus, T> || is_operation<Operation, bit_or, T> ||
                                         is_operation<Operation, bit_xor, T> || is_operation<Operation, logical_or, T>;
template <class Operation, class T>
inline constexpr bool is_one_identity =
    is_operation<Operation, multiplies, T> || is_operation<Operation, logical_and, T>;

template <class T>
constexpr T highest() {
    if constexpr (std::numeric_limits<T>::has_infinity)
        return std::numeric_limits<T>::infinity();
    else
        return std::numeric_limits<T>::max();
}
template <class T>
constexpr T lowest() {
    if constexpr (std::numeric_limits<T>::has_infinity)
        return -std::numeric_limits<T>::infinity();
    else
        return std::numeric_limits<T>::lowest();
}

} // namespace detail

template <class Operation, class T>
struct has_known_identity
    : std::bool_constant<std::is_arithmetic_v<T> &&
                         (detail::is_zero_identity<Operation, T> || detail::is_one_identity<Operation, T> ||
                          detail::is_operation<Operation, bit_and, T> || detail::is_operation<Operation, minimum, T> ||
                          detail::is_operation<Operation, maximum, T>)> {};
template <class Operation, class T>
inline constexpr bool has_known_identity_v = has_known_identity<Operation, T>::value;

template <class Operation, class T>
requires has_known_identity_v<Operation, T>
struct known_identity {
  private:
    static constexpr T find() {
        if constexpr (detail::is_zero_identity<Operation, T>)
            return T{0};
        else if constexpr (detail::is_one_identity<Operation, T>)
            return T{1};
        else if constexpr (detail::is_operation<Operation, bit_and, T>)
            return static_cast<T>(~T{0});
        else if constexpr (detail::is_operation<Operation, minimum, T>)
            return detail::highest<T>();
        else
            return detail::lowest<T>();
    }

  public:
    static constexpr T value = find();
};
template <class Operation, class T>
inline constexpr T known_identity_v = known_identity<Operation, T>::value;

} // namespace sycl
