#include "commands.hpp"

#include <charconv>
#include <cmath>
#include <memory>

#include <CLI/CLI.hpp>
#include <tarn/oneapi.h>

#include "grid.hpp"
#include "host.hpp"
#include "message.hpp"
#include "options.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

struct DunesCommand {
    std::string input;
    std::string output;
    std::string sand;
    std::string sand_output;
    std::string wind_trace_output;
    std::string preview;
    std::string device = "cpu";
    GroundScale ground;

    float duration = 0.25f;
    float repose_angle = 34;

    void run();

  private:
    std::vector<float> make_sand(const Grid& terrain) const;
};

/// The sand at the start, in the terrain's unit of height: a grid of depths, or one depth in metres for all cells.
std::vector<float> DunesCommand::make_sand(const Grid& terrain) const {
    double depth = 0;
    const char* const end = sand.data() + sand.size();
    const auto parsed = std::from_chars(sand.data(), end, depth);
    if (parsed.ec == std::errc() && parsed.ptr == end) {
        if (!std::isfinite(depth) || depth < 0)
            throw ToolError(ExitCode::usage, "--sand: a depth must be a finite number from 0 up");
        return std::vector<float>(terrain.size(), static_cast<float>(depth / ground.height_unit_of(terrain)));
    }
    return fitted_cells(read_grid(sand, 0.0f), {terrain.width, terrain.height}, "the sand");
}

void DunesCommand::run() {
    check_grid_name(output);
    for (const std::string& name : {sand_output, wind_trace_output})
        if (!name.empty())
            check_grid_name(name);
    check_folder(preview);
    Host host(device);
    Grid grid = read_grid(input);
    const CellSize cell = ground.cell_of(grid);
    const double cell_size = std::sqrt(cell.x * cell.y);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y, cell_size));
    Grid depth = grid;
    depth.cells = make_sand(grid);
    Grid wind_trace = grid;
    wind_trace.unit.clear();

    arrakis_Parameters parameters{};
    parameters.width = grid.width;
    parameters.height = grid.height;
    parameters.duration = duration;
    parameters.repose_angle = repose_angle;
    parameters.terrain_size = static_cast<float>(cell_size * grid.width);
    parameters.terrain_height = static_cast<float>(ground.height_unit_of(grid));
    print_detail(format_text("width %d, height %d, duration %g, repose_angle %g, terrain_size %g, terrain_height %g",
                             parameters.width, parameters.height, static_cast<double>(parameters.duration),
                             static_cast<double>(parameters.repose_angle), static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height)));

    host.run(format_text("moving sand over %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return DuneSimulation(queue, grid.cells.data(), depth.cells.data(), wind_trace.cells.data(),
                                       &parameters, callbacks);
             });

    write_grid(output, grid);
    if (!sand_output.empty())
        write_grid(sand_output, depth);
    if (!wind_trace_output.empty())
        write_grid(wind_trace_output, wind_trace);
    if (!preview.empty()) {
        ShadeOptions shade;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(preview, grid.width, grid.height, 3, shade_relief(host, grid, cell, shade));
    }
}

} // namespace

void add_dunes_command(CLI::App& app) {
    const auto settings = std::make_shared<DunesCommand>();
    CLI::App* const command = app.add_subcommand("dunes", "Let the wind move sand over the terrain");
    command->add_option("IN", settings->input, "Height grid of the ground, without the sand")->required();
    command
        ->add_option("OUT", settings->output,
                     "Ground and sand after the run: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr")
        ->required();
    command
        ->add_option("--sand", settings->sand,
                     "Depth of the sand at the start: metres for all cells, or a grid in the heights' unit")
        ->required()
        ->type_name("METRES|GRID");
    command->add_option("--sand-out", settings->sand_output, "Also write the depth of the sand after the run")
        ->type_name("GRID");
    command->add_option("--wind-trace", settings->wind_trace_output, "Also write streamlines of the last wind")
        ->type_name("GRID");
    command->add_option("--preview", settings->preview, "Also draw the result as a shaded picture")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    command->add_option("--duration", settings->duration, "Length of the run; 1 is 2560 rounds of wind and slides")
        ->check(finite_number(0, 1000))
        ->type_name("NUMBER")
        ->capture_default_str();
    command
        ->add_option("--repose-angle", settings->repose_angle,
                     "Sand slides on slopes above the arc tangent of this angle in radians")
        ->check(finite_number(0, 90))
        ->type_name("DEGREES")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
