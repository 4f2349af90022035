#include "grid.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <utility>

#include <ogr_spatialref.h>

void flip_rows(Grid& grid) {
    reverse_rows(grid.cells, grid.width);
    if (!grid.missing.empty())
        reverse_rows(grid.missing, grid.width);
    if (grid.geotransform) {
        auto& map = *grid.geotransform;
        map[3] += map[5] * grid.height;
        map[5] = -map[5];
    }
}

Extremes extremes(const Grid& grid) {
    Extremes found{std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity()};
    for (std::size_t i = 0; i < grid.size(); ++i)
        if (!grid.is_missing(i))
            found = {std::min(found.least, grid.cells[i]), std::max(found.greatest, grid.cells[i])};
    return found.least <= found.greatest ? found : Extremes{0, 0};
}

std::optional<CellSize> ground_cell_size(const Grid& grid) {
    if (!grid.geotransform)
        return grid.cell_size;
    const std::array<double, 6>& transform = *grid.geotransform;
    CellSize size{std::hypot(transform[1], transform[4]), std::hypot(transform[2], transform[5])};
    OGRSpatialReference system;
    if (!grid.coordinate_system.empty() && system.importFromWkt(grid.coordinate_system.c_str()) == OGRERR_NONE) {
        if (system.IsGeographic()) {
            // Lengths of an arc along the parallel and along the meridian, on the ellipsoid.
            const double latitude = (transform[3] + transform[4] * grid.width / 2 + transform[5] * grid.height / 2) *
                                    std::numbers::pi / 180;
            const double axis = system.GetSemiMajor();
            const double flattening = system.GetInvFlattening() > 0 ? 1 / system.GetInvFlattening() : 0;
            const double squared_eccentricity = flattening * (2 - flattening);
            const double w = 1 - squared_eccentricity * std::pow(std::sin(latitude), 2);
            const double radian = system.GetAngularUnits();
            size.x *= radian * axis * std::cos(latitude) / std::sqrt(w);
            size.y *= radian * axis * (1 - squared_eccentricity) / std::pow(w, 1.5);
        } else if (system.IsProjected() || system.IsLocal()) {
            const double metre = system.GetLinearUnits();
            size.x *= metre;
            size.y *= metre;
        }
    }
    if (!(size.x > 0 && size.y > 0 && std::isfinite(size.x) && std::isfinite(size.y)))
        return std::nullopt;
    return size;
}

Grid with_cells(const Grid& grid, Cells cells) {
    Grid result;
    result.width = grid.width;
    result.height = grid.height;
    result.cells = std::move(cells);
    result.missing = grid.missing;
    result.missing_value = grid.missing_value;
    result.geotransform = grid.geotransform;
    result.coordinate_system = grid.coordinate_system;
    result.unit = grid.unit;
    result.cell_size = grid.cell_size;
    result.was_south_up = grid.was_south_up;
    return result;
}
