#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "cells.hpp"
#include "png.hpp"

/// A colour picture: red, green and blue of each pixel, 0 to 1, in linear light.
struct Picture {
    int width = 0;
    int height = 0;
    std::array<Cells, 3> channels;
};

/// Reads the first three bands of a file of 8 or 16 bits a band, or one grey band, as sRGB. Throws ToolError
/// (unreadable_input).
Picture read_picture(const std::string& path);

/// Draws a picture in sRGB. The picture must stay as long as the drawing.
Drawing draw_picture(const Picture& picture);

/// Writes a PNG, and a world file beside it if its place is given. `path` is any name that GDAL takes. Throws
/// std::runtime_error.
void write_picture(const std::string& path, const PngPieces& png,
                   const std::optional<std::array<double, 6>>& geotransform);
