#pragma once

#include <CLI/CLI.hpp>

#include "grid.hpp"

/// Accepts finite numbers from `lowest` to `highest`; NaN passes CLI11's own range.
CLI::Validator finite_number(double lowest, double highest);

/// Accepts finite numbers above 0.
CLI::Validator positive_number();

/// Accepts file names of pictures.
CLI::Validator png_name();

/// The scale of a grid: what the user gave (0 if nothing), else what the file says.
struct GroundScale {
    double cell_size = 0;   ///< metres
    double height_unit = 0; ///< metres in one unit of height

    void add_options(CLI::App& command);

    CellSize cell_of(const Grid& grid) const;
    double height_unit_of(const Grid& grid) const;
};
