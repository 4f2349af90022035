#include "commands.hpp"

#include <cmath>
#include <memory>
#include <utility>

#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "resample.hpp"

namespace {

struct DunesCommand {
    std::string input;
    GridOutput output{"heights of ground and sand", unit_of_heights};
    std::string sand;
    GridOutput sand_output{"depth of the sand", unit_of_heights};
    GridOutput wind_trace_output{"streamlines of the last wind", ""};
    CommonOptions common;

    float duration = 0.25f;
    float repose_angle = 34;

    void run(Outputs& outputs);

  private:
    Cells make_sand(const Grid& terrain) const;
};

/// The sand at the start, in the terrain's unit of height: a grid of depths, or one depth in metres for all cells.
Cells DunesCommand::make_sand(const Grid& terrain) const {
    if (const std::optional<double> depth = number_of(sand)) {
        if (!std::isfinite(*depth) || *depth < 0)
            throw ToolError(ExitCode::usage, "--sand: a depth must be a finite number from 0 up");
        return Cells(terrain.size(), static_cast<float>(*depth / common.height_unit_of(terrain)));
    }
    return fitted_cells(read_grid(sand, Holes::are_zero), {terrain.width, terrain.height}, "the sand");
}

void DunesCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid grid = read_grid(input);
    const CellSize cell = common.cell_of(grid);
    const double cell_size = square_side(cell);
    Grid depth = with_cells(grid, make_sand(grid));
    Grid wind_trace = with_cells(grid, Cells(grid.size()));

    arrakis_Parameters parameters{};
    parameters.width = grid.width;
    parameters.height = grid.height;
    parameters.duration = duration;
    parameters.repose_angle = repose_angle;
    parameters.terrain_size = static_cast<float>(cell_size * grid.width);
    parameters.terrain_height = static_cast<float>(common.height_unit_of(grid));
    print_detail(format_text("width %d, height %d, duration %g, repose_angle %g, terrain_size %g, terrain_height %g",
                             parameters.width, parameters.height, static_cast<double>(parameters.duration),
                             static_cast<double>(parameters.repose_angle), static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height)));

    print_note(format_text("the size of dunes follows the cells, which are %.4g m wide: finer cells make smaller dunes",
                           cell_size));
    const Cells before = depth.cells;
    outputs.check_grids(grid);
    host.run(format_text("moving sand over %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return DuneSimulation(queue, grid.cells.data(), depth.cells.data(), wind_trace.cells.data(),
                                       &parameters, callbacks);
             });

    note_if_unchanged(before, depth.cells, "try more --sand or a longer --duration");
    common.draw_preview(outputs, host, grid, cell);
    outputs.add(sand_output, std::move(depth));
    outputs.add(wind_trace_output, std::move(wind_trace));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_dunes_command(CLI::App& app) {
    const auto settings = std::make_shared<DunesCommand>();
    Command command(app, "dunes", "Let the wind move sand over the terrain", {"DuneSimulation"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid of the ground, without the sand");
    command.output("OUT", settings->output,
                   "Ground and sand after the run: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command
        .text("--sand", settings->sand, "metres_or_grid", "METRES|GRID",
              "Depth of the sand at the start: metres for all cells, or a grid in the heights' unit")
        .required();
    command.number("--duration", settings->duration, {0, 1000}, "",
                   "Length of the run; 1 is 2560 rounds of wind and slides");
    command.number("--repose-angle", settings->repose_angle, {0, 90}, "degrees",
                   "Sand slides on slopes above the arc tangent of this angle in radians");
    command.output("--sand-out", settings->sand_output, "Also write the depth of the sand after the run");
    command.output("--wind-trace", settings->wind_trace_output, "Also write streamlines of the last wind");
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn dunes land.tif dunes.tif --sand 3 --duration 0.05",
                    "Wind moves sand that lay 3 m deep everywhere");
    command.example("tarn dunes land.tif dunes.tif --sand sand.tif --sand-out moved.tif --duration 0.05",
                    "Sand of a map of depths; how deep it lies afterwards");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
