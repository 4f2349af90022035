#pragma once

#include <optional>

#include "grid.hpp"
#include "lighting.hpp"
#include "palettes.hpp"

/// Light and exaggeration of a shaded picture.
struct ShadeOptions {
    SunPosition sun;
    double exaggeration = 1;      ///< factor on all heights
    double height_unit = 1;       ///< metres in one unit of height
    bool tinted = true;           ///< colours by height, else grey
    std::optional<Extremes> span; ///< heights of the lowest and the highest colour; those of the grid if not given
};

/// What ground of the colours by height reflects, from the lowest to the highest cell or over the span. The grid must
/// stay as long as the function.
SurfaceOfRows tinted_surface(const Grid& grid, std::optional<Extremes> span);

// Drawings of a grid, with a pixel a cell. Cells without a value are white. Everything must stay as long as the
// drawing.

/// The grid in the light of day.
Drawing shade_relief(Host& host, const Grid& grid, CellSize cell, const ShadeOptions& options);

/// The values in the colours of a palette, from the least to the greatest or over the span.
Drawing shade_values(const Grid& grid, const Palette& palette, std::optional<Extremes> span = {});

/// after - before: red where material was lost, blue where it was gained, white where nothing changed or where a cell
/// has no value. `range` is the change that takes the full colour; both grids have the same size.
Drawing shade_difference(const Grid& before, const Grid& after, double range);

/// Its colours, from the greatest loss to the greatest gain.
Palette difference_palette();

/// Least and greatest of after - before over the cells that have a value in both.
struct Change {
    double least, greatest;
};
Change measure_change(const Grid& before, const Grid& after);
