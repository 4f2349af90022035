#include "common_options.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>

#include "message.hpp"
#include "shade_preview.hpp"

namespace {

constexpr int days_of_months[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

/// Two numbers of one or two digits with `separator` between them.
std::optional<std::pair<int, int>> parse_pair(const std::string& text, char separator) {
    int first = 0, second = 0, end = 0;
    char between = 0;
    if (std::sscanf(text.c_str(), "%2d%c%2d%n", &first, &between, &second, &end) != 3 || between != separator ||
        end != static_cast<int>(text.size()) || first < 0 || second < 0)
        return std::nullopt;
    return std::pair{first, second};
}

bool is_day(int month, int day) {
    return month >= 1 && month <= 12 && day >= 1 && (day <= days_of_months[month - 1] || (month == 2 && day == 29));
}

} // namespace

void CommonOptions::add_device(Command& command) {
    command.text("--device", device, "device", "ID", "Identity string of a device, from `tarn devices`, or cpu")
        .advanced();
}

void CommonOptions::add_scale(Command& command) {
    command.number("--cell-size", cell_size, above_0, "metres", "Size of a cell on the ground")
        .otherwise("from the file, else 1");
    command.number("--height-unit", height_unit, above_0, "metres", "Metres in one unit of height")
        .otherwise("from the file, else 1");
}

void CommonOptions::add_preview(Command& command, const std::string& help) {
    command.picture("--preview", preview, help);
}

CellSize CommonOptions::cell_of(const Grid& grid) const {
    if (cell_size > 0)
        return {cell_size, cell_size};
    if (const auto size = ground_cell_size(grid))
        return *size;
    print_note("the file does not say how large a cell is; 1 m is used (--cell-size)");
    return {1, 1};
}

double CommonOptions::height_unit_of(const Grid& grid) const {
    if (height_unit > 0)
        return height_unit;
    if (grid.unit == "ft" || grid.unit == "foot" || grid.unit == "feet")
        return 0.3048;
    if (grid.unit == "us-ft" || grid.unit == "US survey foot")
        return 1200.0 / 3937.0;
    return 1;
}

void CommonOptions::draw_preview(Outputs& outputs, Host& host, const Grid& grid, std::optional<CellSize> cell) const {
    if (preview.empty())
        return;
    ShadeOptions shade;
    shade.height_unit = height_unit_of(grid);
    outputs.add_picture(preview, grid, shade_relief(host, grid, cell ? *cell : cell_of(grid), shade));
}

void add_range_option(Command& command, std::vector<float>& range) {
    constexpr double most = static_cast<double>(std::numeric_limits<float>::max());
    command
        .number("--range", range, {-most, most}, "",
                "Values of the lowest and the highest colour, so that pictures compare", 2)
        .otherwise("those of the grid");
}

std::optional<Extremes> span_of(const std::vector<float>& range) {
    if (range.empty())
        return std::nullopt;
    if (range[1] <= range[0])
        throw ToolError(ExitCode::usage, "--range wants the lower value first");
    return Extremes{range[0], range[1]};
}

void add_file_options(Command& command, bool writes_grids, bool draws) {
    if (writes_grids)
        command.texts("--co", command.outputs().creation_options, "NAME=VALUE",
                      "Creation option of GDAL's driver for the grids; may be repeated");
    if (draws)
        command.flag("--world-file", command.outputs().with_world_files,
                     "Also write where a picture lies, as a .pgw beside it");
}

double square_side(CellSize cell) {
    const double side = std::sqrt(cell.x * cell.y);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y, side));
    return side;
}

std::optional<double> number_of(const std::string& text) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [after, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && after == end ? std::optional(number) : std::nullopt;
}

void note_if_unchanged(const Cells& before, const Cells& after, const std::string& hint) {
    if (before == after)
        print_note("nothing has changed: " + hint);
}

std::string check_day(const std::string& text) {
    const auto pair = parse_pair(text, '-');
    return pair && is_day(pair->first, pair->second) ? "" : "'" + text + "' is not a day of the form MM-DD";
}

std::string check_time(const std::string& text) {
    const auto pair = parse_pair(text, ':');
    return pair && pair->first < 24 && pair->second < 60 ? "" : "'" + text + "' is not a time of the form HH:MM";
}

int day_of_year(const std::string& text) {
    const auto [month, day] = parse_pair(text, '-').value_or(std::pair{1, 1});
    return std::accumulate(days_of_months, days_of_months + month - 1, day);
}

double hour_of_day(const std::string& text) {
    const auto [hour, minute] = parse_pair(text, ':').value_or(std::pair{0, 0});
    return hour + minute / 60.0;
}
