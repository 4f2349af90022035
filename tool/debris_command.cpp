#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <tarn/oneapi.h>

#include "close_up.hpp"
#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "resample.hpp"

namespace {

/// A grid and the size of its cells on the common.
struct Terrain {
    Grid grid;
    CellSize cell;
};

struct DebrisCommand {
    std::string input;
    GridOutput output{"heights with rocks", unit_of_heights};
    GridOutput rock_id_output{"number of the rock, 0 for none", ""};
    GridOutput coverage_output{"1 where a rock lies", ""};
    GridOutput speed_output{"speed of the last rock to cross", "km/s"};
    CommonOptions common;
    std::vector<int> window; ///< column, row, columns, rows; empty for all of the grid
    int resolution = 0;      ///< cells of the longer side; 0 for those of the file

    std::uint32_t count = 1000;
    double max_size = 0;           ///< metres; 0 for 8 cells
    double min_size = -1;          ///< metres; below 0 for a quarter of the largest
    std::optional<float> friction; ///< suits the terrain if not given
    float restitution = 0.3f;
    bool draw_unmoved = false;
    bool favour_small = false;
    std::uint32_t seed = 1;

    void run(Outputs& outputs);

  private:
    Window checked_window(const Grid& grid) const;
    Terrain read_terrain() const;
};

Window DebrisCommand::checked_window(const Grid& grid) const {
    if (window.empty())
        return {0, 0, {grid.width, grid.height}};
    const Window part{window[0], window[1], {window[2], window[3]}};
    if (part.column < 0 || part.row < 0 || part.size.width < 1 || part.size.height < 1 ||
        part.size.width > grid.width - part.column || part.size.height > grid.height - part.row)
        throw ToolError(ExitCode::usage,
                        format_text("--window: %d x %d cells from (%d, %d) on are not all in the "
                                    "grid, which has %d x %d",
                                    part.size.width, part.size.height, part.column, part.row, grid.width, grid.height));
    return part;
}

/// The part of the input that rocks are strewn on, in the resolution asked for. Cells of a new resolution are squares.
Terrain DebrisCommand::read_terrain() const {
    Grid grid = read_grid(input);
    const CellSize cell = common.cell_of(grid);
    const Window part = checked_window(grid);
    const double width = cell.x * part.size.width, height = cell.y * part.size.height;
    GridSize size = part.size;
    if (resolution > 0) {
        const double side = std::max(width, height) / resolution;
        size = {std::max(1, static_cast<int>(std::lround(width / side))),
                std::max(1, static_cast<int>(std::lround(height / side)))};
    }
    if (part.size != GridSize{grid.width, grid.height} || size != part.size)
        grid = close_up(grid, part, size);
    return {std::move(grid), {width / size.width, height / size.height}};
}

/// The slope that a quarter of the terrain exceeds, as the largest rocks see it.
float steep_slope(const Grid& grid, const debris_Parameters& parameters) {
    const int longer = std::max(grid.width, grid.height);
    const int reach = static_cast<int>(std::min(1.5f * parameters.max_size + 1.5f, static_cast<float>(longer)));
    const int step = std::max(1, longer / 256); // a sample will do
    const float scale = static_cast<float>(parameters.resolution) * parameters.terrain_height / parameters.terrain_size;
    std::vector<float> slopes;
    for (int y = 0; y < grid.height; y += step)
        for (int x = 0; x < grid.width; x += step) {
            const int west = std::max(x - reach, 0), east = std::min(x + reach, grid.width - 1);
            const int north = std::max(y - reach, 0), south = std::min(y + reach, grid.height - 1);
            const float along = (grid.at(east, y) - grid.at(west, y)) / static_cast<float>(std::max(east - west, 1));
            const float across =
                (grid.at(x, south) - grid.at(x, north)) / static_cast<float>(std::max(south - north, 1));
            slopes.push_back(std::hypot(along, across) * scale);
        }
    const auto quarter = slopes.begin() + std::ssize(slopes) * 3 / 4;
    std::nth_element(slopes.begin(), quarter, slopes.end());
    return *quarter;
}

void DebrisCommand::run(Outputs& outputs) {
    Host host(common.device);
    auto [grid, cell] = read_terrain();
    const double cell_size = square_side(cell);
    const GridSize size{grid.width, grid.height};
    const GridSize work_size{std::max(size.width, size.height), std::max(size.width, size.height)};
    if (work_size != size)
        print_note(format_text("%d x %d cells are padded to %d x %d, and brought back afterwards: not all rocks are "
                               "born on the terrain",
                               size.width, size.height, work_size.width, work_size.height));

    debris_Parameters parameters{};
    parameters.resolution = static_cast<std::uint32_t>(work_size.width);
    // The library looks as many cells around a rock as its radius has units of length: large rocks on large cells would
    // see the mean slope of all the land. Rocks of 8 cells see their surroundings if a cell counts as one unit.
    const double unit = max_size > 0 ? 1 : std::max(cell_size, 1.0); // metres
    parameters.terrain_size = static_cast<float>(cell_size * work_size.width / unit);
    parameters.terrain_height = static_cast<float>(common.height_unit_of(grid) / unit);
    parameters.count = count;
    parameters.max_size = static_cast<float>((max_size > 0 ? max_size : 8 * cell_size) / unit);
    parameters.min_size = min_size >= 0 ? static_cast<float>(min_size / unit) : parameters.max_size * 0.25f;
    parameters.friction = friction ? *friction : max_size > 0 ? 0.5f : std::min(0.5f, steep_slope(grid, parameters));
    parameters.restitution = restitution;
    parameters.draw_unmoved = draw_unmoved ? 1 : 0;
    parameters.favour_small = favour_small ? 1 : 0;
    parameters.seed = seed;
    print_detail(format_text("resolution %u, terrain_size %g, terrain_height %g, max_size %g, min_size %g",
                             parameters.resolution, static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height), static_cast<double>(parameters.max_size),
                             static_cast<double>(parameters.min_size)));
    if (parameters.friction < 0.5f && !friction)
        print_note(format_text("--friction is %.2g here: rocks rest on gentler slopes",
                               static_cast<double>(parameters.friction)));

    outputs.check_grids(grid);
    Cells heights = pad(grid.cells, size, work_size);
    constexpr float untouched = -1;
    Cells rock_id(heights.size(), untouched), coverage(heights.size()), speed(heights.size(), 0.0f);
    host.run(format_text("strewing %u rocks over %d x %d cells", count, work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) -> std::uint32_t {
                 DebrisSimulation(queue, heights.data(), rock_id.data(), coverage.data(), speed.data(), &parameters,
                                  callbacks);
                 // A refusal shows in the grids alone: they stay as they were.
                 return rock_id.front() == untouched ? status_failed : status_ok;
             });

    coverage = crop(std::move(coverage), work_size, size);
    if (std::find(coverage.begin(), coverage.end(), 1.0f) == coverage.end())
        print_note("nothing has changed: no rock came to rest on the terrain; try a smaller --friction, smaller cells "
                   "(--window and --resolution) or --draw-unmoved");
    grid.cells = crop(std::move(heights), work_size, size);
    common.draw_preview(outputs, host, grid, cell);
    outputs.add(rock_id_output, with_cells(grid, crop(std::move(rock_id), work_size, size)));
    outputs.add(coverage_output, with_cells(grid, std::move(coverage)));
    outputs.add(speed_output, with_cells(grid, crop(std::move(speed), work_size, size)));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_debris_command(CLI::App& app) {
    const auto settings = std::make_shared<DebrisCommand>();
    Command command(app, "debris", "Strew rocks that slide downhill and come to rest", {"DebrisSimulation"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output,
                   "Heights with the rocks on them: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command.number("--count", settings->count, {0, 1e9}, "", "Number of rocks");
    command.number("--max-size", settings->max_size, above_0, "metres", "Largest radius of a rock")
        .otherwise("8 cells");
    command.number("--min-size", settings->min_size, {0, 1e30}, "metres", "Smallest radius of a rock")
        .otherwise("a quarter of the largest");
    command.number("--friction", settings->friction, {0, 1e6}, "", "Coefficient of the sliding friction")
        .otherwise("0.5, and without --max-size at most the slope that a quarter of the terrain exceeds");
    command.number("--restitution", settings->restitution, from_0_to_1, "",
                   "Share of a bounce that is thrown back, 0 to 1");
    command.flag("--draw-unmoved", settings->draw_unmoved, "Draw rocks also that stay where they are born");
    command.flag("--favour-small", settings->favour_small, "Most rocks are small and very few are large");
    command.number("--seed", settings->seed, any_seed, "", "Another number strews other rocks");
    command
        .number("--window", settings->window, {-2147483648.0, 2147483647.0}, "cells",
                "Work on this part of the grid: column, row, columns, rows", 4)
        .otherwise("all");
    command.number("--resolution", settings->resolution, {1, 46340}, "cells", "Cells along the longer side")
        .otherwise("those of the file");
    command.output("--rock-id-out", settings->rock_id_output,
                   "Also write a number of its own for each rock, 0 elsewhere");
    command.output("--coverage-out", settings->coverage_output, "Also write 1 where a rock lies, 0 elsewhere");
    command.output("--speed-out", settings->speed_output, "Also write how fast rocks have crossed the cells, in km/s");
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn debris land.tif rocks.tif --count 2000 --favour-small",
                    "Two thousand rocks that have come to rest");
    command.example("tarn debris land.tif rocks.tif --window 173 96 6 5 --resolution 512 --max-size 60",
                    "Rocks up to 60 m on a close-up of six by five cells");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
