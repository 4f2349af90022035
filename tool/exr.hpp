#pragma once

#include <string>

#include "grid.hpp"

bool is_exr_name(const std::string& path);

/// Both throw std::exception with OpenEXR's message. Cells without a value are NaN in the file.
Grid read_exr(const std::string& path);
void write_exr(const std::string& path, const Grid& grid);
