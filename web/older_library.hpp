// What the C++20 library of Debian's Emscripten lacks, included before all else in that build.
#pragma once

#ifdef __cplusplus
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
