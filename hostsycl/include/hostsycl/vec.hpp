// Short vectors of numbers. Swizzles by name are not offered; elements are reached by x() to w() and by index.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <type_traits>

namespace sycl {

template <class T, int N>
class vec;

enum class rounding_mode { automatic, rte, rtz, rtp, rtn };

namespace detail {

template <class T>
struct vec_size : std::integral_constant<int, 1> {};
template <class T, int N>
struct vec_size<vec<T, N>> : std::integral_constant<int, N> {};

template <class... Parts>
inline constexpr int total_size = (0 + ... + vec_size<Parts>::value);

/// The signed integer as wide as T: what comparisons of vec<T, N> give, -1 for true and 0 for false.
template <class T>
using mask_element = std::conditional_t<
    sizeof(T) == 1, std::int8_t,
    std::conditional_t<sizeof(T) == 2, std::int16_t, std::conditional_t<sizeof(T) == 4, std::int32_t, std::int64_t>>>;

} // namespace detail

/// N elements of T. A vector of three takes the room and the alignment of four.
template <class T, int N>
class alignas(sizeof(T) * (N == 3 ? 4 : N)) vec {
    static_assert(std::is_arithmetic_v<T>);
    static_assert(N == 1 || N == 2 || N == 3 || N == 4 || N == 8 || N == 16);

  public:
    using element_type = T;
    using value_type = T;

    vec() = default;

    explicit(N > 1) constexpr vec(const T& value) : data_{} {
        for (int i = 0; i < N; ++i)
            data_[i] = value;
    }

    /// From scalars and shorter vectors that together have N elements.
    template <class First, class Second, class... Rest>
    requires(detail::total_size<First, Second, Rest...> == N) constexpr vec(const First& first, const Second& second,
                                                                            const Rest&... rest)
        : data_{} {
        int next = 0;
        append(next, first);
        append(next, second);
        (append(next, rest), ...);
    }

    constexpr operator T() const requires(N == 1) { return data_[0]; }

    static constexpr std::size_t byte_size() noexcept { return sizeof(vec); }
    static constexpr std::size_t size() noexcept { return N; }
    static constexpr std::size_t get_size() noexcept { return byte_size(); }
    static constexpr std::size_t get_count() noexcept { return size(); }

    constexpr T& operator[](int index) { return data_[index]; }
    constexpr const T& operator[](int index) const { return data_[index]; }

#define HOSTSYCL_VEC_ELEMENT(name, index)                                                                              \
    constexpr T& name() requires(N > index) {                                                                          \
        return data_[index];                                                                                           \
    }                                                                                                                  \
    constexpr const T& name() const requires(N > index) {                                                              \
        return data_[index];                                                                                           \
    }
    HOSTSYCL_VEC_ELEMENT(x, 0)
    HOSTSYCL_VEC_ELEMENT(y, 1)
    HOSTSYCL_VEC_ELEMENT(z, 2)
    HOSTSYCL_VEC_ELEMENT(w, 3)
    HOSTSYCL_VEC_ELEMENT(r, 0)
    HOSTSYCL_VEC_ELEMENT(g, 1)
    HOSTSYCL_VEC_ELEMENT(b, 2)
    HOSTSYCL_VEC_ELEMENT(a, 3)
#undef HOSTSYCL_VEC_ELEMENT

    /// Element by element as static_cast does it; `rounding` other than automatic is not offered.
    template <class To, rounding_mode rounding = rounding_mode::automatic>
    constexpr vec<To, N> convert() const {
        static_assert(rounding == rounding_mode::automatic ||
                      (rounding == rounding_mode::rtz && std::is_integral_v<To>));
        vec<To, N> result(To{});
        for (int i = 0; i < N; ++i)
            result[i] = static_cast<To>(data_[i]);
        return result;
    }

    /// The same bits as another vector type of the same size.
    template <class Other>
    Other as() const {
        static_assert(sizeof(Other) == sizeof(vec));
        return std::bit_cast<Other>(*this);
    }

    template <int... Indices>
    constexpr vec<T, static_cast<int>(sizeof...(Indices))> swizzle() const {
        return {data_[Indices]...};
    }

    void load(std::size_t offset, const T* source) {
        std::memcpy(data_, source + offset * N, sizeof(T) * N);
    }
    void store(std::size_t offset, T* target) const {
        std::memcpy(target + offset * N, data_, sizeof(T) * N);
    }

#define HOSTSYCL_VEC_BINARY(op)                                                                                        \
    friend constexpr vec operator op(const vec& a, const vec& b) {                                                     \
        vec result(T{});                                                                                               \
        for (int i = 0; i < N; ++i)                                                                                    \
            result.data_[i] = static_cast<T>(a.data_[i] op b.data_[i]);                                                \
        return result;                                                                                                 \
    }                                                                                                                  \
    friend constexpr vec operator op(const vec& a, const T& b) {                                                       \
        return a op vec(b);                                                                                            \
    }                                                                                                                  \
    friend constexpr vec operator op(const T& a, const vec& b) {                                                       \
        return vec(a) op b;                                                                                            \
    }                                                                                                                  \
    friend constexpr vec& operator op##=(vec& a, const vec& b) {                                                       \
        return a = a op b;                                                                                             \
    }                                                                                                                  \
    friend constexpr vec& operator op##=(vec& a, const T& b) {                                                         \
        return a = a op vec(b);                                                                                        \
    }
    HOSTSYCL_VEC_BINARY(+)
    HOSTSYCL_VEC_BINARY(-)
    HOSTSYCL_VEC_BINARY(*)
    HOSTSYCL_VEC_BINARY(/)
#undef HOSTSYCL_VEC_BINARY

#define HOSTSYCL_VEC_INTEGER_BINARY(op)                                                                                \
    friend constexpr vec operator op(const vec& a, const vec& b) requires std::is_integral_v<T> {                      \
        vec result(T{});                                                                                               \
        for (int i = 0; i < N; ++i)                                                                                    \
            result.data_[i] = static_cast<T>(a.data_[i] op b.data_[i]);                                                \
        return result;                                                                                                 \
    }                                                                                                                  \
    friend constexpr vec operator op(const vec& a, const T& b) requires std::is_integral_v<T> {                        \
        return a op vec(b);                                                                                            \
    }                                                                                                                  \
    friend constexpr vec operator op(const T& a, const vec& b) requires std::is_integral_v<T> {                        \
        return vec(a) op b;                                                                                            \
    }                                                                                                                  \
    friend constexpr vec& operator op##=(vec& a, const vec& b) requires std::is_integral_v<T> {                        \
        return a = a op b;                                                                                             \
    }                                                                                                                  \
    friend constexpr vec& operator op##=(vec& a, const T& b) requires std::is_integral_v<T> {                          \
        return a = a op vec(b);                                                                                        \
    }
    HOSTSYCL_VEC_INTEGER_BINARY(%)
    HOSTSYCL_VEC_INTEGER_BINARY(&)
    HOSTSYCL_VEC_INTEGER_BINARY(|)
    HOSTSYCL_VEC_INTEGER_BINARY(^)
    HOSTSYCL_VEC_INTEGER_BINARY(<<)
    HOSTSYCL_VEC_INTEGER_BINARY(>>)
#undef HOSTSYCL_VEC_INTEGER_BINARY

#define HOSTSYCL_VEC_COMPARE(op)                                                                                       \
    friend constexpr vec<detail::mask_element<T>, N> operator op(const vec& a, const vec& b) {                         \
        vec<detail::mask_element<T>, N> result(detail::mask_element<T>{});                                             \
        for (int i = 0; i < N; ++i)                                                                                    \
            result[i] = static_cast<detail::mask_element<T>>((a.data_[i] op b.data_[i]) ? -1 : 0);                     \
        return result;                                                                                                 \
    }                                                                                                                  \
    friend constexpr vec<detail::mask_element<T>, N> operator op(const vec& a, const T& b) {                           \
        return a op vec(b);                                                                                            \
    }                                                                                                                  \
    friend constexpr vec<detail::mask_element<T>, N> operator op(const T& a, const vec& b) {                           \
        return vec(a) op b;                                                                                            \
    }
    HOSTSYCL_VEC_COMPARE(==)
    HOSTSYCL_VEC_COMPARE(!=)
    HOSTSYCL_VEC_COMPARE(<)
    HOSTSYCL_VEC_COMPARE(>)
    HOSTSYCL_VEC_COMPARE(<=)
    HOSTSYCL_VEC_COMPARE(>=)
    HOSTSYCL_VEC_COMPARE(&&)
    HOSTSYCL_VEC_COMPARE(||)
#undef HOSTSYCL_VEC_COMPARE

    friend constexpr vec operator+(const vec& a) {
        return a;
    }
    friend constexpr vec operator-(const vec& a) {
        vec result(T{});
        for (int i = 0; i < N; ++i)
            result.data_[i] = static_cast<T>(-a.data_[i]);
        return result;
    }
    friend constexpr vec operator~(const vec& a) requires std::is_integral_v<T> {
        vec result(T{});
        for (int i = 0; i < N; ++i)
            result.data_[i] = static_cast<T>(~a.data_[i]);
        return result;
    }
    friend constexpr vec<detail::mask_element<T>, N> operator!(const vec& a) {
        return a == vec(T{});
    }

    friend constexpr vec& operator++(vec& a) {
        return a += T{1};
    }
    friend constexpr vec& operator--(vec& a) {
        return a -= T{1};
    }
    friend constexpr vec operator++(vec& a, int) {
        const vec before = a;
        a += T{1};
        return before;
    }
    friend constexpr vec operator--(vec& a, int) {
        const vec before = a;
        a -= T{1};
        return before;
    }

  private:
    template <class Number>
    requires std::is_arithmetic_v<Number>
    constexpr void append(int& next, const Number& value) {
        data_[next++] = static_cast<T>(value);
    }
    template <int M>
    constexpr void append(int& next, const vec<T, M>& part) {
        for (int i = 0; i < M; ++i)
            data_[next++] = part[i];
    }

    T data_[N == 3 ? 4 : N];
};

template <class T, class... Rest>
vec(T, Rest...) -> vec<T, static_cast<int>(1 + sizeof...(Rest))>;

#define HOSTSYCL_VEC_NAMES(type, name)                                                                                 \
    using name##2 = vec<type, 2>;                                                                                      \
    using name##3 = vec<type, 3>;                                                                                      \
    using name##4 = vec<type, 4>;                                                                                      \
    using name##8 = vec<type, 8>;                                                                                      \
    using name##16 = vec<type, 16>;
HOSTSYCL_VEC_NAMES(std::int8_t, char)
HOSTSYCL_VEC_NAMES(std::uint8_t, uchar)
HOSTSYCL_VEC_NAMES(std::int16_t, short)
HOSTSYCL_VEC_NAMES(std::uint16_t, ushort)
HOSTSYCL_VEC_NAMES(std::int32_t, int)
HOSTSYCL_VEC_NAMES(std::uint32_t, uint)
HOSTSYCL_VEC_NAMES(std::int64_t, long)
HOSTSYCL_VEC_NAMES(std::uint64_t, ulong)
HOSTSYCL_VEC_NAMES(float, float)
HOSTSYCL_VEC_NAMES(double, double)
#undef HOSTSYCL_VEC_NAMES

/// Types whose bytes may travel to a device. Specialise it for a class that is so without being trivially copyable.
template <class T>
struct is_device_copyable : std::is_trivially_copyable<T> {};
template <class T>
inline constexpr bool is_device_copyable_v = is_device_copyable<T>::value;

} // namespace sycl
