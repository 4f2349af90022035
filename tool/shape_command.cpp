#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <map>
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

struct ShapeCommand {
    std::string input;
    std::string output;
    std::string mask;
    std::string preview;
    std::string device = "cpu";
    Fit fit = Fit::pad;
    GroundScale ground;

    double feature_size = 0; ///< metres; 0 for 1/32 of the longer side
    float rate = -0.5f;
    float blend = 1;
    float detail_gain = 1;
    // The library's own parameters of scale; 0 where they follow from the ones above.
    float level_divisor = 0;
    float scale_numerator = 0;
    float level_multiplier = 0;

    void run();

  private:
    thermal_shaper_Parameters make_parameters(const Grid& grid, CellSize cell) const;
    GridSize fitted_size(const thermal_shaper_Parameters& parameters) const;
};

/// The library measures heights at a level of w cells a row in units of scale_numerator / (w * level_divisor), and
/// makes log2(width * level_multiplier / level_divisor) levels. Here the unit is the size of a cell, so that slopes are
/// true ones, and the coarsest level's cell is about as large as the widest landform to work on.
thermal_shaper_Parameters ShapeCommand::make_parameters(const Grid& grid, CellSize cell) const {
    const double height_unit = ground.height_unit_of(grid);
    const double cell_size = std::sqrt(cell.x * cell.y);
    const double row_length = cell_size * grid.width;
    const double divisor = level_divisor > 0 ? static_cast<double>(level_divisor) : height_unit;
    const double feature = feature_size > 0 ? feature_size : std::max(row_length, cell_size * grid.height) / 32;

    thermal_shaper_Parameters parameters{};
    parameters.width = grid.width;
    parameters.height = grid.height;
    parameters.level_divisor = static_cast<float>(divisor);
    parameters.scale_numerator =
        scale_numerator > 0 ? scale_numerator : static_cast<float>(row_length * divisor / height_unit);
    parameters.level_multiplier =
        level_multiplier > 0 ? level_multiplier : static_cast<float>(feature / row_length * divisor);
    parameters.blend = blend;
    parameters.rate = rate;
    parameters.detail_gain = detail_gain;
    return parameters;
}

/// Every level but the coarsest is halved: no cell is lost if its sides are even.
GridSize ShapeCommand::fitted_size(const thermal_shaper_Parameters& parameters) const {
    const GridSize size{parameters.width, parameters.height};
    if (fit == Fit::none)
        return size;
    const double levels =
        std::ceil(std::log2(static_cast<double>(parameters.width) * static_cast<double>(parameters.level_multiplier) /
                            static_cast<double>(parameters.level_divisor)));
    const double most_halvings = std::floor(std::log2(std::min(size.width, size.height)));
    return round_up(size, 1 << static_cast<int>(std::clamp(levels - 1, 0.0, most_halvings)));
}

void ShapeCommand::run() {
    check_grid_name(output);
    check_folder(preview);
    Host host(device);
    Grid grid = read_grid(input);
    const CellSize cell = ground.cell_of(grid);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y,
                               std::sqrt(cell.x * cell.y)));
    thermal_shaper_Parameters parameters = make_parameters(grid, cell);
    const GridSize size{grid.width, grid.height};
    const GridSize work_size = fitted_size(parameters);
    std::vector<float> mask_cells;
    if (!mask.empty())
        mask_cells = read_mask(mask, size);

    std::vector<float> before = grid.cells;
    if (work_size != size) {
        print_note(format_text("%d x %d cells are %s to %d x %d for %s", size.width, size.height,
                               fit == Fit::pad ? "padded" : "resampled", work_size.width, work_size.height,
                               "the levels of the pyramid, and brought back afterwards"));
        const auto change_size = fit == Fit::pad ? pad : resample;
        before = change_size(before, size, work_size);
        if (!mask_cells.empty())
            mask_cells = change_size(mask_cells, size, work_size);
        if (fit == Fit::pad) { // the rows grow longer, the cells stay as large as they are
            const float growth = static_cast<float>(work_size.width) / static_cast<float>(size.width);
            parameters.scale_numerator *= growth;
            parameters.level_multiplier /= growth;
        }
        parameters.width = work_size.width;
        parameters.height = work_size.height;
    }
    print_detail(
        format_text("width %d, height %d, level_divisor %g, scale_numerator %g, level_multiplier %g, blend %g, "
                    "rate %g, detail_gain %g",
                    parameters.width, parameters.height, static_cast<double>(parameters.level_divisor),
                    static_cast<double>(parameters.scale_numerator), static_cast<double>(parameters.level_multiplier),
                    static_cast<double>(parameters.blend), static_cast<double>(parameters.rate),
                    static_cast<double>(parameters.detail_gain)));

    std::vector<float> after = before;
    host.run(format_text("shaping %d x %d cells", parameters.width, parameters.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ThermalShaper_Process(queue, after.data(), mask_cells.empty() ? nullptr : mask_cells.data(),
                                              &parameters, callbacks);
             });

    if (work_size == size) {
        grid.cells = std::move(after);
    } else if (fit == Fit::pad) {
        grid.cells = crop(after, work_size, size);
    } else {
        // Only the change is brought back, so that the grid keeps the detail that resampling takes away.
        for (std::size_t i = 0; i < after.size(); ++i)
            after[i] -= before[i];
        const std::vector<float> change = resample(after, work_size, size);
        for (std::size_t i = 0; i < change.size(); ++i)
            grid.cells[i] += change[i];
    }
    write_grid(output, grid);
    if (!preview.empty()) {
        ShadeOptions shade;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(preview, grid.width, grid.height, 3, shade_relief(host, grid, cell, shade));
    }
}

} // namespace

void add_shape_command(CLI::App& app) {
    const auto settings = std::make_shared<ShapeCommand>();
    CLI::App* const command = app.add_subcommand("shape", "Let slopes fail, at every scale at once");
    command->add_option("IN", settings->input, "Height grid")->required();
    command->add_option("OUT", settings->output, "Shaped grid: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr")
        ->required();
    command->add_option("--mask", settings->mask, "Strength per cell, 0 to 1; integer grids over 1 are scaled to that")
        ->type_name("GRID");
    command->add_option("--preview", settings->preview, "Also draw the result as a shaded picture")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    command
        ->add_option("--fit", settings->fit,
                     "How a size that cannot be halved often enough is met: pad, resample or none")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, Fit>{{"pad", Fit::pad}, {"resample", Fit::resample}, {"none", Fit::none}},
            CLI::ignore_case))
        ->type_name("HOW")
        ->default_str("pad");
    command
        ->add_option("--feature-size", settings->feature_size,
                     "Width of the largest landforms to work on [1/32 of the longer side]")
        ->check(positive_number())
        ->type_name("METRES");
    command
        ->add_option("--rate", settings->rate,
                     "Strength of one step; below 0 slopes wear back from their crests, above 0 they fill up from "
                     "their feet")
        ->check(finite_number(-1000, 1000))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--blend", settings->blend, "Part of the result in the output, 0 to 1")
        ->check(finite_number(0, 1))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--detail-gain", settings->detail_gain, "Factor on the detail that each finer level adds back")
        ->check(finite_number(0, 1000))
        ->type_name("FACTOR")
        ->capture_default_str();
    settings->ground.add_options(*command);
    const std::string own = "The library's parameters of scale, in place of those that follow from the sizes above";
    for (const auto& [name, value] : {std::pair{"--level-divisor", &settings->level_divisor},
                                      std::pair{"--scale-numerator", &settings->scale_numerator},
                                      std::pair{"--level-multiplier", &settings->level_multiplier}})
        command->add_option(name, *value, "Sets the library's parameter in place of the one derived from the sizes")
            ->check(positive_number())
            ->type_name("NUMBER")
            ->group(own);
    command->callback([settings] { settings->run(); });
}
