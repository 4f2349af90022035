#include "commands.hpp"

#include <memory>

#include <CLI/CLI.hpp>
#include <tarn/oneapi.h>

#include "grid.hpp"
#include "host.hpp"
#include "message.hpp"
#include "options.hpp"
#include "resample.hpp"
#include "trail_options.hpp"

namespace {

struct ColourCommand {
    std::string input;
    std::string output;
    std::string image;
    std::string length_map;
    TrailOptions trails;

    float persistence = 1;
    float blend = 1;
    float transport = 0.7f;
    bool straight_trails = false;

    void run();
};

void ColourCommand::run() {
    check_folder(output);
    Host host(trails.device);
    const Grid terrain = read_grid(input);
    const GridSize size{terrain.width, terrain.height};
    Picture picture = read_picture(image);
    if (const GridSize from{picture.width, picture.height}; from != size) {
        print_note(format_text("the image is resampled from %d x %d to %d x %d cells", from.width, from.height,
                               size.width, size.height));
        for (std::vector<float>& channel : picture.channels)
            channel = resample(channel, from, size);
        picture.width = size.width;
        picture.height = size.height;
    }

    color_transport_Parameters parameters{};
    parameters.width = terrain.width;
    parameters.height = terrain.height;
    parameters.flow_length = trails.flow_length;
    parameters.persistence = persistence;
    parameters.blend = blend;
    parameters.spread = trails.spread;
    parameters.transport = transport;
    parameters.straight_trails = straight_trails ? 1 : 0;
    parameters.seed = trails.seed;

    const std::vector<float> heights = unit_heights(terrain);
    const std::vector<float> mask = trails.read_mask_cells(size);
    const std::vector<float> lengths = length_map.empty() ? std::vector<float>() : read_mask(length_map, size);
    host.run(format_text("moving colours over %d x %d cells", terrain.width, terrain.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ColorTransportSimulation(queue, heights.data(), picture.channels[0].data(),
                                                 picture.channels[1].data(), picture.channels[2].data(),
                                                 data_or_null(mask), data_or_null(lengths), &parameters, callbacks);
             });
    write_picture(output, picture);
}

} // namespace

void add_colour_command(CLI::App& app) {
    const auto settings = std::make_shared<ColourCommand>();
    CLI::App* const command = app.add_subcommand("colour", "Move the colours of an image downhill");
    command->add_option("IN", settings->input, "Height grid")->required();
    command->add_option("OUT", settings->output, "The image after the run, .png")->required()->check(png_name());
    command->add_option("--image", settings->image, "Picture of the terrain, 8 or 16 bits a channel")
        ->required()
        ->type_name("RGB");
    const auto add_share = [&](const char* name, float& value, const char* text) {
        command->add_option(name, value, text)->check(finite_number(0, 1))->type_name("NUMBER")->capture_default_str();
    };
    add_share("--transport", settings->transport, "How far colours travel");
    add_share("--persistence", settings->persistence, "How easily a cell's old colour gives way");
    add_share("--blend", settings->blend, "Share of the mixed colour that each batch of trails leaves");
    command->add_flag("--straight-trails", settings->straight_trails, "Without the random turns of the trails");
    command->add_option("--length-map", settings->length_map, "Factor on the length of the trails that start in a cell")
        ->type_name("GRID");
    settings->trails.add_options(*command);
    command->callback([settings] { settings->run(); });
}
