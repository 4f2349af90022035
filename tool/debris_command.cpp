#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include <CLI/CLI.hpp>
#include <tarn/oneapi.h>

#include "close_up.hpp"
#include "grid.hpp"
#include "host.hpp"
#include "message.hpp"
#include "options.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

/// A grid and the size of its cells on the ground.
struct Terrain {
    Grid grid;
    CellSize cell;
};

struct DebrisCommand {
    std::string input;
    std::string output;
    std::string rock_id_output;
    std::string coverage_output;
    std::string speed_output;
    std::string preview;
    std::string device = "cpu";
    GroundScale ground;
    std::vector<int> window; ///< column, row, columns, rows; empty for all of the grid
    int resolution = 0;      ///< cells of the longer side; 0 for those of the file

    std::uint32_t count = 1000;
    double max_size = 0;  ///< metres; 0 for 8 cells
    double min_size = -1; ///< metres; below 0 for a quarter of the largest
    float friction = 0.5f;
    float restitution = 0.3f;
    bool draw_unmoved = false;
    bool favour_small = false;
    std::uint32_t seed = 1;

    void run();

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
    const CellSize cell = ground.cell_of(grid);
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

void DebrisCommand::run() {
    check_grid_name(output);
    for (const std::string& name : {rock_id_output, coverage_output, speed_output})
        if (!name.empty())
            check_grid_name(name);
    check_folder(preview);
    Host host(device);
    auto [grid, cell] = read_terrain();
    const double cell_size = std::sqrt(cell.x * cell.y);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y, cell_size));
    const GridSize size{grid.width, grid.height};
    const GridSize work_size{std::max(size.width, size.height), std::max(size.width, size.height)};
    if (work_size != size)
        print_note(format_text("%d x %d cells are padded to %d x %d, and brought back afterwards: not all rocks are "
                               "born on the terrain",
                               size.width, size.height, work_size.width, work_size.height));

    debris_Parameters parameters{};
    parameters.resolution = static_cast<std::uint32_t>(work_size.width);
    parameters.terrain_size = static_cast<float>(cell_size * work_size.width);
    parameters.terrain_height = static_cast<float>(ground.height_unit_of(grid));
    parameters.count = count;
    parameters.max_size = static_cast<float>(max_size > 0 ? max_size : 8 * cell_size);
    parameters.min_size = min_size >= 0 ? static_cast<float>(min_size) : parameters.max_size * 0.25f;
    parameters.friction = friction;
    parameters.restitution = restitution;
    parameters.draw_unmoved = draw_unmoved ? 1 : 0;
    parameters.favour_small = favour_small ? 1 : 0;
    parameters.seed = seed;
    print_detail(format_text("resolution %u, terrain_size %g, terrain_height %g, max_size %g, min_size %g",
                             parameters.resolution, static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height), static_cast<double>(parameters.max_size),
                             static_cast<double>(parameters.min_size)));

    std::vector<float> heights = pad(grid.cells, size, work_size);
    constexpr float untouched = -1;
    std::vector<float> rock_id(heights.size(), untouched), coverage(heights.size()), speed(heights.size());
    host.run(format_text("strewing %u rocks over %d x %d cells", count, work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) -> std::uint32_t {
                 DebrisSimulation(queue, heights.data(), rock_id.data(), coverage.data(), speed.data(), &parameters,
                                  callbacks);
                 // A refusal shows in the grids alone: they stay as they were.
                 return rock_id.front() == untouched ? status_failed : status_ok;
             });

    const auto write = [&, &terrain = grid](const std::string& name, const std::vector<float>& cells,
                                            bool are_heights) {
        if (name.empty())
            return;
        Grid result = terrain;
        result.cells = crop(cells, work_size, size);
        if (!are_heights)
            result.unit.clear();
        write_grid(name, result);
    };
    write(output, heights, true);
    write(rock_id_output, rock_id, false);
    write(coverage_output, coverage, false);
    write(speed_output, speed, false);
    if (!preview.empty()) {
        grid.cells = crop(heights, work_size, size);
        ShadeOptions shade;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(preview, grid.width, grid.height, 3, shade_relief(host, grid, cell, shade));
    }
}

} // namespace

void add_debris_command(CLI::App& app) {
    const auto settings = std::make_shared<DebrisCommand>();
    CLI::App* const command = app.add_subcommand("debris", "Strew rocks that slide downhill and come to rest");
    command->add_option("IN", settings->input, "Height grid")->required();
    command
        ->add_option("OUT", settings->output,
                     "Heights with the rocks on them: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr")
        ->required();
    command->add_option("--count", settings->count, "Number of rocks")
        ->check(CLI::Range(std::uint32_t{0}, std::uint32_t{1000000000}))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--max-size", settings->max_size, "Largest radius of a rock [8 cells]")
        ->check(positive_number())
        ->type_name("METRES");
    command->add_option("--min-size", settings->min_size, "Smallest radius of a rock [a quarter of the largest]")
        ->check(finite_number(0, 1e30))
        ->type_name("METRES");
    command->add_option("--friction", settings->friction, "Coefficient of the sliding friction")
        ->check(finite_number(0, 1e6))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--restitution", settings->restitution, "Share of a bounce that is thrown back, 0 to 1")
        ->check(finite_number(0, 1))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_flag("--draw-unmoved", settings->draw_unmoved, "Draw rocks also that stay where they are born");
    command->add_flag("--favour-small", settings->favour_small, "Most rocks are small and very few are large");
    command->add_option("--seed", settings->seed, "Another number strews other rocks")
        ->check(CLI::Range(std::uint32_t{0}, std::uint32_t{0xFFFFFFFF}))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--window", settings->window, "Work on this part of the grid: column, row, columns, rows")
        ->expected(4)
        ->type_name("CELLS");
    command->add_option("--resolution", settings->resolution, "Cells along the longer side [those of the file]")
        ->check(CLI::Range(1, 46340))
        ->type_name("CELLS");
    const auto add_grid = [&](const char* name, std::string& value, const char* text) {
        command->add_option(name, value, text)->type_name("GRID");
    };
    add_grid("--rock-id-out", settings->rock_id_output, "Also write a number of its own for each rock, 0 elsewhere");
    add_grid("--coverage-out", settings->coverage_output, "Also write 1 where a rock lies, 0 elsewhere");
    add_grid("--speed-out", settings->speed_output, "Also write how fast rocks have crossed the cells, in km/s");
    command->add_option("--preview", settings->preview, "Also draw the result as a shaded picture")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
