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

struct ErodeCommand {
    std::string input;
    GridOutput output{"heights after water erosion", unit_of_heights};
    std::string spawn_map;
    GridOutput flow_output{"visits of water, 1 for a thousand or more", ""};
    GridOutput sediment_output{"depth of the sediment", unit_of_heights};
    GridOutput wear_output{"depth that water has cut, less what was shaped away", unit_of_heights};
    CommonOptions common;
    int columns = 0;         ///< 0 for those of the input
    double feature_size = 0; ///< metres; 0 for a twentieth of the longer side
    parallel_erosion_Parameters parameters = defaults();

    void run(Outputs& outputs);

  private:
    static parallel_erosion_Parameters defaults();
};

parallel_erosion_Parameters ErodeCommand::defaults() {
    parallel_erosion_Parameters p{};
    p.iterations = 30;
    p.seed = 1;
    p.erosion_strength = 0.6f;
    p.shaping_strength = 0.3f;
    p.shaping_sharpness = 0.6f;
    p.shaping_detail = 0;
    p.fill_slope_scale = 1;
    p.fill_angle = 5;
    p.plain_deposition = 0.2f;
    p.plain_angle = 5;
    p.terrace_deposition = 0;
    p.terrace_angle = 30;
    p.constant_capacity = 0.05f;
    return p;
}

void ErodeCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid grid = read_grid(input);
    CellSize cell = common.cell_of(grid);
    if (columns > 0) {
        const double side = cell.x * grid.width / columns;
        const int rows = static_cast<int>(std::clamp(std::round(cell.y * grid.height / side), 1.0, 1e6));
        cell.x = side;
        cell.y = cell.y * grid.height / rows;
        grid = stretched(grid, {columns, rows});
    }
    const double cell_size = square_side(cell);
    const double feature = feature_size > 0 ? feature_size : std::max(grid.width, grid.height) * cell_size / 20;

    // The library makes log2(half a feature / cell size) levels; all but the coarsest should halve evenly.
    const int halvings = std::clamp(static_cast<int>(std::ceil(std::log2(feature / 2 / cell_size))) - 1, 0, 12);
    const GridSize size{grid.width, grid.height};
    const GridSize work_size = round_up(size, 1 << halvings);
    if (work_size != size)
        print_note(format_text("%d x %d cells are padded to %d x %d for %s", size.width, size.height, work_size.width,
                               work_size.height, "the levels of the pyramid, and brought back afterwards"));

    parameters.Resolution = {static_cast<std::uint32_t>(work_size.width), static_cast<std::uint32_t>(work_size.height)};
    parameters.terrain_size = static_cast<float>(cell_size * work_size.width);
    parameters.terrain_height = static_cast<float>(common.height_unit_of(grid));
    parameters.feature_size = static_cast<float>(feature);
    print_detail(format_text("width %d, height %d, terrain_size %g, terrain_height %g, feature_size %g",
                             work_size.width, work_size.height, static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height),
                             static_cast<double>(parameters.feature_size)));

    Cells births;
    if (!spawn_map.empty())
        births = pad(read_mask(spawn_map, size), size, work_size);
    outputs.check_grids(grid);
    Cells heights = pad(grid.cells, size, work_size);
    Cells flow(heights.size()), sediment(heights.size()), wear(heights.size());
    host.run(format_text("eroding %d x %d cells", work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ParallelErosionSimulation(queue, heights.data(), births.empty() ? nullptr : births.data(),
                                                  flow.data(), sediment.data(), nullptr, wear.data(), &parameters,
                                                  callbacks);
             });

    const Cells before = std::exchange(grid.cells, crop(std::move(heights), work_size, size));
    note_if_unchanged(before, grid.cells, "try more --iterations or a larger --erosion-strength");
    common.draw_preview(outputs, host, grid, cell);
    outputs.add(flow_output, with_cells(grid, crop(std::move(flow), work_size, size)));
    outputs.add(sediment_output, with_cells(grid, crop(std::move(sediment), work_size, size)));
    outputs.add(wear_output, with_cells(grid, crop(std::move(wear), work_size, size)));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_erode_command(CLI::App& app) {
    const auto settings = std::make_shared<ErodeCommand>();
    Command command(app, "erode", "Erode the terrain with running water", {"ParallelErosionSimulation"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output, "Heights after the run: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    parallel_erosion_Parameters& p = settings->parameters;
    command.number("--iterations", p.iterations, {0, 1e6}, "", "Rounds of water at the coarse levels");
    command.number("--feature-size", settings->feature_size, above_0, "metres", "Largest landform to work on")
        .otherwise("1/20 of the longer side");
    command.number("--erosion-strength", p.erosion_strength, {0, 100}, "",
                   "How much the water carries; above 1 it digs pits and heaps");
    command
        .number("--constant-capacity", p.constant_capacity, from_0_to_1, "",
                "0: water carries in proportion to its fall; 1: the same everywhere")
        .advanced();
    command.number("--shaping-strength", p.shaping_strength, from_0_to_1, "",
                   "Strength of the shaping after each round");
    command.number("--shaping-sharpness", p.shaping_sharpness, from_0_to_1, "",
                   "0: shaping smooths; 1: it only cuts steep faces");
    command
        .number("--shaping-detail", p.shaping_detail, from_0_to_1, "",
                "Shaping fades on features smaller than this share of the largest; 0: on none")
        .advanced();
    const Range angle{0, 90};
    command.number("--fill-angle", p.fill_angle, angle, "degrees", "Hollows on gentler slopes are filled in full")
        .advanced();
    command
        .number("--fill-slope-scale", p.fill_slope_scale, {0, 1000}, "",
                "Factor on the slope that is held against fill-angle")
        .advanced();
    command.number("--plain-deposition", p.plain_deposition, {0, 100}, "",
                   "Share of its load that water drops on plains");
    command.number("--plain-angle", p.plain_angle, angle, "degrees", "Gentler slopes are plains");
    command.number("--terrace-deposition", p.terrace_deposition, {0, 100}, "",
                   "Share of its load that water drops on terraces");
    command.number("--terrace-angle", p.terrace_angle, angle, "degrees", "Slopes about as steep become terraces");
    command.number("--seed", p.seed, any_seed, "", "Seed of the random numbers");
    command
        .number("--columns", settings->columns, {1, 1 << 20}, "cells",
                "Stretch the terrain to so many columns first, and to the rows that make its cells square")
        .otherwise("those of IN");
    command.input("--spawn-map", settings->spawn_map, "grid", "share", "Probability that water springs at a cell");
    command.output("--flow-out", settings->flow_output,
                   "Also write where the water ran: 1 is a thousand visits or more");
    command.output("--sediment-out", settings->sediment_output, "Also write the depth of the sediment");
    command.output("--wear-out", settings->wear_output,
                   "Also write how much the water has cut, less what was shaped away");
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn erode land.tif eroded.tif --flow-out flow.tif", "Streams cut valleys; where the water ran");
    command.example(
        "tarn erode land.tif mountains.tif --columns 512 --iterations 15 --erosion-strength 0.9 --plain-deposition 0",
        "Young mountains with sharp ridges, on a finer grid");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
