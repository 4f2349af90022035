#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
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

struct CellsCommand {
    std::string input;
    GridOutput output{"heights rebuilt out of cells", unit_of_heights};
    std::string gap_factor;
    GridOutput random_output{"random number of the cell", ""};
    CommonOptions common;

    float density = 48;
    float layers = 0; ///< 0: as many as make the cells as high as they are wide
    float gap = 0;
    float jitter_x = 0.9f, jitter_y = 0.9f, jitter_z = 0.9f;
    std::uint32_t seed = 1;
    std::uint32_t hash_variant = 1;
    // The library's own parameters of scale; 0 where they follow from the ones above.
    float extent_x = 0, extent_y = 0, extent_z = 0;
    float z_unit = 0, z_range = 0;

    void run(Outputs& outputs);

  private:
    Cellular3D_Parameters make_parameters(const Grid& grid, CellSize cell, double range) const;
};

/// The library's block is extent_x x extent_y units of cell_density lattice cells, and a height of 1 is
/// z_range / z_unit of a unit, times extent_z. Here the unit is the longer side of the terrain, so that lattice cells
/// are cubes on the ground unless a number of layers is asked for, and heights from 0 to 1 are those of the terrain,
/// which has a `range` of so many metres.
Cellular3D_Parameters CellsCommand::make_parameters(const Grid& grid, CellSize cell, double range) const {
    const double width = grid.width * cell.x, height = grid.height * cell.y;
    const double unit = std::max(width, height);
    const auto given_or = [](float given, double derived) {
        return given > 0 ? given : static_cast<float>(derived);
    };
    Cellular3D_Parameters p{};
    p.grid_width = grid.width;
    p.grid_height = grid.height;
    p.cell_density = density;
    p.gap = gap;
    p.extent_x = given_or(extent_x, width / unit);
    p.extent_y = given_or(extent_y, height / unit);
    p.jitter_x = jitter_x;
    p.jitter_y = jitter_y;
    p.jitter_z = jitter_z;
    p.seed = seed;
    p.z_unit = given_or(z_unit, unit);
    p.z_range = given_or(z_range, range);
    const double stretch = layers > 0 ? static_cast<double>(layers) * static_cast<double>(p.z_unit) /
                                            (static_cast<double>(p.z_range) * static_cast<double>(density))
                                      : 1;
    p.extent_z = given_or(extent_z, stretch);
    p.hash_variant = hash_variant;
    return p;
}

void CellsCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid grid = read_grid(input);
    Cells factor;
    if (!gap_factor.empty())
        factor = read_mask(gap_factor, {grid.width, grid.height});

    const auto [lowest, highest] = std::minmax_element(grid.cells.begin(), grid.cells.end());
    const float base = *lowest;
    const float range = *highest > base ? *highest - base : 1.0f;
    for (float& cell : grid.cells)
        cell = (cell - base) / range;
    const CellSize cell = common.cell_of(grid);
    Cellular3D_Parameters parameters =
        make_parameters(grid, cell, static_cast<double>(range) * common.height_unit_of(grid));
    const float asked = parameters.cell_density;
    Grid random = with_cells(grid, Cells(grid.size()));
    outputs.check_grids(grid);
    host.run(format_text("rebuilding %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return Cellular3D_Render(queue, grid.cells.data(), factor.empty() ? nullptr : factor.data(),
                                          random.cells.data(), &parameters, callbacks);
             });
    const auto number = [](float value) {
        return static_cast<double>(value);
    };
    print_detail(format_text("cell_density %g, extents %g %g %g, z_unit %g, z_range %g",
                             number(parameters.cell_density), number(parameters.extent_x), number(parameters.extent_y),
                             number(parameters.extent_z), number(parameters.z_unit), number(parameters.z_range)));
    if (parameters.cell_density < asked)
        print_note(format_text("the density is lowered from %g to %g, to what the library has room for", number(asked),
                               number(parameters.cell_density)));

    for (float& height : grid.cells)
        height = base + height * range;
    common.draw_preview(outputs, host, grid, cell);
    outputs.add(random_output, std::move(random));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_cells_command(CLI::App& app) {
    const auto settings = std::make_shared<CellsCommand>();
    Command command(app, "cells", "Rebuild the terrain out of three-dimensional Voronoi cells", {"Cellular3D_Render"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output, "Rebuilt terrain: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command.number("--density", settings->density, above_0, "",
                   "Cells along the longer side of the terrain, up to 512");
    command.number("--layers", settings->layers, above_0, "", "Layers of cells from the lowest height to the highest")
        .otherwise("cells as high as wide");
    command.number("--gap", settings->gap, {-1000, 1000}, "",
                   "How far the cells draw back from one another; 0: they touch, 1: none");
    command.input("--gap-factor", settings->gap_factor, "grid", "share", "Factor on the gap, 0 to 1");
    for (const auto& [name, value] :
         {std::pair{"--jitter-x", &settings->jitter_x}, std::pair{"--jitter-y", &settings->jitter_y},
          std::pair{"--jitter-z", &settings->jitter_z}})
        command.number(name, *value, from_0_to_1, "",
                       "How far points stray from the lattice; 0: not, 1: over their whole cell");
    command.number("--seed", settings->seed, any_seed, "", "Another seed, other cells");
    command
        .choice<std::uint32_t>("--generator", settings->hash_variant, {{"congruential", 0u}, {"xorshift", 1u}},
                               "Where the random numbers come from")
        .advanced();
    command.output("--random-out", settings->random_output, "Also write a random number of each cell, 0 to 1");
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    for (const auto& [name, value] :
         {std::pair{"--extent-x", &settings->extent_x}, std::pair{"--extent-y", &settings->extent_y},
          std::pair{"--extent-z", &settings->extent_z}, std::pair{"--z-unit", &settings->z_unit},
          std::pair{"--z-range", &settings->z_range}})
        command.number(name, *value, above_0, "", "Sets the library's parameter of scale")
            .otherwise("from the sizes")
            .advanced();
    command.example("tarn cells land.tif rock.tif --density 60 --layers 8", "The terrain out of cells of rock");
    command.example("tarn cells land.tif rock.tif --density 60 --layers 8 --gap 0.2 --random-out numbers.tif",
                    "Cells with gaps, and a number for each");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
