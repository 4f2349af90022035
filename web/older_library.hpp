// What the C++20 library of Debian's Emscripten lacks, included before all else in that build.
#pragma once

#ifdef __cplusplus
#include <atomic>
#include <bit>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#if !defined(__cpp_lib_bit_cast)
namespace std {

template <class To, class From>
constexpr To bit_cast(const From& from) noexcept {
    static_assert(sizeof(To) == sizeof(From) && is_trivially_copyable_v<To> && is_trivially_copyable_v<From>);
    return __builtin_bit_cast(To, from);
}

} // namespace std
#endif

#if !defined(__cpp_lib_atomic_ref)
namespace std {

/// Always in the strictest order, which is the only one that WebAssembly has.
template <class T>
class atomic_ref {
  public:
    explicit atomic_ref(T& object) : object_(object) {}

    T load(memory_order) const noexcept {
        T value;
        __atomic_load(&object_, &value, __ATOMIC_SEQ_CST);
        return value;
    }
    void store(T value, memory_order) const noexcept { __atomic_store(&object_, &value, __ATOMIC_SEQ_CST); }
    T exchange(T value, memory_order) const noexcept {
        T before;
        __atomic_exchange(&object_, &value, &before, __ATOMIC_SEQ_CST);
        return before;
    }
    bool compare_exchange_strong(T& expected, T desired, memory_order) const noexcept {
        return __atomic_compare_exchange(&object_, &expected, &desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    }
    T fetch_add(T operand, memory_order order) const noexcept {
        T before = load(order);
        while (!compare_exchange_strong(before, static_cast<T>(before + operand), order)) {
        }
        return before;
    }

  private:
    T& object_;
};

} // namespace std
#endif

#if !defined(__cpp_lib_to_chars)
namespace std {

/// The shortest text that reads back as the same number.
template <class Number>
requires is_floating_point_v<Number> to_chars_result to_chars(char* first, char* last, Number value) {
    char text[32];
    int length = 0;
    for (int digits = 1; digits <= 17; ++digits) {
        length = snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
        if (static_cast<Number>(strtod(text, nullptr)) == value)
            break;
    }
    if (last - first < length)
        return {last, errc::value_too_large};
    memcpy(first, text, static_cast<size_t>(length));
    return {first + length, errc()};
}

} // namespace std
#endif
#endif
