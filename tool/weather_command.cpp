#include "commands.hpp"

#include <algorithm>
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

struct WeatherCommand {
    std::string input;
    GridOutput output{"heights after weathering", unit_of_heights};
    std::string erosion_mask;
    std::string absorption_mask;
    GridOutput depth_output{"depth of the loose cover", unit_of_heights};
    GridOutput wear_output{"depth of the ground that was loosened", unit_of_heights};
    CommonOptions common;

    float duration = 0.02f;
    float erosion_rate = 1;
    float curvature_bias = 0.5f;
    float repose_angle = 15;
    double feature_size = 0; ///< metres; 0 for 1/32 of the longer side
    float absorption = 0;

    void run(Outputs& outputs);

  private:
    Cells padded_mask(const std::string& name, GridSize size, GridSize work_size) const;
};

/// No cells if there is no mask.
Cells WeatherCommand::padded_mask(const std::string& name, GridSize size, GridSize work_size) const {
    return name.empty() ? Cells() : pad(read_mask(name, size), size, work_size);
}

void WeatherCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid grid = read_grid(input);
    const CellSize cell = common.cell_of(grid);
    const double cell_size = square_side(cell);
    const double feature = feature_size > 0 ? feature_size : std::max(grid.width, grid.height) * cell_size / 32;

    // The library makes log2(feature size / cell size) levels; all but the coarsest should halve evenly.
    const int halvings = std::clamp(static_cast<int>(std::ceil(std::log2(feature / cell_size))) - 1, 0, 12);
    const GridSize size{grid.width, grid.height};
    const GridSize work_size = round_up(size, 1 << halvings);
    if (work_size != size)
        print_note(format_text("%d x %d cells are padded to %d x %d for %s", size.width, size.height, work_size.width,
                               work_size.height, "the levels of the pyramid, and brought back afterwards"));

    thermal_Parameters parameters{};
    parameters.width = work_size.width;
    parameters.height = work_size.height;
    parameters.duration = duration;
    parameters.erosion_rate = erosion_rate;
    parameters.curvature_bias = curvature_bias;
    parameters.repose_angle = repose_angle;
    parameters.feature_size = static_cast<float>(feature);
    parameters.terrain_size = static_cast<float>(cell_size * work_size.width);
    parameters.terrain_height = static_cast<float>(common.height_unit_of(grid));
    parameters.absorption = absorption;
    parameters.use_erosion_mask = erosion_mask.empty() ? 0 : 1;
    parameters.use_absorption_mask = absorption_mask.empty() ? 0 : 1;
    print_detail(format_text("width %d, height %d, feature_size %g, terrain_size %g, terrain_height %g",
                             parameters.width, parameters.height, static_cast<double>(parameters.feature_size),
                             static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height)));

    const Cells erosion = padded_mask(erosion_mask, size, work_size);
    const Cells absorbing = padded_mask(absorption_mask, size, work_size);
    outputs.check_grids(grid);
    Cells heights = pad(grid.cells, size, work_size);
    Cells depth(heights.size()), wear(heights.size());
    host.run(format_text("weathering %d x %d cells", work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ThermalSimulation(queue, heights.data(), depth.data(), wear.data(),
                                          erosion.empty() ? nullptr : erosion.data(),
                                          absorbing.empty() ? nullptr : absorbing.data(), &parameters, callbacks);
             });

    const Cells before = std::exchange(grid.cells, crop(std::move(heights), work_size, size));
    note_if_unchanged(before, grid.cells, "try a longer --duration or a smaller --repose-angle");
    common.draw_preview(outputs, host, grid, cell);
    outputs.add(depth_output, with_cells(grid, crop(std::move(depth), work_size, size)));
    outputs.add(wear_output, with_cells(grid, crop(std::move(wear), work_size, size)));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_weather_command(CLI::App& app) {
    const auto settings = std::make_shared<WeatherCommand>();
    Command command(app, "weather", "Weather slopes: loosen what is too steep and let it slide", {"ThermalSimulation"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output, "Heights after the run: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command.number("--duration", settings->duration, {0, 1000}, "",
                   "Length of the run; 1 is 2560 iterations at coarse levels");
    command.number("--erosion-rate", settings->erosion_rate, {0, 1e6}, "", "Strength of the loosening");
    command
        .number("--curvature-bias", settings->curvature_bias, from_0_to_1, "",
                "0: all slopes above the repose angle loosen alike; 1: steep and convex ones more")
        .advanced();
    command.number("--repose-angle", settings->repose_angle, {0, 90}, "degrees",
                   "Slopes above the arc tangent of this angle in radians slide");
    command
        .number("--feature-size", settings->feature_size, above_0, "metres",
                "Largest landform to work on; sets the number of levels")
        .otherwise("1/32 of the longer side");
    command.number("--absorption", settings->absorption, from_0_to_1, "",
                   "Share of the arriving material that is lost on the way");
    command.input("--erosion-mask", settings->erosion_mask, "grid", "share", "Factor on the loosening");
    command.input("--absorption-mask", settings->absorption_mask, "grid", "share", "Factor on the absorption");
    command.output("--depth-out", settings->depth_output, "Also write the depth of the loose cover");
    command.output("--wear-out", settings->wear_output, "Also write how much ground was loosened");
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn weather land.tif weathered.tif --depth-out cover.tif",
                    "Steep ground crumbles; the depth of what lies loose");
    command.example("tarn weather land.tif weathered.tif --duration 0.1 --repose-angle 30",
                    "A longer run that leaves slopes below about 28 degrees alone");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
