#pragma once

#include <array>
#include <string>
#include <vector>

/// Red, green and blue from 0 to 255, in sRGB.
using Colour = std::array<double, 3>;

/// Colours for a span of values, at even steps from the least to the greatest.
struct Palette {
    std::string name;
    std::vector<Colour> colours;
};

/// heights, sunlight, amounts, water, change, shade.
const std::vector<Palette>& palettes();
const Palette& palette(const std::string& name);

Colour mix(const Colour& a, const Colour& b, double weight);

/// The colour at a fraction of the span, from 0 to 1.
Colour colour_at(const Palette& palette, double fraction);
