#pragma once

#include <string>

#include "grid.hpp"

/// Grids that the steps of a pipeline hand on without a file: their names begin with '@'. Without a pipeline such a
/// name is that of a file.
void allow_grid_names();
bool is_grid_name(const std::string& path);

void keep_grid(const std::string& name, Grid grid);
/// Throws ToolError (usage) if there is none.
const Grid& kept_grid(const std::string& name);
void forget_grid(const std::string& name);
