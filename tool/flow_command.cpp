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
#include "shade_preview.hpp"
#include "trail_options.hpp"

namespace {

struct FlowCommand {
    std::string input;
    GridOutput output{"gathered flow, from 0 to just below 1", ""};
    CommonOptions common;
    TrailOptions trails;

    void run(Outputs& outputs);

  private:
    void draw(Outputs& outputs, Host& host, const Grid& terrain, const Cells& flow) const;
};

/// Water on a shaded relief.
void FlowCommand::draw(Outputs& outputs, Host& host, const Grid& terrain, const Cells& flow) const {
    constexpr double water[3] = {12, 58, 140};
    ShadeOptions shade;
    shade.tinted = false;
    shade.exaggeration = 2;
    shade.height_unit = common.height_unit_of(terrain);
    Drawing drawing = shade_relief(host, terrain, common.cell_of(terrain), shade);
    drawing.draw = [&, draw_relief = drawing.draw,
                    width = static_cast<std::size_t>(terrain.width)](int first, int rows, std::uint8_t* pixels) {
        draw_relief(first, rows, pixels);
        const float* const share_of_water = flow.data() + static_cast<std::size_t>(first) * width;
        for (std::size_t i = 0; i < static_cast<std::size_t>(rows) * width; ++i) {
            // Brightened, and all the more so the colour of water as flow gathers.
            const double share = std::sqrt(std::clamp(static_cast<double>(share_of_water[i]), 0.0, 1.0));
            for (std::size_t channel = 0; channel < 3; ++channel) {
                std::uint8_t& pixel = pixels[3 * i + channel];
                const double ground_colour = 128 + 0.5 * pixel;
                pixel =
                    static_cast<std::uint8_t>(std::lround(ground_colour + (water[channel] - ground_colour) * share));
            }
        }
    };
    outputs.add_picture(common.preview, terrain, drawing);
}

void FlowCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid terrain = read_grid(input);
    flow_Parameters parameters{};
    parameters.width = terrain.width;
    parameters.height = terrain.height;
    parameters.flow_length = trails.flow_length;
    parameters.spread = trails.spread;
    parameters.seed = trails.seed;

    const Cells mask = trails.read_mask_cells({terrain.width, terrain.height});
    Grid flow = with_cells(terrain, Cells(terrain.size(), 0.0f));
    // Only a picture needs the heights as they are.
    Cells heights = common.preview.empty() ? std::move(terrain.cells) : terrain.cells;
    to_unit_heights(heights);
    outputs.check_grids(flow);
    host.run(format_text("tracing trails over %d x %d cells", terrain.width, terrain.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return FlowSimulation(queue, heights.data(), flow.cells.data(), data_or_null(mask), &parameters,
                                       callbacks);
             });
    if (std::all_of(flow.cells.begin(), flow.cells.end(), [](float cell) { return cell == 0; }))
        print_note("nothing has changed: no trail left a mark; try a larger --flow-length or a --mask above 0");
    if (!common.preview.empty())
        draw(outputs, host, terrain, flow.cells);
    outputs.add(output, std::move(flow));
    outputs.write();
}

} // namespace

void add_flow_command(CLI::App& app) {
    const auto settings = std::make_shared<FlowCommand>();
    Command command(app, "flow", "Draw a map of where water gathers", {"FlowSimulation"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.output("OUT", settings->output, "Flow from 0 to 1: .tif, .tiff, .png (16 bits), .asc or .exr");
    settings->trails.add_options(command);
    settings->common.add_preview(command, "Also draw the flow over the shaded terrain");
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn flow land.tif flow.tif --preview flow.png", "Where water gathers, and a picture of it");
    command.example("tarn flow land.tif flow.tif --flow-length 0.3 --spread 3", "Shorter and wider rivers");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
