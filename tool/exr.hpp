#pragma once

#include <string>

#include "grid.hpp"
#include "grid_file.hpp"

bool is_exr_name(const std::string& path);

/// Both throw std::exception with OpenEXR's message. Cells without a value are NaN in the file. Attributes keep the
/// place on the map (geoTransform and coordinateSystem, as GDAL writes them), the size of a cell on the ground
/// (cellSize, metres), unit, description and the items of the record.
Grid read_exr(const std::string& path);
void write_exr(const std::string& path, Grid& grid, const GridRecord& record);
