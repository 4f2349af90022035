#include "named_grids.hpp"

#include <map>
#include <utility>

#include "message.hpp"

namespace {

bool are_allowed = false;

std::map<std::string, Grid>& grids() {
    static std::map<std::string, Grid> kept;
    return kept;
}

} // namespace

void allow_grid_names() {
    are_allowed = true;
}

bool is_grid_name(const std::string& path) {
    return are_allowed && path.starts_with("@");
}

void keep_grid(const std::string& name, Grid grid) {
    grid.integer_maximum = 0; // as a file of floats has it
    grids().insert_or_assign(name, std::move(grid));
}

const Grid& kept_grid(const std::string& name) {
    const auto grid = grids().find(name);
    if (grid == grids().end())
        throw ToolError(ExitCode::usage, "no step has made a grid '" + name + "'");
    return grid->second;
}

void forget_grid(const std::string& name) {
    grids().erase(name);
}
