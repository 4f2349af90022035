#pragma once

#include <optional>
#include <string>
#include <vector>

#include "command.hpp"
#include "grid.hpp"
#include "host.hpp"

/// What most commands have in common: the device, the scale of the grid, and the picture of the result.
struct CommonOptions {
    std::string device = "cpu";
    double cell_size = 0;   ///< metres; 0 for what the file says
    double height_unit = 0; ///< metres in one unit of height; 0 for what the file says
    std::string preview;

    void add_device(Command& command);
    void add_scale(Command& command);
    void add_preview(Command& command, const std::string& help = "Also draw the result as a shaded picture");

    /// What the user gave, else what the file says, else 1.
    CellSize cell_of(const Grid& grid) const;
    double height_unit_of(const Grid& grid) const;

    /// Hands over a shaded picture of the grid, if one is asked for.
    void draw_preview(Outputs& outputs, Host& host, const Grid& grid, std::optional<CellSize> cell = {}) const;
};

/// `--range`: the values that the ends of the colours stand for. None or two numbers.
void add_range_option(Command& command, std::vector<float>& range);
/// Throws ToolError (usage) if the second is not above the first.
std::optional<Extremes> span_of(const std::vector<float>& range);

/// The options of all commands that write files: `--co` of those that write grids, `--world-file` of those that draw.
void add_file_options(Command& command, bool writes_grids = true, bool draws = true);

/// The side of the square of the same area, with a note if a cell is clearly oblong: the library's cells are squares.
double square_side(CellSize cell);

/// The number that a text is as a whole; nothing if it is none, as the name of a grid that may stand in its place.
std::optional<double> number_of(const std::string& text);

/// Says that a run has changed nothing, if so, and what to try.
void note_if_unchanged(const Cells& before, const Cells& after, const std::string& hint);

/// What is wrong with a day as MM-DD or with a time as HH:MM; empty if nothing is.
std::string check_day(const std::string& text);
std::string check_time(const std::string& text);

/// From 1 to 365, of a day that check_day accepts; the 29th of February counts as the 1st of March.
int day_of_year(const std::string& day);
/// From 0 to 24, of a time that check_time accepts.
double hour_of_day(const std::string& time);
