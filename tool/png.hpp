#pragma once

#include <cstdint>
#include <functional>
#include <vector>

/// A picture that is drawn a few rows at a time, so that it need not exist as a whole.
struct Drawing {
    int width = 0, height = 0;
    /// Of 8 bits: 3 are red, green and blue, 1 is grey.
    int channels = 3;
    /// Draws `rows` rows from `first` on. Several threads call it at once.
    std::function<void(int first, int rows, std::uint8_t* pixels)> draw;
    /// Rows that are drawn after one call of `prepare`, which is for what only one thread may do; 0 for all rows.
    int band_rows = 0;
    std::function<void(int first, int rows)> prepare = {};
};

/// The pieces of a PNG file, in their order.
using PngPieces = std::vector<std::vector<std::uint8_t>>;

/// Draws a picture and compresses it, on all cores.
PngPieces encode_png(const Drawing& drawing);
