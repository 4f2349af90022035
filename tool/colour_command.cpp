#include "commands.hpp"

#include <memory>
#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "picture.hpp"
#include "resample.hpp"
#include "trail_options.hpp"

namespace {

struct ColourCommand {
    std::string input;
    std::string output;
    std::string image;
    std::string length_map;
    TrailOptions trails;
    CommonOptions common;

    float persistence = 1;
    float blend = 1;
    float transport = 0.7f;
    bool straight_trails = false;

    void run(Outputs& outputs);
};

void ColourCommand::run(Outputs& outputs) {
    Host host(common.device);
    Grid terrain = read_grid(input);
    const GridSize size{terrain.width, terrain.height};
    Picture picture = read_picture(image);
    if (const GridSize from{picture.width, picture.height}; from != size) {
        print_note(format_text("the image is resampled from %d x %d to %d x %d cells", from.width, from.height,
                               size.width, size.height));
        for (Cells& channel : picture.channels)
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

    to_unit_heights(terrain.cells);
    const Cells mask = trails.read_mask_cells(size);
    const Cells lengths = length_map.empty() ? Cells() : read_mask(length_map, size);
    const Cells before = picture.channels[0];
    host.run(format_text("moving colours over %d x %d cells", terrain.width, terrain.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return ColorTransportSimulation(queue, terrain.cells.data(), picture.channels[0].data(),
                                                 picture.channels[1].data(), picture.channels[2].data(),
                                                 data_or_null(mask), data_or_null(lengths), &parameters, callbacks);
             });
    note_if_unchanged(before, picture.channels[0], "try a larger --transport, --persistence or --blend");
    outputs.add_picture(output, terrain, draw_picture(picture));
    outputs.write();
}

} // namespace

void add_colour_command(CLI::App& app) {
    const auto settings = std::make_shared<ColourCommand>();
    Command command(app, "colour", "Move the colours of an image downhill", {"ColorTransportSimulation"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.picture("OUT", settings->output, "The image after the run, .png");
    command.input("--image", settings->image, "picture", "", "Picture of the terrain, 8 or 16 bits a channel")
        .required();
    command.number("--transport", settings->transport, from_0_to_1, "", "How far colours travel");
    command.number("--persistence", settings->persistence, from_0_to_1, "", "How easily a cell's old colour gives way");
    command.number("--blend", settings->blend, from_0_to_1, "",
                   "Share of the mixed colour that each batch of trails leaves");
    command.flag("--straight-trails", settings->straight_trails, "Without the random turns of the trails");
    command.input("--length-map", settings->length_map, "grid", "share",
                  "Factor on the length of the trails that start in a cell");
    settings->trails.add_options(command);
    settings->common.add_device(command);
    add_file_options(command, false);
    command.example("tarn colour land.tif --image picture.png washed.png", "The colours of a picture run downhill");
    command.example("tarn colour land.tif --image picture.png washed.png --transport 0.3 --blend 0.5",
                    "Less far, and mixed with the old ones");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
