#pragma once

#include <cstdint>
#include <vector>

#include "cells.hpp"

/// Gives the cells marked as missing the heights of a membrane that is fixed at the cells around them and free at the
/// edges of the grid: between their rims they run smoothly, and nowhere beyond the heights there. Other cells stay as
/// they are; at least one must not be missing. Takes time in proportion to the cells, however large the holes are.
///
/// The rule, in 32-bit floats throughout. Pull: a grid of half the size, rounded up, has the mean of those of the 2 x 2
/// cells that have a value; this repeats until no cell lacks one. Push, from the coarsest grid to the finest: cells
/// without a value get 9/16 of the coarse cell over them, 3/16 of its two nearer neighbours and 1/16 of the diagonal
/// one, all clamped to the grid, and are then relaxed: 16 times each becomes the mean of its four neighbours, clamped
/// to the grid, first where column plus row is even, then where it is odd.
void fill_holes(Cells& cells, const std::vector<std::uint8_t>& missing, int width, int height);
