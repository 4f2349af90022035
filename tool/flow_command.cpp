#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <memory>

#include <CLI/CLI.hpp>
#include <tarn/oneapi.h>

#include "grid.hpp"
#include "host.hpp"
#include "message.hpp"
#include "options.hpp"
#include "shade_preview.hpp"
#include "trail_options.hpp"

namespace {

struct FlowCommand {
    std::string input;
    std::string output;
    std::string preview;
    GroundScale ground;
    TrailOptions trails;

    void run();

  private:
    void draw(Host& host, const Grid& terrain, const std::vector<float>& flow) const;
};

/// Water on a shaded relief.
void FlowCommand::draw(Host& host, const Grid& terrain, const std::vector<float>& flow) const {
    constexpr double water[3] = {12, 58, 140};
    ShadeOptions shade;
    shade.tinted = false;
    shade.exaggeration = 2;
    shade.height_unit = ground.height_unit_of(terrain);
    std::vector<std::uint8_t> pixels = shade_relief(host, terrain, ground.cell_of(terrain), shade);
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        // Brightened, and all the more so the colour of water as flow gathers.
        const double share = std::sqrt(std::clamp(static_cast<double>(flow[i / 3]), 0.0, 1.0));
        const double ground_colour = 128 + 0.5 * pixels[i];
        pixels[i] = static_cast<std::uint8_t>(std::lround(ground_colour + (water[i % 3] - ground_colour) * share));
    }
    write_picture(preview, terrain.width, terrain.height, 3, pixels);
}

void FlowCommand::run() {
    check_grid_name(output);
    check_folder(preview);
    Host host(trails.device);
    const Grid terrain = read_grid(input);
    flow_Parameters parameters{};
    parameters.width = terrain.width;
    parameters.height = terrain.height;
    parameters.flow_length = trails.flow_length;
    parameters.spread = trails.spread;
    parameters.seed = trails.seed;

    const std::vector<float> heights = unit_heights(terrain);
    const std::vector<float> mask = trails.read_mask_cells({terrain.width, terrain.height});
    Grid flow = terrain;
    flow.unit.clear();
    std::fill(flow.cells.begin(), flow.cells.end(), 0.0f);
    host.run(format_text("tracing trails over %d x %d cells", terrain.width, terrain.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return FlowSimulation(queue, heights.data(), flow.cells.data(), data_or_null(mask), &parameters,
                                       callbacks);
             });
    write_grid(output, flow);
    if (!preview.empty())
        draw(host, terrain, flow.cells);
}

} // namespace

void add_flow_command(CLI::App& app) {
    const auto settings = std::make_shared<FlowCommand>();
    CLI::App* const command = app.add_subcommand("flow", "Draw a map of where water gathers");
    command->add_option("IN", settings->input, "Height grid")->required();
    command->add_option("OUT", settings->output, "Flow from 0 to 1: .tif, .tiff, .png (16 bits), .asc or .exr")
        ->required();
    settings->trails.add_options(*command);
    command->add_option("--preview", settings->preview, "Also draw the flow over the shaded terrain")
        ->check(png_name())
        ->type_name("PNG");
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
