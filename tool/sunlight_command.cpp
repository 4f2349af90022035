#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <tarn/oneapi.h>

#include "grid.hpp"
#include "host.hpp"
#include "lighting.hpp"
#include "message.hpp"
#include "options.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

struct SunlightCommand {
    std::string input;
    std::string output;
    std::string preview;
    std::string device = "cpu";
    GroundScale ground;
    std::string first_day = "01-01";
    std::string last_day = "12-31";
    std::optional<double> latitude; ///< of the file if not given
    float north_offset = 0;
    float haze = 0.05f;

    void run();
};

void SunlightCommand::run() {
    check_grid_name(output);
    check_folder(preview);
    Host host(device);
    Grid grid = read_grid(input);
    const CellSize cell = ground.cell_of(grid);
    const double cell_size = std::sqrt(cell.x * cell.y);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y, cell_size));
    const std::optional<double> place = latitude ? latitude : latitude_of(grid);
    if (!place)
        throw ToolError(ExitCode::usage, "the file does not say where it lies; --latitude is needed");

    const GridSize size{grid.width, grid.height};
    const int longer = std::max(size.width, size.height);
    const GridSize square = round_up({longer, longer}, 2);
    lighting_Parameters parameters{};
    parameters.resolution = {square.width, square.height};
    parameters.terrain_size = static_cast<float>(cell_size * square.width);
    parameters.terrain_height = static_cast<float>(ground.height_unit_of(grid));
    parameters.first_day = day_of_year(first_day);
    parameters.last_day = day_of_year(last_day);
    parameters.latitude = static_cast<float>(*place);
    parameters.north_offset = north_offset;
    parameters.haze = haze;
    print_note(format_text("latitude %.4g, days %d to %d", *place, parameters.first_day, parameters.last_day));

    const std::vector<float> heights = pad(grid.cells, size, square);
    std::vector<float> result(heights.size());
    host.run(format_text("summing sunlight over %d x %d cells", square.width, square.height),
             [&](SyclQueue* queue, const HostCallbacks*) {
                 return SunLightIntegral(queue, heights.data(), result.data(), &parameters);
             });
    grid.cells = crop(result, square, size);
    grid.unit.clear();
    write_grid(output, grid);
    const auto [least, greatest] = std::minmax_element(grid.cells.begin(), grid.cells.end());
    print_note(format_text("cells receive %.3g to %.3g", static_cast<double>(*least), static_cast<double>(*greatest)));
    if (!preview.empty())
        write_picture(preview, grid.width, grid.height, 3, shade_sunlight(grid));
}

} // namespace

void add_sunlight_command(CLI::App& app) {
    const auto settings = std::make_shared<SunlightCommand>();
    CLI::App* const command = app.add_subcommand("sunlight", "Sum the sunlight of a span of days");
    command->add_option("IN", settings->input, "Height grid")->required();
    command->add_option("OUT", settings->output, "Light received: .tif, .tiff, .png (16 bits), .asc or .exr")
        ->required();
    command->add_option("--first-day", settings->first_day, "First day of the span, month and day")
        ->check(month_and_day())
        ->type_name("MM-DD")
        ->capture_default_str();
    command->add_option("--last-day", settings->last_day, "Last day of the span; before the first, in the next year")
        ->check(month_and_day())
        ->type_name("MM-DD")
        ->capture_default_str();
    command->add_option("--latitude", settings->latitude, "Degrees, north is positive [from the file]")
        ->check(finite_number(-90, 90))
        ->type_name("DEGREES");
    command->add_option("--north-offset", settings->north_offset, "Degrees by which the sun's azimuth is turned")
        ->check(finite_number(-360, 360))
        ->type_name("DEGREES")
        ->capture_default_str();
    command->add_option("--haze", settings->haze, "Extinction by the air; 0 is none")
        ->check(finite_number(0, 1e6))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--preview", settings->preview, "Also draw the result, from the least to the greatest light")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
