// Work expansion: many parts' work-items numbered through, each of which finds its part in the running sums.
#pragma once

#include <cstdint>

namespace tarn {

/// The first of the running sums from number `first` to `last`, both included, that is above `key`, or else `last`. A
/// part without work-items has the sum of the one before it and is never found.
template <class Sum>
inline std::uint32_t first_above(const Sum* sums, Sum key, std::uint32_t first, std::uint32_t last) {
    while (first < last) {
        const std::uint32_t middle = first + (last - first) / 2;
        if (key < sums[middle])
            last = middle;
        else
            first = middle + 1;
    }
    return first;
}

} // namespace tarn
