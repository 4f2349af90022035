// Small numeric rules that kernels share.
#pragma once

#include <bit>
#include <cstdint>

namespace tarn {

/// The smaller and the larger of two values, as selects: `a` where the comparison does not hold, NaN included.
template <class T>
inline T minimum(T a, T b) {
    return b < a ? b : a;
}

template <class T>
inline T maximum(T a, T b) {
    return a < b ? b : a;
}

/// `value` if `kept`, else 0, whatever the value. Without a branch: compilers would move into it what only the value is
/// worked out from, loads as well, and then not vectorise the loop around it.
inline float kept_if(bool kept, float value) {
    return std::bit_cast<float>(std::bit_cast<std::uint32_t>(value) & (0u - static_cast<std::uint32_t>(kept)));
}

/// A condition as 32 bits, all set or none: what loops over vectors combine with bitwise operations and blend by, where
/// a chain of selects would be turned into branches.
using Mask = std::uint32_t;

inline Mask mask_of(bool condition) {
    return 0u - static_cast<Mask>(condition);
}

inline std::uint32_t blend(Mask mask, std::uint32_t set, std::uint32_t clear) {
    return (set & mask) | (clear & ~mask);
}

inline float blend(Mask mask, float set, float clear) {
    return std::bit_cast<float>(blend(mask, std::bit_cast<std::uint32_t>(set), std::bit_cast<std::uint32_t>(clear)));
}

inline int clamp_index(int index, int size) {
    return minimum(maximum(index, 0), size - 1);
}

} // namespace tarn
