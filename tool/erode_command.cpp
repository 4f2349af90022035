#include "commands.hpp"

#include <algorithm>
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

struct ErodeCommand {
    std::string input;
    std::string output;
    std::string spawn_map;
    std::string flow_output;
    std::string sediment_output;
    std::string wear_output;
    std::string preview;
    std::string device = "cpu";
    GroundScale ground;
    int columns = 0;         ///< 0 for those of the input
    double feature_size = 0; ///< metres; 0 for a twentieth of the longer side
    parallel_erosion_Parameters parameters = defaults();

    void run();

  private:
    static parallel_erosion_Parameters defaults();
    void write(const std::string& name, Grid grid, const std::vector<float>& cells, GridSize work_size) const;
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

/// Writes `cells`, cut to the size of `grid`, with the georeference of that. Does nothing without a name.
void ErodeCommand::write(const std::string& name, Grid grid, const std::vector<float>& cells,
                         GridSize work_size) const {
    if (name.empty())
        return;
    grid.cells = crop(cells, work_size, {grid.width, grid.height});
    write_grid(name, grid);
}

void ErodeCommand::run() {
    check_grid_name(output);
    for (const std::string& name : {flow_output, sediment_output, wear_output})
        if (!name.empty())
            check_grid_name(name);
    check_folder(preview);
    Host host(device);
    Grid grid = read_grid(input);
    CellSize cell = ground.cell_of(grid);
    if (columns > 0) {
        const double side = cell.x * grid.width / columns;
        const int rows = static_cast<int>(std::clamp(std::round(cell.y * grid.height / side), 1.0, 1e6));
        cell.x = side;
        cell.y = cell.y * grid.height / rows;
        grid = stretched(grid, {columns, rows});
    }
    const double cell_size = std::sqrt(cell.x * cell.y);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y, cell_size));
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
    parameters.terrain_height = static_cast<float>(ground.height_unit_of(grid));
    parameters.feature_size = static_cast<float>(feature);
    print_detail(format_text("width %d, height %d, terrain_size %g, terrain_height %g, feature_size %g",
                             work_size.width, work_size.height, static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height),
                             static_cast<double>(parameters.feature_size)));

    std::vector<float> births;
    if (!spawn_map.empty())
        births = pad(read_mask(spawn_map, size), size, work_size);
    std::vector<float> heights = pad(grid.cells, size, work_size);
    std::vector<float> flow(heights.size()), sediment(heights.size()), wear(heights.size());
    host.run(format_text("eroding %d x %d cells", work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ParallelErosionSimulation(queue, heights.data(), births.empty() ? nullptr : births.data(),
                                                  flow.data(), sediment.data(), nullptr, wear.data(), &parameters,
                                                  callbacks);
             });

    write(output, grid, heights, work_size);
    write(sediment_output, grid, sediment, work_size);
    write(wear_output, grid, wear, work_size);
    Grid visits = grid;
    visits.unit.clear();
    write(flow_output, visits, flow, work_size);
    if (!preview.empty()) {
        grid.cells = crop(heights, work_size, size);
        ShadeOptions shade;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(preview, grid.width, grid.height, 3, shade_relief(host, grid, cell, shade));
    }
}

} // namespace

void add_erode_command(CLI::App& app) {
    const auto settings = std::make_shared<ErodeCommand>();
    CLI::App* const command = app.add_subcommand("erode", "Erode the terrain with running water");
    command->add_option("IN", settings->input, "Height grid")->required();
    command
        ->add_option("OUT", settings->output, "Heights after the run: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr")
        ->required();
    parallel_erosion_Parameters& p = settings->parameters;
    const auto add_number = [&](const char* name, float& value, double lowest, double highest, const char* text,
                                const char* type = "NUMBER") {
        command->add_option(name, value, text)
            ->check(finite_number(lowest, highest))
            ->type_name(type)
            ->capture_default_str();
    };
    const auto add_angle = [&](const char* name, float& value, const char* text) {
        add_number(name, value, 0, 90, text, "DEGREES");
    };
    add_number("--iterations", p.iterations, 0, 1e6, "Rounds of water at the coarse levels");
    command->add_option("--seed", p.seed, "Seed of the random numbers")->type_name("NUMBER")->capture_default_str();
    add_number("--erosion-strength", p.erosion_strength, 0, 100,
               "How much the water carries; above 1 it digs pits and heaps");
    add_number("--constant-capacity", p.constant_capacity, 0, 1,
               "0: water carries in proportion to its fall; 1: the same everywhere");
    add_number("--shaping-strength", p.shaping_strength, 0, 1, "Strength of the shaping after each round");
    add_number("--shaping-sharpness", p.shaping_sharpness, 0, 1, "0: shaping smooths; 1: it only cuts steep faces");
    add_number("--shaping-detail", p.shaping_detail, 0, 1,
               "Shaping fades on features smaller than this share of the largest; 0: on none");
    add_number("--fill-slope-scale", p.fill_slope_scale, 0, 1000,
               "Factor on the slope that is held against fill-angle");
    add_angle("--fill-angle", p.fill_angle, "Hollows on gentler slopes are filled in full");
    add_number("--plain-deposition", p.plain_deposition, 0, 100, "Share of its load that water drops on plains");
    add_angle("--plain-angle", p.plain_angle, "Gentler slopes are plains");
    add_number("--terrace-deposition", p.terrace_deposition, 0, 100, "Share of its load that water drops on terraces");
    add_angle("--terrace-angle", p.terrace_angle, "Slopes about as steep become terraces");
    command
        ->add_option("--feature-size", settings->feature_size,
                     "Largest landform to work on, in metres; a twentieth of the longer side if not given")
        ->check(positive_number())
        ->type_name("METRES");
    command
        ->add_option("--columns", settings->columns,
                     "Stretch the terrain to so many columns first, and to the rows that make its cells square")
        ->check(CLI::Range(1, 1 << 20))
        ->type_name("CELLS");
    const auto add_grid = [&](const char* name, std::string& value, const char* text) {
        command->add_option(name, value, text)->type_name("GRID");
    };
    add_grid("--spawn-map", settings->spawn_map, "Probability that water springs at a cell");
    add_grid("--flow-out", settings->flow_output, "Also write where the water ran: 1 is a thousand visits or more");
    add_grid("--sediment-out", settings->sediment_output, "Also write the depth of the sediment");
    add_grid("--wear-out", settings->wear_output, "Also write how much the water has cut, less what was shaped away");
    command->add_option("--preview", settings->preview, "Also draw the result as a shaded picture")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
