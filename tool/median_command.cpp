#include "commands.hpp"

#include <algorithm>
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

/// The library filters squares of whole tiles of this side, up to the largest one; it has no status to refuse others.
constexpr int tile_side = 32;
constexpr int largest_side = 46336;

struct MedianCommand {
    std::string input;
    GridOutput output{"values after a median filter", unit_of_heights};
    CommonOptions common;

    int radius = 3;
    std::uint32_t iterations = 1;

    void run(Outputs& outputs);
};

void MedianCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid grid = read_grid(input);
    const GridSize size{grid.width, grid.height};
    const int longer = std::max(size.width, size.height);
    if (longer > largest_side)
        throw ToolError(ExitCode::failed,
                        format_text("a grid of more than %d cells a side cannot be filtered", largest_side));
    const GridSize work_size = round_up({longer, longer}, tile_side);
    if (work_size != size)
        print_note(format_text("%d x %d cells are padded to %d x %d, a square of tiles, and brought back afterwards",
                               size.width, size.height, work_size.width, work_size.height));

    const median_filter_Parameters parameters{static_cast<std::uint32_t>(work_size.width), radius, iterations};
    std::vector<float> cells = pad(grid.cells, size, work_size);
    outputs.check_grids(grid);
    host.run(format_text("filtering %d x %d cells", work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks*) { return MedianFilter(queue, cells.data(), &parameters); });

    grid.cells = crop(cells, work_size, size);
    common.draw_preview(outputs, host, grid);
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_median_command(CLI::App& app) {
    const auto settings = std::make_shared<MedianCommand>();
    Command command(app, "median", "Smooth a grid by a round median filter", {"MedianFilter"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid, or any other");
    command.output("OUT", settings->output, "Filtered grid: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command.number("--radius", settings->radius, {1, 8}, "cells", "Radius of the disc, 1 to 8");
    command.number("--iterations", settings->iterations, {0, 10000}, "",
                   "How often the filter runs; 0 gives the input back");
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
