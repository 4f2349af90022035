// Short vectors of numbers. Elements are reached by x() to w() and by index.
#pragma once

#include <cstddef>
#include <type_traits>

namespace sycl {

/// N elements of T. A vector of three takes the room and the alignment of four.
template <class T, int N>
class alignas(sizeof(T) * (N == 3 ? 4 : N)) vec {
    static_assert(std::is_arithmetic_v<T> && N >= 2 && N <= 4);

  public:
    using element_type = T;

    vec() = default;

    explicit constexpr vec(const T& value) : data_{} {
        for (int i = 0; i < N; ++i)
            data_[i] = value;
    }
    template <class... Numbers>
    requires(sizeof...(Numbers) == N && (std::is_arithmetic_v<Numbers> && ...)) constexpr vec(const Numbers&... numbers)
        : data_{static_cast<T>(numbers)...} {}

    static constexpr std::size_t size() noexcept { return N; }

    constexpr T& operator[](int index) { return data_[index]; }
    constexpr const T& operator[](int index) const { return data_[index]; }

#define HOSTSYCL_VEC_ELEMENT(name, index)                                                                              \
    constexpr T& name() requires(N > (index)) {                                                                        \
        return data_[index];                                                                                           \
    }                                                                                                                  \
    constexpr const T& name() const requires(N > (index)) {                                                            \
        return data_[index];                                                                                           \
    }
    HOSTSYCL_VEC_ELEMENT(x, 0)
    HOSTSYCL_VEC_ELEMENT(y, 1)
    HOSTSYCL_VEC_ELEMENT(z, 2)
    HOSTSYCL_VEC_ELEMENT(w, 3)
#undef HOSTSYCL_VEC_ELEMENT

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

    friend constexpr vec operator-(const vec& a) {
        vec result(T{});
        for (int i = 0; i < N; ++i)
            result.data_[i] = static_cast<T>(-a.data_[i]);
        return result;
    }

  private:
    T data_[N == 3 ? 4 : N];
};

/// Types whose bytes may travel to a device. Specialise it for a class that is so without being trivially copyable.
template <class T>
struct is_device_copyable : std::is_trivially_copyable<T> {};
template <class T>
inline constexpr bool is_device_copyable_v = is_device_copyable<T>::value;

} // namespace sycl
