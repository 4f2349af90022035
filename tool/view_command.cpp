#include "commands.hpp"

#include <cmath>
#include <filesystem>
#include <memory>
#include <utility>

#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "lighting.hpp"
#include "message.hpp"
#include "picture.hpp"
#include "resample.hpp"
#include "trail_options.hpp"
#include "view_page.hpp"

namespace {

/// Cells that a browser loads in two seconds and turns smoothly on a laptop.
constexpr std::size_t most_cells = 1250000;

struct ViewCommand {
    std::string input;
    std::string output;
    std::string before;
    std::string drape;
    std::string title;
    std::vector<std::string> layers; ///< [NAME[:UNIT]=]GRID
    bool is_bare = false;
    double exaggeration = 1;
    SunPosition sun;
    CommonOptions common;

    void run(Outputs& outputs);

  private:
    void add_files(View& view) const;
    void add_light(View& view, Host& host) const;
    void add_flow(View& view, Host& host) const;
    void add_sunlight(View& view, Host& host) const;
};

/// Grids of the user, on the cells of the page.
void ViewCommand::add_files(View& view) const {
    const GridSize size{view.grid.width, view.grid.height};
    const auto fitted = [&](const Grid& grid, const std::string& path) {
        return fitted_cells(thinned(grid, most_cells), size, "'" + path + "'");
    };
    if (!before.empty())
        view.before = fitted(read_grid(before), before);
    if (!drape.empty())
        view.picture = read_picture(drape);
    for (const std::string& layer : layers) {
        const std::size_t equals = layer.find('=');
        const std::string path = equals == std::string::npos ? layer : layer.substr(equals + 1);
        const Grid grid = read_grid(path, Holes::are_zero);
        std::string name = std::filesystem::path(path).stem().string(), unit = grid.unit;
        if (equals != std::string::npos)
            name = layer.substr(0, equals);
        if (const std::size_t colon = name.find(':'); equals != std::string::npos && colon != std::string::npos) {
            unit = name.substr(colon + 1);
            name.erase(colon);
        }
        view.layers.push_back({name, unit, "amounts", fitted(grid, path), true});
    }
}

void ViewCommand::add_light(View& view, Host& host) const {
    LitGrid lit = render(host, {view.grid, view.cell, view.height_unit * exaggeration, light_of_day(sun), {}});
    view.layers.push_back({"Shadow", "of full sun", "shade", std::move(lit.shadow), false, true});
    view.layers.push_back({"Sky in view", "of the sky", "shade", std::move(lit.ao), false, true});
}

void ViewCommand::add_flow(View& view, Host& host) const {
    flow_Parameters parameters{};
    parameters.width = view.grid.width;
    parameters.height = view.grid.height;
    const TrailOptions defaults;
    parameters.flow_length = defaults.flow_length;
    parameters.spread = defaults.spread;
    parameters.seed = defaults.seed;
    Cells heights = view.grid.cells;
    to_unit_heights(heights);
    Cells flow(view.grid.size(), 0.0f);
    host.run("tracing trails", [&](SyclQueue* queue, const HostCallbacks* callbacks) {
        return FlowSimulation(queue, heights.data(), flow.data(), nullptr, &parameters, callbacks);
    });
    view.layers.push_back({"Flow", "of 1", "water", std::move(flow), true});
}

void ViewCommand::add_sunlight(View& view, Host& host) const {
    const std::optional<double> latitude = latitude_of(view.grid);
    if (!latitude)
        return;
    const lighting_Parameters parameters =
        light_of_year(view.grid, std::sqrt(view.cell.x * view.cell.y), view.height_unit, *latitude);
    Cells light(view.grid.size());
    host.run("summing sunlight", [&](SyclQueue* queue, const HostCallbacks*) {
        return SunLightIntegral(queue, view.grid.cells.data(), light.data(), &parameters);
    });
    view.layers.push_back({"Sunlight of a year", "of full sun", "sunlight", std::move(light)});
}

void ViewCommand::run(Outputs& outputs) {
    Host host(common.device);
    const Grid whole = read_grid(input);
    View view;
    view.title = title.empty() ? std::filesystem::path(input).stem().string() : title;
    view.grid = thinned(whole, most_cells);
    const CellSize cell = common.cell_of(whole);
    view.cell = {cell.x * whole.width / view.grid.width, cell.y * whole.height / view.grid.height};
    view.height_unit = common.height_unit_of(whole);
    view.exaggeration = exaggeration;
    view.sun = sun;
    if (view.grid.width != whole.width) {
        view.note = format_text("thinned from %d x %d to %d x %d cells", whole.width, whole.height, view.grid.width,
                                view.grid.height);
        print_note("'" + input + "' is " + view.note);
    }
    add_files(view);
    if (!is_bare) {
        add_flow(view, host);
        add_light(view, host);
        add_sunlight(view, host);
    }
    outputs.add_text(output, make_view_page(view));
    outputs.write();
}

} // namespace

void add_view_command(CLI::App& app) {
    const auto settings = std::make_shared<ViewCommand>();
    Command command(app, "view", "Make a page that shows a height grid in three dimensions",
                    {"Shade", "FlowSimulation", "SunLightIntegral"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.page("OUT", settings->output, "Page, .html, with everything in it");
    command.input("--before", settings->before, "grid", unit_of_heights,
                  "What the heights were: shown on the other side of a divider");
    command.input("--drape", settings->drape, "picture", "", "Picture to lay over the ground");
    command.texts("--layer", settings->layers, "[NAME[:UNIT]=]GRID", "Values to show on the ground; may be repeated");
    command.flag("--bare", settings->is_bare,
                 "Without the layers that the library computes: flow, shadow, sky, sunlight");
    command.number("--exaggeration", settings->exaggeration, {0, 10}, "", "Factor on all heights to start with");
    command.number("--azimuth", settings->sun.azimuth, {-360, 360}, "degrees",
                   "Where the sun stands, clockwise from north");
    command.number("--elevation", settings->sun.elevation, {1, 90}, "degrees", "Height of the sun above the horizon");
    command.text("--title", settings->title, "text", "TEXT", "Title of the page").otherwise("the name of IN");
    settings->common.add_scale(command);
    settings->common.add_device(command);
    command.example("tarn view land.tif land.html", "A page to turn the terrain in");
    command.example("tarn view eroded.tif eroded.html --drape picture.png --exaggeration 2",
                    "With a picture laid over it");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
