#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A grid of floats as the library takes it (row after row, no gaps), with what its file said about it.
struct Grid {
    int width = 0;
    int height = 0;
    std::vector<float> cells;

    /// 1 where the file has no value; empty if every cell has one. Such cells hold a stand-in to work on, and are
    /// written without a value again.
    std::vector<std::uint8_t> missing;
    std::optional<double> missing_value; ///< the number that stands for "no value" in the file, if there is one

    std::optional<std::array<double, 6>> geotransform; ///< GDAL's affine map from (column, row) to map coordinates
    std::string coordinate_system;                     ///< WKT, or empty
    std::string unit;                                  ///< of the values, as the file names it, or empty

    /// Largest value of the file's integer type, or 0 for a file of floating-point numbers.
    double integer_maximum = 0;

    std::size_t size() const { return cells.size(); }
    float& at(int x, int y) { return cells[index(x, y)]; }
    float at(int x, int y) const { return cells[index(x, y)]; }
    bool is_missing(std::size_t i) const { return !missing.empty() && missing[i] != 0; }

  private:
    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
    }
};

struct CellSize {
    double x, y; ///< metres
};

/// Reads the first band of a raster file. Anything that GDAL opens is taken, and EXR (first of the channels Y, Z, R, or
/// else the first one). Cells without a value get `stand_in`, or else the lowest value of the other cells. Throws
/// ToolError (unreadable_input).
Grid read_grid(const std::string& path, std::optional<float> stand_in = std::nullopt);

/// Both refuse, before any work is done, a name that could not be written to later: a grid's with an unknown extension
/// (usage), and any in a folder that does not exist (unwritable_output).
void check_grid_name(const std::string& path);
void check_folder(const std::string& path);

/// Writes a grid in the format of the file name's extension: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr. Says what
/// the format makes of the values. Throws ToolError.
void write_grid(const std::string& path, const Grid& grid);

/// Size of a cell on the ground, if the grid is georeferenced. Degrees are turned into metres at the grid's centre.
std::optional<CellSize> ground_cell_size(const Grid& grid);

/// A colour picture: red, green and blue of each pixel, 0 to 1, in linear light.
struct Picture {
    int width = 0;
    int height = 0;
    std::array<std::vector<float>, 3> channels;
};

/// Reads the first three bands of a file of 8 or 16 bits a band, or one grey band, as sRGB. Throws ToolError
/// (unreadable_input).
Picture read_picture(const std::string& path);

/// Writes a picture with 8 bits a channel, as sRGB. Throws ToolError.
void write_picture(const std::string& path, const Picture& picture);

/// Writes an 8-bit picture, grey (1 channel) or RGB (3 channels, interleaved). Throws ToolError.
void write_picture(const std::string& path, int width, int height, int channels,
                   const std::vector<std::uint8_t>& pixels);
