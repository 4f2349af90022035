#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A colour picture: red, green and blue of each pixel, 0 to 1, in linear light.
struct Picture {
    int width = 0;
    int height = 0;
    std::array<std::vector<float>, 3> channels;
};

/// Reads the first three bands of a file of 8 or 16 bits a band, or one grey band, as sRGB. Throws ToolError
/// (unreadable_input).
Picture read_picture(const std::string& path);

/// The pixels of a picture as sRGB, 3 bytes each.
std::vector<std::uint8_t> srgb_pixels(const Picture& picture);

/// Writes a PNG of pixels of 3 bytes each, and a world file beside it if its place is given. `path` is any name that
/// GDAL takes. Throws std::runtime_error.
void write_picture(const std::string& path, int width, int height, const std::vector<std::uint8_t>& pixels,
                   const std::optional<std::array<double, 6>>& geotransform);
