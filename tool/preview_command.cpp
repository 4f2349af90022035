#include "commands.hpp"

#include <algorithm>
#include <memory>
#include <utility>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "legend.hpp"
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
    std::vector<float> range;
    std::string colours = "heights";
    bool legend = false;

    void run(Outputs& outputs);

  private:
    void run_difference(Outputs& outputs, const Grid& grid) const;
    void add(Outputs& outputs, const Grid& grid, const Drawing& drawing, const Palette& strip, Extremes span) const;
};

/// Adds the picture of values from the least to the greatest of `span`, with its legend if that is asked for.
void PreviewCommand::add(Outputs& outputs, const Grid& grid, const Drawing& drawing, const Palette& strip,
                         Extremes span) const {
    outputs.add_picture(output, grid, legend ? with_legend(drawing, strip, span, grid.unit) : drawing);
}

void PreviewCommand::run(Outputs& outputs) {
    const Grid grid = read_grid(input);
    shade.span = span_of(range);
    const Extremes span = shade.span.value_or(extremes(grid));
    if (!before.empty()) {
        run_difference(outputs, grid);
    } else if (flat) {
        add(outputs, grid, shade_values(grid, palette(colours), span), palette(colours), span);
    } else {
        Host host(common.device);
        shade.tinted = !grey;
        shade.height_unit = common.height_unit_of(grid);
        add(outputs, grid, shade_relief(host, grid, common.cell_of(grid), shade), palette("heights"), span);
    }
    outputs.write();
}

void PreviewCommand::run_difference(Outputs& outputs, const Grid& grid) const {
    const Grid earlier = read_grid(before);
    if (earlier.width != grid.width || earlier.height != grid.height)
        throw ToolError(ExitCode::usage,
                        format_text("'%s' has %d x %d cells and '%s' %d x %d: no difference can be drawn",
                                    input.c_str(), grid.width, grid.height, before.c_str(), earlier.width,
                                    earlier.height));
    const Change change = measure_change(earlier, grid);
    const double full = std::max({0.0, -change.least, change.greatest});
    print_note(format_text("heights change by %+g to %+g; the full colour stands for %g", change.least, change.greatest,
                           full));
    const auto end = static_cast<float>(full);
    add(outputs, grid, shade_difference(earlier, grid, full), difference_palette(), {-end, end});
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
    std::vector<std::pair<std::string, std::string>> words;
    for (const Palette& each : palettes())
        words.emplace_back(each.name, each.name);
    command.choice("--palette", settings->colours, words, "Colours of --flat");
    add_range_option(command, settings->range);
    command.flag("--legend", settings->legend, "Add a strip below with the values that the colours stand for");
    command.input("--difference", settings->before, "grid", unit_of_heights,
                  "Draw IN minus this grid instead: red is loss, blue gain");
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command, false);
    command.example("tarn preview land.tif picture.png --exaggeration 3", "A quick picture");
    command.example("tarn preview shaped.tif change.png --difference land.tif",
                    "What a command has changed: red is loss, blue gain");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
