#include "commands.hpp"

#include <algorithm>
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

/// The library filters squares of whole tiles of this side, up to the largest one; it has no status to refuse others.
constexpr int tile_side = 32;
constexpr int largest_side = 46336;

struct MedianCommand {
    std::string input;
    std::string output;
    std::string preview;
    std::string device = "cpu";
    GroundScale ground;

    int radius = 3;
    std::uint32_t iterations = 1;

    void run();
};

void MedianCommand::run() {
    check_grid_name(output);
    check_folder(preview);
    Host host(device);
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
    host.run(format_text("filtering %d x %d cells", work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks*) { return MedianFilter(queue, cells.data(), &parameters); });

    grid.cells = crop(cells, work_size, size);
    write_grid(output, grid);
    if (!preview.empty()) {
        ShadeOptions shade;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(preview, grid.width, grid.height, 3, shade_relief(host, grid, ground.cell_of(grid), shade));
    }
}

} // namespace

void add_median_command(CLI::App& app) {
    const auto settings = std::make_shared<MedianCommand>();
    CLI::App* const command = app.add_subcommand("median", "Smooth a grid by a round median filter");
    command->add_option("IN", settings->input, "Height grid, or any other")->required();
    command->add_option("OUT", settings->output, "Filtered grid: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr")
        ->required();
    command->add_option("--radius", settings->radius, "Radius of the disc, 1 to 8")
        ->check(finite_number(1, 8))
        ->type_name("CELLS")
        ->capture_default_str();
    command->add_option("--iterations", settings->iterations, "How often the filter runs; 0 gives the input back")
        ->check(finite_number(0, 10000))
        ->type_name("NUMBER")
        ->capture_default_str();
    command->add_option("--preview", settings->preview, "Also draw the result as a shaded picture")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
