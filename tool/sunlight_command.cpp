#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>
#include <utility>

#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "lighting.hpp"
#include "message.hpp"
#include "shade_preview.hpp"

namespace {

struct SunlightCommand {
    std::string input;
    GridOutput output{"sunlight received, as a mean over day and night", ""};
    CommonOptions common;
    std::string first_day = "01-01";
    std::string last_day = "12-31";
    std::optional<double> latitude; ///< of the file if not given
    float north_offset = 0;
    float haze = 0.05f;

    void run(Outputs& outputs);
};

void SunlightCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid grid = read_grid(input);
    const CellSize cell = common.cell_of(grid);
    const double cell_size = square_side(cell);
    const std::optional<double> place = latitude ? latitude : latitude_of(grid);
    if (!place)
        throw ToolError(ExitCode::usage, "the file does not say where it lies; --latitude is needed");

    lighting_Parameters parameters = light_of_year(grid, cell_size, common.height_unit_of(grid), *place);
    parameters.first_day = day_of_year(first_day);
    parameters.last_day = day_of_year(last_day);
    parameters.north_offset = north_offset;
    parameters.haze = haze;
    print_note(format_text("latitude %.4g, days %d to %d", *place, parameters.first_day, parameters.last_day));

    Cells result(grid.size());
    outputs.check_grids(grid);
    host.run(format_text("summing sunlight over %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks*) {
                 return SunLightIntegral(queue, grid.cells.data(), result.data(), &parameters);
             });
    grid.cells = std::move(result);
    const auto [least, greatest] = extremes(grid);
    print_note(format_text("cells receive %.3g to %.3g", static_cast<double>(least), static_cast<double>(greatest)));
    outputs.add_picture(common.preview, grid, shade_values(grid, palette("sunlight")));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_sunlight_command(CLI::App& app) {
    const auto settings = std::make_shared<SunlightCommand>();
    Command command(app, "sunlight", "Sum the sunlight of a span of days", {"SunLightIntegral"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output, "Light received: .tif, .tiff, .png (16 bits), .asc or .exr");
    command.text("--first-day", settings->first_day, "day", "MM-DD", "First day of the span, month and day", check_day);
    command.text("--last-day", settings->last_day, "day", "MM-DD",
                 "Last day of the span; before the first, in the next year", check_day);
    command.number("--latitude", settings->latitude, {-90, 90}, "degrees", "Where the terrain lies; north is positive")
        .otherwise("from the file");
    command.number("--north-offset", settings->north_offset, {-360, 360}, "degrees",
                   "Angle by which the sun's azimuth is turned");
    command.number("--haze", settings->haze, {0, 1e6}, "", "Extinction by the air; 0 is none");
    settings->common.add_preview(command, "Also draw the result, from the least to the greatest light");
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn sunlight land.tif light.tif --preview light.png", "The light of a year, and a picture of it");
    command.example("tarn sunlight land.tif june.tif --first-day 06-01 --last-day 06-30", "The light of June");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
