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

struct WeatherCommand {
    std::string input;
    std::string output;
    std::string erosion_mask;
    std::string absorption_mask;
    std::string depth_output;
    std::string wear_output;
    std::string preview;
    std::string device = "cpu";
    GroundScale ground;

    float duration = 0.02f;
    float erosion_rate = 1;
    float curvature_bias = 0.5f;
    float repose_angle = 15;
    double feature_size = 0; ///< metres; 0 for 1/32 of the longer side
    float absorption = 0;

    void run();

  private:
    std::vector<float> padded_mask(const std::string& name, GridSize size, GridSize work_size) const;
    void write(const std::string& name, Grid grid, const std::vector<float>& cells, GridSize work_size) const;
};

/// No cells if there is no mask.
std::vector<float> WeatherCommand::padded_mask(const std::string& name, GridSize size, GridSize work_size) const {
    return name.empty() ? std::vector<float>() : pad(read_mask(name, size), size, work_size);
}

/// Writes `cells`, cut to the size of `grid`, with the georeference of that. Does nothing without a name.
void WeatherCommand::write(const std::string& name, Grid grid, const std::vector<float>& cells,
                           GridSize work_size) const {
    if (name.empty())
        return;
    grid.cells = crop(cells, work_size, {grid.width, grid.height});
    write_grid(name, grid);
}

void WeatherCommand::run() {
    check_grid_name(output);
    for (const std::string& name : {depth_output, wear_output})
        if (!name.empty())
            check_grid_name(name);
    check_folder(preview);
    Host host(device);
    Grid grid = read_grid(input);
    const CellSize cell = ground.cell_of(grid);
    const double cell_size = std::sqrt(cell.x * cell.y);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y, cell_size));
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
    parameters.terrain_height = static_cast<float>(ground.height_unit_of(grid));
    parameters.absorption = absorption;
    parameters.use_erosion_mask = erosion_mask.empty() ? 0 : 1;
    parameters.use_absorption_mask = absorption_mask.empty() ? 0 : 1;
    print_detail(format_text("width %d, height %d, feature_size %g, terrain_size %g, terrain_height %g",
                             parameters.width, parameters.height, static_cast<double>(parameters.feature_size),
                             static_cast<double>(parameters.terrain_size),
                             static_cast<double>(parameters.terrain_height)));

    const std::vector<float> erosion = padded_mask(erosion_mask, size, work_size);
    const std::vector<float> absorbing = padded_mask(absorption_mask, size, work_size);
    std::vector<float> heights = pad(grid.cells, size, work_size);
    std::vector<float> depth(heights.size()), wear(heights.size());
    host.run(format_text("weathering %d x %d cells", work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ThermalSimulation(queue, heights.data(), depth.data(), wear.data(),
                                          erosion.empty() ? nullptr : erosion.data(),
                                          absorbing.empty() ? nullptr : absorbing.data(), &parameters, callbacks);
             });

    write(output, grid, heights, work_size);
    write(depth_output, grid, depth, work_size);
    write(wear_output, grid, wear, work_size);
    if (!preview.empty()) {
        grid.cells = crop(heights, work_size, size);
        ShadeOptions shade;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(preview, grid.width, grid.height, 3, shade_relief(host, grid, cell, shade));
    }
}

} // namespace

void add_weather_command(CLI::App& app) {
    const auto settings = std::make_shared<WeatherCommand>();
    CLI::App* const command =
        app.add_subcommand("weather", "Weather slopes: loosen what is too steep and let it slide");
    command->add_option("IN", settings->input, "Height grid")->required();
    command
        ->add_option("OUT", settings->output, "Heights after the run: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr")
        ->required();
    const auto add_number = [&](const char* name, float& value, double lowest, double highest, const char* text) {
        command->add_option(name, value, text)
            ->check(finite_number(lowest, highest))
            ->type_name("NUMBER")
            ->capture_default_str();
    };
    add_number("--duration", settings->duration, 0, 1000, "Length of the run; 1 is 2560 iterations at coarse levels");
    add_number("--erosion-rate", settings->erosion_rate, 0, 1e6, "Strength of the loosening");
    add_number("--curvature-bias", settings->curvature_bias, 0, 1,
               "0: all slopes above the repose angle loosen alike; 1: steep and convex ones more");
    add_number("--repose-angle", settings->repose_angle, 0, 90,
               "Degrees; slopes above the arc tangent of this angle in radians slide");
    add_number("--absorption", settings->absorption, 0, 1, "Share of the arriving material that is lost on the way");
    command
        ->add_option("--feature-size", settings->feature_size,
                     "Largest landform to work on, in metres; a thirty-second of the longer side if not given")
        ->check(positive_number())
        ->type_name("METRES");
    const auto add_grid = [&](const char* name, std::string& value, const char* text) {
        command->add_option(name, value, text)->type_name("GRID");
    };
    add_grid("--erosion-mask", settings->erosion_mask, "Factor on the loosening");
    add_grid("--absorption-mask", settings->absorption_mask, "Factor on the absorption");
    add_grid("--depth-out", settings->depth_output, "Also write the depth of the loose cover");
    add_grid("--wear-out", settings->wear_output, "Also write how much ground was loosened");
    command->add_option("--preview", settings->preview, "Also draw the result as a shaded picture")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
