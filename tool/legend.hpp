#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "grid.hpp"
#include "palettes.hpp"

/// A picture of 3 bytes a pixel.
struct Pixels {
    int width, height;
    std::vector<std::uint8_t> bytes;
};

/// Adds a strip below a picture: the palette with the values that its ends and its middle stand for.
Pixels with_legend(Pixels picture, const Palette& palette, Extremes span, const std::string& unit);
