#pragma once

#include <CLI/CLI.hpp>

#include "grid.hpp"

/// Accepts finite numbers from `lowest` to `highest`; NaN passes CLI11's own range.
CLI::Validator finite_number(double lowest, double highest);

/// Accepts finite numbers above 0.
CLI::Validator positive_number();

/// Accepts file names of pictures.
CLI::Validator png_name();

/// Accept a day as MM-DD and a time as HH:MM.
CLI::Validator month_and_day();
CLI::Validator hour_and_minute();

/// From 1 to 365, of a day that month_and_day accepts; the 29th of February counts as the 1st of March.
int day_of_year(const std::string& month_and_day);
/// From 0 to 24, of a time that hour_and_minute accepts.
double hour_of_day(const std::string& hour_and_minute);

/// The scale of a grid: what the user gave (0 if nothing), else what the file says.
struct GroundScale {
    double cell_size = 0;   ///< metres
    double height_unit = 0; ///< metres in one unit of height

    void add_options(CLI::App& command);

    CellSize cell_of(const Grid& grid) const;
    double height_unit_of(const Grid& grid) const;
};
