// Variants of a kernel by a flag that is known at run time only.
#pragma once

#include <type_traits>
#include <utility>

namespace tarn {

/// Calls `work(constant)`, with std::true_type where `flag` is set and std::false_type where it is not.
template <class Work>
decltype(auto) with_constant(bool flag, Work&& work) {
    if (flag)
        return std::forward<Work>(work)(std::true_type{});
    return std::forward<Work>(work)(std::false_type{});
}

} // namespace tarn
