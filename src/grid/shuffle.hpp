// Random order and random directions that the host draws. `std::mt19937` is the same everywhere, the draws of the
// standard's distributions and of `std::shuffle` are not: hence a draw of our own.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"

namespace tarn {

/// A whole number from 0 to `last`, all equally likely: the generator's output modulo the count of numbers, drawn again
/// where the output lies in the last, incomplete round.
inline std::uint32_t draw_up_to(std::mt19937& generator, std::uint32_t last) {
    const std::uint32_t count = last + 1u;
    if (count == 0)
        return static_cast<std::uint32_t>(generator()); // all 2^32 numbers
    const std::uint32_t last_round = 0u - count;        // where the last complete one may begin
    for (;;) {
        const auto output = static_cast<std::uint32_t>(generator());
        const std::uint32_t number = output % count;
        if (output - number <= last_round)
            return number;
    }
}

/// Puts fewer than 2^32 values into random order: R. A. Fisher's and F. Yates' shuffle, from the front. The places are
/// drawn some time before they are needed: with millions of values most of them lie outside the cache.
template <class Values>
void shuffle(Values& values, std::mt19937& generator) {
    constexpr std::size_t ahead = 64;
    std::array<std::uint32_t, ahead> places;
    for (std::size_t first = 1; first < values.size(); first += ahead) {
        const std::size_t count = std::min(ahead, values.size() - first);
        for (std::size_t k = 0; k < count; ++k) {
            places[k] = draw_up_to(generator, static_cast<std::uint32_t>(first + k));
            prefetch_for_write(&values[places[k]]);
        }
        for (std::size_t k = 0; k < count; ++k)
            if (places[k] != first + k)
                std::swap(values[first + k], values[places[k]]);
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
