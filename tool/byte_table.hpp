#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>

/// A function that rises from 0 to 255 as its argument goes from 0 to 1, in a table that gives exactly its values. It
/// must not step twice within 1/4096. Arguments are clamped; NaN counts as 0.
class ByteTable {
  public:
    explicit ByteTable(std::uint8_t (*function)(float)) {
        for (std::size_t bin = 0; bin <= bins; ++bin) {
            Entry& entry = entries_[bin];
            const auto place = [](std::size_t i) {
                return static_cast<float>(i) / bins;
            };
            entry.value = function(place(bin));
            // Floats above 0 are in the order of their bits.
            auto below = std::bit_cast<std::uint32_t>(place(bin)), above = std::bit_cast<std::uint32_t>(place(bin + 1));
            if (bin == bins || function(place(bin + 1)) == entry.value)
                continue;
            while (below + 1 < above) {
                const std::uint32_t middle = below + (above - below) / 2;
                (function(std::bit_cast<float>(middle)) == entry.value ? below : above) = middle;
            }
            entry.step = std::bit_cast<float>(above);
        }
    }

    std::uint8_t operator()(float argument) const {
        const float clamped = argument > 0.0f ? std::min(argument, 1.0f) : 0.0f;
        const Entry& entry = entries_[static_cast<std::size_t>(clamped * bins)];
        return static_cast<std::uint8_t>(entry.value + (clamped >= entry.step ? 1 : 0));
    }

  private:
    static constexpr std::size_t bins = 4096;
    struct Entry {
        float step = std::numeric_limits<float>::infinity(); ///< where the next value begins, if it is in this bin
        std::int32_t value = 0;
    };
    std::array<Entry, bins + 1> entries_;
};
