#include "commands.hpp"

#include <algorithm>
#include <memory>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "shade_preview.hpp"

namespace {

struct PreviewCommand {
    std::string input;
    std::string output;
    std::string before;
    bool grey = false;
    bool flat = false;
    CommonOptions common;
    ShadeOptions shade;

    void run(Outputs& outputs);
};

void PreviewCommand::run(Outputs& outputs) {
    const Grid grid = read_grid(input);
    if (before.empty()) {
        if (flat) {
            outputs.add_picture(output, grid, shade_heights(grid));
            outputs.write();
            return;
        }
        Host host(common.device);
        shade.tinted = !grey;
        shade.height_unit = common.height_unit_of(grid);
        outputs.add_picture(output, grid, shade_relief(host, grid, common.cell_of(grid), shade));
        outputs.write();
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
    outputs.add_picture(output, grid, shade_difference(earlier, grid, range));
    outputs.write();
}

} // namespace

void add_preview_command(CLI::App& app) {
    const auto settings = std::make_shared<PreviewCommand>();
    Command command(app, "preview", "Draw a shaded picture of a height grid", {"Shade"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.picture("OUT", settings->output, "Picture, .png");
    command.number("--azimuth", settings->shade.sun.azimuth, {-360, 360}, "degrees",
                   "Where the sun stands, clockwise from north");
    command.number("--elevation,--altitude", settings->shade.sun.elevation, {1, 90}, "degrees",
                   "Height of the sun above the horizon");
    command.number("--exaggeration", settings->shade.exaggeration, above_0, "", "Factor on all heights");
    auto grey = command.flag("--grey", settings->grey, "No colours by height");
    command.flag("--flat", settings->flat, "Only the colours by height, no light").excludes(grey);
    command.input("--difference", settings->before, "grid", unit_of_heights,
                  "Draw IN minus this grid instead: red is loss, blue gain");
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command, false);
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
