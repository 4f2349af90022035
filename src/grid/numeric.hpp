// Small numeric rules that kernels share.
#pragma once

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

inline int clamp_index(int index, int size) {
    return minimum(maximum(index, 0), size - 1);
}

} // namespace tarn
