#include "commands.hpp"

#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <sstream>

#include <CLI/CLI.hpp>
#include <tarn/oneapi.h>

#include "grid.hpp"
#include "host.hpp"
#include "message.hpp"
#include "options.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

using Instances = std::vector<stamp_instancer_Instance>;

struct StampCommand {
    std::string input;
    std::string output;
    std::string stamps;
    std::string points;
    std::string ids_output;
    std::string preview;
    std::string device = "cpu";
    GroundScale ground;

    int stamp_height = 0; ///< 0: one stamp takes the whole file
    float stamp_scale = 1;
    int count = 0;
    std::uint32_t seed = 1;

    void run();

  private:
    Grid read_stamps() const;
};

/// A file of stamps one below the other: in memory they then follow one another, as the library takes them.
Grid StampCommand::read_stamps() const {
    Grid sheet = read_grid(stamps, 0.0f);
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
        return static_cast<float>(random() * 0x1p-32 * limit);
    };
    Instances instances(static_cast<std::size_t>(count));
    for (stamp_instancer_Instance& instance : instances) {
        instance.position.x = below(size.width);
        instance.position.y = below(size.height);
        instance.stamp = static_cast<std::uint32_t>(random() % static_cast<std::uint32_t>(stamp_count));
    }
    return instances;
}

void StampCommand::run() {
    check_grid_name(output);
    if (!ids_output.empty())
        check_grid_name(ids_output);
    check_folder(preview);
    Host host(device);
    Grid grid = read_grid(input);
    const Grid sheet = read_stamps();

    stamp_instancer_Parameters parameters{};
    parameters.width = grid.width;
    parameters.height = grid.height;
    parameters.stamps_width = parameters.stamp_width = sheet.width;
    parameters.stamps_height = sheet.height;
    parameters.stamp_height = stamp_height > 0 ? stamp_height : sheet.height;
    const int stamp_count = sheet.height / parameters.stamp_height;
    Instances instances =
        points.empty() ? scatter(count, seed, {grid.width, grid.height}, stamp_count) : read_points(points);
    if (instances.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
        throw ToolError(ExitCode::failed, "'" + points + "' has too many lines");
    parameters.instance_count = static_cast<std::int32_t>(instances.size());
    print_detail(format_text("width %d, height %d, %d stamps of %d x %d cells, %d instances", parameters.width,
                             parameters.height, stamp_count, parameters.stamp_width, parameters.stamp_height,
                             parameters.instance_count));

    Grid ids = grid;
    ids.unit.clear();
    ids.cells.assign(grid.size(), 0.0f);
    host.run(format_text("stamping %d x %d cells", grid.width, grid.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return StampInstancer_Populate(queue, grid.cells.data(), ids.cells.data(), sheet.cells.data(),
                                                instances.data(), &parameters, callbacks);
             });

    write_grid(output, grid);
    if (!ids_output.empty())
        write_grid(ids_output, ids);
    if (!preview.empty()) {
        ShadeOptions shade;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(preview, grid.width, grid.height, 3, shade_relief(host, grid, ground.cell_of(grid), shade));
    }
}

} // namespace

void add_stamp_command(CLI::App& app) {
    const auto settings = std::make_shared<StampCommand>();
    CLI::App* const command = app.add_subcommand("stamp", "Place copies of small height patches on the terrain");
    command->add_option("IN", settings->input, "Height grid")->required();
    command->add_option("OUT", settings->output, "Stamped terrain: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr")
        ->required();
    command
        ->add_option("--stamps", settings->stamps,
                     "The patches, one below the other, as heights above the ground; 0 is a hole")
        ->required()
        ->type_name("GRID");
    command->add_option("--stamp-height", settings->stamp_height, "Rows of one patch [all of the file: one patch]")
        ->check(finite_number(1, std::numeric_limits<int>::max()))
        ->type_name("CELLS");
    command->add_option("--stamp-scale", settings->stamp_scale, "Factor on the patches' values")
        ->check(finite_number(-1e9, 1e9))
        ->type_name("FACTOR")
        ->capture_default_str();
    CLI::Option_group* const placing = command->add_option_group("Where to");
    placing->add_option("--count", settings->count, "Scatter so many at random")
        ->check(finite_number(0, std::numeric_limits<int>::max()))
        ->type_name("NUMBER");
    placing->add_option("--points", settings->points, "Text file with COLUMN ROW [STAMP] a line, all from 0")
        ->type_name("FILE");
    placing->require_option(1);
    command->add_option("--seed", settings->seed, "Another seed, other places")
        ->check(finite_number(0, std::numeric_limits<std::uint32_t>::max()))
        ->type_name("NUMBER")
        ->capture_default_str();
    command
        ->add_option("--ids-out", settings->ids_output, "Also write a random number of each stamped patch; 0 is none")
        ->type_name("GRID");
    command->add_option("--preview", settings->preview, "Also draw the result as a shaded picture")
        ->check(png_name())
        ->type_name("PNG");
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
