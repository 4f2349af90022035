#include "commands.hpp"

#include <algorithm>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <utility>

#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "resample.hpp"

namespace {

using Instances = std::vector<stamp_instancer_Instance>;

struct StampCommand {
    std::string input;
    GridOutput output{"heights with stamps", unit_of_heights};
    std::string stamps;
    std::string points;
    GridOutput ids_output{"random number of the stamp that raised a cell, 0 for none", ""};
    CommonOptions common;

    int stamp_height = 0; ///< 0: one stamp takes the whole file
    float stamp_scale = 1;
    std::optional<int> count;
    std::uint32_t seed = 1;

    void run(Outputs& outputs);

  private:
    Grid read_stamps() const;
};

/// A file of stamps one below the other: in memory they then follow one another, as the library takes them.
Grid StampCommand::read_stamps() const {
    Grid sheet = read_grid(stamps, Holes::are_zero);
    const int rows = stamp_height > 0 ? stamp_height : sheet.height;
    if (sheet.height % rows != 0)
        throw ToolError(ExitCode::usage, format_text("%d rows of '%s' are no whole number of stamps of %d rows",
                                                     sheet.height, stamps.c_str(), rows));
    for (float& cell : sheet.cells)
        cell *= stamp_scale;
    return sheet;
}

/// One instance a line: column, row and, if it is not 0, the number of the stamp. A # starts a comment.
Instances read_points(const std::string& name) {
    std::ifstream file(name);
    if (!file)
        throw ToolError(ExitCode::unreadable_input, "cannot read '" + name + "'");
    Instances instances;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        std::istringstream text(line.substr(0, line.find('#')));
        if ((text >> std::ws).eof())
            continue;
        stamp_instancer_Instance instance{};
        long long stamp = 0;
        bool is_good = static_cast<bool>(text >> instance.position.x >> instance.position.y);
        if (is_good && !(text >> std::ws).eof())
            is_good = text >> stamp && stamp >= 0 && stamp <= std::numeric_limits<std::int32_t>::max() &&
                      (text >> std::ws).eof();
        if (!is_good)
            throw ToolError(ExitCode::unreadable_input,
                            format_text("line %d of '%s' is not COLUMN ROW [STAMP]", number, name.c_str()));
        instance.stamp = static_cast<std::uint32_t>(stamp);
        instances.push_back(instance);
    }
    return instances;
}

/// Evenly over the grid, every stamp as often as the others.
Instances scatter(int count, std::uint32_t seed, GridSize size, int stamp_count) {
    std::mt19937 random(seed);
    const auto below = [&](int limit) {
        return static_cast<float>(static_cast<double>(random()) * 0x1p-32 * limit);
    };
    Instances instances(static_cast<std::size_t>(count));
    for (stamp_instancer_Instance& instance : instances) {
        instance.position.x = below(size.width);
        instance.position.y = below(size.height);
        instance.stamp = static_cast<std::uint32_t>(random() % static_cast<std::uint32_t>(stamp_count));
    }
    return instances;
}

void StampCommand::run(Outputs& outputs) {
    if (count.has_value() != points.empty())
        throw ToolError(ExitCode::usage, "either --count or --points must say where the stamps go");
    Host host(common.device);
    Grid grid = read_grid(input);
    const Grid sheet = read_stamps();

    stamp_instancer_Parameters parameters{};
    parameters.width = grid.width;
    parameters.height = grid.height;
    parameters.stamps_width = parameters.stamp_width = sheet.width;
    parameters.stamps_height = sheet.height;
    parameters.stamp_height = stamp_height > 0 ? stamp_height : sheet.height;
    const int stamp_count = sheet.height / parameters.stamp_height;
    Instances instances = count ? scatter(*count, seed, {grid.width, grid.height}, stamp_count) : read_points(points);
    if (instances.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
        throw ToolError(ExitCode::failed, "'" + points + "' has too many lines");
    parameters.instance_count = static_cast<std::int32_t>(instances.size());
    print_detail(format_text("width %d, height %d, %d stamps of %d x %d cells, %d instances", parameters.width,
                             parameters.height, stamp_count, parameters.stamp_width, parameters.stamp_height,
                             parameters.instance_count));

    Grid ids = with_cells(grid, Cells(grid.size(), 0.0f));
    outputs.check_grids(grid);
    host.run(format_text("stamping %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return StampInstancer_Populate(queue, grid.cells.data(), ids.cells.data(), sheet.cells.data(),
                                                instances.data(), &parameters, callbacks);
             });

    if (std::all_of(ids.cells.begin(), ids.cells.end(), [](float id) { return id == 0; }))
        print_note("nothing has changed: try more --count, a larger --stamp-scale, or --points on the grid");
    common.draw_preview(outputs, host, grid);
    outputs.add(ids_output, std::move(ids));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_stamp_command(CLI::App& app) {
    const auto settings = std::make_shared<StampCommand>();
    Command command(app, "stamp", "Place copies of small height patches on the terrain", {"StampInstancer_Populate"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output, "Stamped terrain: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command
        .input("--stamps", settings->stamps, "grid", unit_of_heights,
               "The patches, one below the other, as heights above the ground; 0 is a hole")
        .required();
    constexpr double most = std::numeric_limits<int>::max();
    command.number("--stamp-height", settings->stamp_height, {1, most}, "cells", "Rows of one patch")
        .otherwise("all of the file: one patch");
    command.number("--stamp-scale", settings->stamp_scale, {-1e9, 1e9}, "", "Factor on the patches' values");
    auto count = command.number("--count", settings->count, {0, most}, "", "Scatter so many at random");
    command.input("--points", settings->points, "points", "", "Text file with COLUMN ROW [STAMP] a line, all from 0")
        .excludes(count);
    command.number("--seed", settings->seed, any_seed, "", "Another seed, other places");
    command.output("--ids-out", settings->ids_output, "Also write a random number of each stamped patch; 0 is none");
    settings->common.add_preview(command);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn stamp land.tif hills.tif --stamps hill.tif --count 100",
                    "A hundred copies of a patch, scattered");
    command.example("tarn stamp land.tif hills.tif --stamps hill.tif --points places.txt",
                    "Copies where a text file says");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
