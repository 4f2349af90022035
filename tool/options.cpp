#include "options.hpp"

#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>
#include <optional>
#include <utility>

#include "message.hpp"

namespace {

CLI::Validator number_where(const std::string& description, bool (*accept)(double, double, double), double lowest,
                            double highest) {
    return CLI::Validator(
        [=](const std::string& text) -> std::string {
            double value = 0;
            if (!CLI::detail::lexical_cast(text, value) || !std::isfinite(value))
                return "'" + text + "' is not a finite number";
            return accept(value, lowest, highest) ? "" : "'" + text + "' is not " + description;
        },
        "");
}

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

CLI::Validator finite_number(double lowest, double highest) {
    return number_where(
        format_text("from %g to %g", lowest, highest),
        [](double value, double low, double high) { return value >= low && value <= high; }, lowest, highest);
}

CLI::Validator positive_number() {
    // Below the smallest normal float a parameter of the library would be 0 or lose its digits.
    return number_where(
        "a number above 0", [](double value, double low, double high) { return value >= low && value <= high; },
        static_cast<double>(std::numeric_limits<float>::min()), static_cast<double>(std::numeric_limits<float>::max()));
}

CLI::Validator png_name() {
    return CLI::Validator(
        [](const std::string& name) -> std::string {
            const bool is_png = name.size() > 4 && (name.ends_with(".png") || name.ends_with(".PNG"));
            return is_png ? "" : "'" + name + "' must end in .png";
        },
        "");
}

CLI::Validator month_and_day() {
    return CLI::Validator(
        [](const std::string& text) -> std::string {
            const auto pair = parse_pair(text, '-');
            return pair && is_day(pair->first, pair->second) ? "" : "'" + text + "' is not a day of the form MM-DD";
        },
        "");
}

CLI::Validator hour_and_minute() {
    return CLI::Validator(
        [](const std::string& text) -> std::string {
            const auto pair = parse_pair(text, ':');
            return pair && pair->first < 24 && pair->second < 60 ? ""
                                                                 : "'" + text + "' is not a time of the form HH:MM";
        },
        "");
}

int day_of_year(const std::string& text) {
    const auto [month, day] = parse_pair(text, '-').value();
    return std::accumulate(days_of_months, days_of_months + month - 1, day);
}

double hour_of_day(const std::string& text) {
    const auto [hour, minute] = parse_pair(text, ':').value();
    return hour + minute / 60.0;
}

void GroundScale::add_options(CLI::App& command) {
    command.add_option("--cell-size", cell_size, "Size of a cell on the ground, metres [from the file, else 1]")
        ->check(positive_number())
        ->type_name("METRES");
    command.add_option("--height-unit", height_unit, "Metres in one unit of height [from the file, else 1]")
        ->check(positive_number())
        ->type_name("METRES");
}

CellSize GroundScale::cell_of(const Grid& grid) const {
    if (cell_size > 0)
        return {cell_size, cell_size};
    if (const auto size = ground_cell_size(grid))
        return *size;
    print_note("the file does not say how large a cell is; 1 m is used (--cell-size)");
    return {1, 1};
}

double GroundScale::height_unit_of(const Grid& grid) const {
    if (height_unit > 0)
        return height_unit;
    if (grid.unit == "ft" || grid.unit == "foot" || grid.unit == "feet")
        return 0.3048;
    if (grid.unit == "us-ft" || grid.unit == "US survey foot")
        return 1200.0 / 3937.0;
    return 1;
}
