// Small numeric rules that kernels share.
#pragma once

#include <bit>
#include <cstdint>

#include <sycl/sycl.hpp>

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

/// Written out, so that every SYCL implementation rounds alike.
inline float length(float x, float y) {
    return sycl::sqrt(x * x + y * y);
}

inline float length(float x, float y, float z) {
    return sycl::sqrt(x * x + y * y + z * z);
}

inline int clamp_index(int index, int size) {
    return minimum(maximum(index, 0), size - 1);
}

} // namespace tarn
