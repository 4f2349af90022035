#pragma once

#include <string>

#include "grid.hpp"
#include "palettes.hpp"
#include "png.hpp"

/// Adds a strip below a drawing in colour: the palette with the values that its ends and its middle stand for.
Drawing with_legend(const Drawing& drawing, const Palette& palette, Extremes span, const std::string& unit);
