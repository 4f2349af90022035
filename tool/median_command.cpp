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

/// It cannot be asked to stop, so it gets the grid in squares that take no more than a tenth of a second each. One tile
/// around a square is more than the largest disc reaches.
constexpr int square_side_cells = 24 * tile_side;
constexpr int margin = tile_side;

/// Filters a square grid once.
std::uint32_t filter_once(SyclQueue* queue, const HostCallbacks* callbacks, Cells& cells, int side, int radius,
                          double percent_before, double percent_after) {
    if (side <= square_side_cells) {
        const median_filter_Parameters parameters{static_cast<std::uint32_t>(side), radius, 1};
        return MedianFilter(queue, cells.data(), &parameters);
    }
    const median_filter_Parameters parameters{square_side_cells, radius, 1};
    constexpr int step = square_side_cells - 2 * margin;
    const auto index = [side](int x, int y) {
        return static_cast<std::size_t>(std::clamp(y, 0, side - 1)) * static_cast<std::size_t>(side) +
               static_cast<std::size_t>(std::clamp(x, 0, side - 1));
    };
    const Cells before = cells;
    Cells square(static_cast<std::size_t>(square_side_cells) * square_side_cells);
    for (int top = 0; top < side; top += step)
        for (int left = 0; left < side; left += step) {
            auto cell = square.begin();
            for (int y = top - margin; y < top + step + margin; ++y)
                for (int x = left - margin; x < left + step + margin; ++x)
                    *cell++ = before[index(x, y)];
            if (const std::uint32_t status = MedianFilter(queue, square.data(), &parameters); status != status_ok)
                return status;
            const int columns = std::min(step, side - left);
            for (int y = top; y < std::min(top + step, side); ++y)
                std::copy_n(square.begin() + std::ptrdiff_t{y - top + margin} * square_side_cells + margin, columns,
                            cells.begin() + static_cast<std::ptrdiff_t>(index(left, y)));
            callbacks->progress(percent_before + (percent_after - percent_before) * top / side);
            if (callbacks->is_cancelled())
                return status_cancelled;
        }
    return status_ok;
}

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

    outputs.check_grids(grid);
    Cells cells = pad(std::move(grid.cells), size, work_size);
    host.run(format_text("filtering %d x %d cells", work_size.width, work_size.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) -> std::uint32_t {
                 for (std::uint32_t i = 0; i < iterations && !callbacks->is_cancelled(); ++i) {
                     callbacks->progress(100.0 * i / iterations);
                     if (const std::uint32_t status = filter_once(queue, callbacks, cells, work_size.width, radius,
                                                                  100.0 * i / iterations, 100.0 * (i + 1) / iterations);
                         status != status_ok)
                         return status;
                 }
                 return status_ok;
             });

    grid.cells = crop(std::move(cells), work_size, size);
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
    command.example("tarn median land.tif smooth.tif --radius 2", "Spikes and pits go, edges stay");
    command.example("tarn median land.tif rounder.tif --radius 6 --iterations 3", "Only the large forms are left");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
