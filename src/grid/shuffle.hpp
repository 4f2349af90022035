// Random order and random directions that the host draws. `std::mt19937` is the same everywhere, the draws of the
// standard's distributions and of `std::shuffle` are not: hence a draw of our own.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>

#include <sycl/sycl.hpp>

namespace tarn {

/// A whole number from 0 to `last`, all equally likely: the generator's output modulo the count of numbers, drawn again
/// where the output lies in the last, incomplete round.
inline std::uint32_t draw_up_to(std::mt19937& generator, std::uint32_t last) {
    constexpr std::uint32_t most = std::numeric_limits<std::uint32_t>::max();
    if (last == most)
        return static_cast<std::uint32_t>(generator());
    const std::uint32_t count = last + 1u;
    const std::uint32_t complete = most % count == last ? most : most / count * count - 1u;
    for (;;) {
        const std::uint32_t number = static_cast<std::uint32_t>(generator());
        if (number <= complete)
            return number % count;
    }
}

/// Puts fewer than 2^32 values into random order: R. A. Fisher's and F. Yates' shuffle, from the front.
template <class Values>
void shuffle(Values& values, std::mt19937& generator) {
    for (std::size_t i = 1; i < values.size(); ++i) {
        const std::size_t j = draw_up_to(generator, static_cast<std::uint32_t>(i));
        if (j != i)
            std::swap(values[i], values[j]);
    }
}

/// 32 unit vectors all around in random order.
inline std::array<sycl::vec<float, 2>, 32> random_directions(std::uint32_t seed) {
    constexpr float step = 0.19634955f; // 2 pi / 32
    std::array<sycl::vec<float, 2>, 32> directions;
    for (std::size_t i = 0; i < directions.size(); ++i) {
        const float angle = static_cast<float>(i) * step;
        directions[i] = sycl::vec<float, 2>(std::cos(angle), std::sin(angle));
    }
    std::mt19937 generator(seed);
    shuffle(directions, generator);
    return directions;
}

} // namespace tarn
