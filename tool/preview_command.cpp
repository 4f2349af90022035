#include "commands.hpp"

#include <algorithm>
#include <memory>

#include <CLI/CLI.hpp>

#include "grid.hpp"
#include "host.hpp"
#include "message.hpp"
#include "options.hpp"
#include "shade_preview.hpp"

namespace {

struct PreviewCommand {
    std::string input;
    std::string output;
    std::string before;
    std::string device = "cpu";
    bool grey = false;
    bool flat = false;
    GroundScale ground;
    ShadeOptions shade;

    void run();
};

void PreviewCommand::run() {
    check_folder(output);
    const Grid grid = read_grid(input);
    if (before.empty()) {
        if (flat) {
            write_picture(output, grid.width, grid.height, 3, shade_heights(grid));
            return;
        }
        Host host(device);
        shade.tinted = !grey;
        shade.height_unit = ground.height_unit_of(grid);
        write_picture(output, grid.width, grid.height, 3, shade_relief(host, grid, ground.cell_of(grid), shade));
        return;
    }
    const Grid earlier = read_grid(before);
    if (earlier.width != grid.width || earlier.height != grid.height)
        throw ToolError(ExitCode::usage,
                        format_text("'%s' has %d x %d cells and '%s' %d x %d: no difference can be drawn",
                                    input.c_str(), grid.width, grid.height, before.c_str(), earlier.width,
                                    earlier.height));
    const Change change = measure_change(earlier, grid);
    const double range = std::max({0.0, -change.least, change.greatest});
    print_note(format_text("heights change by %+g to %+g; the full colour stands for %g", change.least, change.greatest,
                           range));
    write_picture(output, grid.width, grid.height, 3, shade_difference(earlier, grid, range));
}

} // namespace

void add_preview_command(CLI::App& app) {
    const auto settings = std::make_shared<PreviewCommand>();
    CLI::App* const command = app.add_subcommand("preview", "Draw a shaded picture of a height grid");
    command->add_option("IN", settings->input, "Height grid")->required();
    command->add_option("OUT", settings->output, "Picture, .png")->required()->check(png_name());
    command->add_option("--difference", settings->before, "Draw IN minus this grid instead: red is loss, blue gain")
        ->type_name("GRID");
    CLI::Option* const grey = command->add_flag("--grey", settings->grey, "No colours by height");
    command->add_flag("--flat", settings->flat, "Only the colours by height, no light")->excludes(grey);
    command->add_option("--azimuth", settings->shade.sun.azimuth, "Where the sun stands, degrees from north over east")
        ->check(finite_number(-360, 360))
        ->type_name("DEGREES")
        ->capture_default_str();
    command->add_option("--altitude", settings->shade.sun.elevation, "Height of the sun above the horizon, degrees")
        ->check(finite_number(1, 90))
        ->type_name("DEGREES")
        ->capture_default_str();
    command->add_option("--exaggeration", settings->shade.exaggeration, "Factor on all heights")
        ->check(positive_number())
        ->type_name("FACTOR")
        ->capture_default_str();
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
