#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "grid.hpp"

/// What becomes of cells without a value while a grid is worked on: they continue the ground around them smoothly, or
/// they count as 0, where no value means nothing there, or nobody looks at what they hold.
enum class Holes { are_filled, are_zero, are_left };

/// Reads the first band of a raster file. Anything that GDAL opens is taken, and EXR (first of the channels Y, Z, R, or
/// else the first one). Rows that run from south to north are turned. Throws ToolError (unreadable_input).
Grid read_grid(const std::string& path, Holes holes = Holes::are_filled);

/// What a file says about its grid beside the numbers.
struct GridRecord {
    std::string contents;
    std::vector<std::pair<std::string, std::string>> items;
    std::vector<std::string> creation_options; ///< NAME=VALUE; those that the format does not know are left out
};

/// Refuses, by throwing ToolError (usage), names of unknown formats and creation options that none of the formats
/// takes.
void check_grid_names(const std::vector<std::string>& paths, const std::vector<std::string>& creation_options);

/// Refuses, by throwing ToolError (unwritable_output), what the format of the name cannot hold.
void check_grid_fits(const std::string& path, const Grid& grid);

/// Bytes that the file takes at least; 0 where compression decides.
std::uint64_t least_file_size(const std::string& path, const Grid& grid,
                              const std::vector<std::string>& creation_options);

/// Writes a grid in the format of the name's extension: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr. Says what the
/// format makes of the values. `path` is any name that GDAL takes; the grid is used up. Throws std::runtime_error.
void write_grid(const std::string& path, Grid& grid, const GridRecord& record);
