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

struct ShapeCommand {
    std::string input;
    GridOutput output{"heights after slope failure", unit_of_heights};
    std::string mask;
    Fit fit = Fit::pad;
    CommonOptions common;

    double feature_size = 0; ///< metres; 0 for 1/32 of the longer side
    float rate = -0.5f;
    float blend = 1;
    float detail_gain = 1;
    // The library's own parameters of scale; 0 where they follow from the ones above.
    float level_divisor = 0;
    float scale_numerator = 0;
    float level_multiplier = 0;

    void run(Outputs& outputs);

  private:
    thermal_shaper_Parameters make_parameters(const Grid& grid, CellSize cell) const;
    GridSize fitted_size(const thermal_shaper_Parameters& parameters) const;
};

/// The library measures heights at a level of w cells a row in units of scale_numerator / (w * level_divisor), and
/// makes log2(width * level_multiplier / level_divisor) levels. Here the unit is the size of a cell, so that slopes are
/// true ones, and the coarsest level's cell is about as large as the widest landform to work on.
thermal_shaper_Parameters ShapeCommand::make_parameters(const Grid& grid, CellSize cell) const {
    const double height_unit = common.height_unit_of(grid);
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

void ShapeCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid grid = read_grid(input);
    const CellSize cell = common.cell_of(grid);
    square_side(cell); // tells of oblong cells
    thermal_shaper_Parameters parameters = make_parameters(grid, cell);
    const GridSize size{grid.width, grid.height};
    const GridSize work_size = fitted_size(parameters);
    Cells mask_cells;
    if (!mask.empty())
        mask_cells = read_mask(mask, size);

    Cells refitted;
    if (work_size != size) {
        print_note(format_text("%d x %d cells are %s to %d x %d for %s", size.width, size.height,
                               fit == Fit::pad ? "padded" : "resampled", work_size.width, work_size.height,
                               "the levels of the pyramid, and brought back afterwards"));
        const auto refit = [&](const Cells& cells) {
            return fit == Fit::pad ? pad(cells, size, work_size) : resample(cells, size, work_size);
        };
        refitted = refit(grid.cells);
        if (!mask_cells.empty())
            mask_cells = refit(mask_cells);
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

    outputs.check_grids(grid);
    const Cells& before = work_size == size ? grid.cells : refitted;
    Cells after = before;
    host.run(format_text("shaping %d x %d cells", parameters.width, parameters.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ThermalShaper_Process(queue, after.data(), mask_cells.empty() ? nullptr : mask_cells.data(),
                                              &parameters, callbacks);
             });

    note_if_unchanged(before, after, "try a larger --rate or --blend, or a smaller --cell-size");
    if (work_size == size) {
        grid.cells = std::move(after);
    } else if (fit == Fit::pad) {
        grid.cells = crop(std::move(after), work_size, size);
    } else {
        // Only the change is brought back, so that the grid keeps the detail that resampling takes away.
        for (std::size_t i = 0; i < after.size(); ++i)
            after[i] -= before[i];
        const Cells change = resample(after, work_size, size);
        for (std::size_t i = 0; i < change.size(); ++i)
            grid.cells[i] += change[i];
    }
    common.draw_preview(outputs, host, grid, cell);
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_shape_command(CLI::App& app) {
    const auto settings = std::make_shared<ShapeCommand>();
    Command command(app, "shape", "Let slopes fail, at every scale at once", {"ThermalShaper_Process"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output, "Shaped grid: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command
        .number("--feature-size", settings->feature_size, above_0, "metres",
                "Width of the largest landforms to work on; each doubling adds a level to the pyramid")
        .otherwise("1/32 of the longer side");
    command.number("--rate", settings->rate, {-1000, 1000}, "",
                   "Strength of one step; below 0 slopes wear back from their crests, above 0 they fill up from their "
                   "feet");
    command.number("--blend", settings->blend, from_0_to_1, "", "Part of the result in the output, 0 to 1");
    command.number("--detail-gain", settings->detail_gain, {0, 1000}, "",
                   "Factor on the detail that each finer level adds back");
    command.input("--mask", settings->mask, "grid", "share",
                  "Strength per cell, 0 to 1; integer grids over 1 are scaled to that");
    command
        .choice<Fit>("--fit", settings->fit, {{"pad", Fit::pad}, {"resample", Fit::resample}, {"none", Fit::none}},
                     "How a size that cannot be halved often enough is met")
        .advanced();
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    for (const auto& [name, value] : {std::pair{"--level-divisor", &settings->level_divisor},
                                      std::pair{"--scale-numerator", &settings->scale_numerator},
                                      std::pair{"--level-multiplier", &settings->level_multiplier}})
        command.number(name, *value, above_0, "", "Sets the library's parameter of scale")
            .otherwise("from the sizes")
            .advanced();
    command.example("tarn shape land.tif shaped.tif --preview shaped.png",
                    "Slopes wear back from their crests; a picture of the result");
    command.example("tarn shape land.tif filled.tif --rate 0.5 --feature-size 500",
                    "Slopes fill up from their feet, on forms up to 500 m wide");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
