#include "commands.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "lighting.hpp"
#include "message.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

struct ShadeCommand {
    std::string input;
    std::string output;
    CommonOptions common;
    double exaggeration = 1;
    std::vector<float> range;

    SunPosition sun;
    std::string date; ///< empty: the sun stands where `sun` says
    std::string time = "12:00";
    std::optional<double> latitude; ///< of the file if not given

    int rings = -8;
    float diameter = 0.53f;
    int ambient_subdivisions = 2;
    int hybrid_levels = 0; ///< 0: at full size
    float exposure = 1;
    std::optional<float> sun_intensity;
    std::optional<float> ambient_intensity;
    std::vector<float> sun_colour{1.04f, 1.0f, 0.9f};
    std::vector<float> ambient_colour{0.86f, 1.0f, 1.2f};
    std::optional<float> albedo; ///< grey; colours by height if nothing is given
    std::array<std::string, 3> albedo_grids;
    std::string ao_input;
    bool without_sun = false;
    bool without_sky = false;
    bool without_shadows = false;
    bool without_occlusion = false;

    GridOutput diffuse_output{"cosine between slope and sun", ""};
    GridOutput shadow_output{"share of the sun's rays that arrive", ""};
    GridOutput ao_output{"ambient occlusion, about 1 under a free sky", ""};

    void run(Outputs& outputs);

  private:
    SunPosition find_sun(const Grid& grid) const;
    lighting_Parameters parameters(const SunPosition& position) const;
    SurfaceOfRows surface(const Grid& grid) const;
    void check_stages() const;
};

SunPosition ShadeCommand::find_sun(const Grid& grid) const {
    if (date.empty())
        return sun;
    const std::optional<double> place = latitude ? latitude : latitude_of(grid);
    if (!place)
        throw ToolError(ExitCode::usage, "the file does not say where it lies; --date needs --latitude");
    const SunPosition position = sun_at(*place, day_of_year(date), hour_of_day(time));
    print_note(format_text("latitude %.4g: the sun stands at %.1f degrees from north, %.1f above the horizon", *place,
                           position.azimuth, position.elevation));
    return position;
}

lighting_Parameters ShadeCommand::parameters(const SunPosition& position) const {
    lighting_Parameters p = light_of_day(position);
    p.sun_rings = rings;
    p.sun_diameter = diameter;
    p.hybrid_ao = hybrid_levels > 0 ? 1 : 0;
    p.hybrid_ao_levels = hybrid_levels;
    p.ao_subdivisions = p.hybrid_ao_subdivisions = ambient_subdivisions;
    p.exposure = exposure;
    p.sun_intensity = sun_intensity.value_or(p.sun_intensity);
    p.ambient_intensity = ambient_intensity.value_or(p.ambient_intensity);
    std::copy(sun_colour.begin(), sun_colour.end(), p.sun_color);
    std::copy(ambient_colour.begin(), ambient_colour.end(), p.ambient_color);
    p.albedo = albedo.value_or(p.albedo);
    p.direct_light = without_sun ? 0 : 1;
    p.ambient_light = without_sky ? 0 : 1;
    p.shadows = without_shadows ? 0 : 1;
    p.ambient_occlusion = without_occlusion ? 0 : 1;
    p.ao_supplied = ao_input.empty() ? 0 : 1;
    return p;
}

SurfaceOfRows ShadeCommand::surface(const Grid& grid) const {
    if (albedo)
        return {};
    if (albedo_grids[0].empty())
        return tinted_surface(grid, span_of(range));
    std::array<Cells, 3> channels;
    for (std::size_t i = 0; i < channels.size(); ++i)
        channels[i] = read_mask(albedo_grids[i], {grid.width, grid.height});
    return [width = grid.width, channels = std::move(channels)](int first, int rows) {
        const auto part = [=](const Cells& channel) {
            const auto begin = channel.begin() + std::ptrdiff_t{first} * width;
            return Cells(begin, begin + std::ptrdiff_t{rows} * width);
        };
        return Surface{part(channels[0]), part(channels[1]), part(channels[2])};
    };
}

/// A stage that is turned off has nothing to write.
void ShadeCommand::check_stages() const {
    const auto check = [](const GridOutput& stage_output, bool is_off, const char* stage) {
        if (is_off && !stage_output.path.empty())
            throw ToolError(ExitCode::usage, format_text("there is no %s to write: its stage is turned off", stage));
    };
    check(diffuse_output, without_sun, "cosine of the sun");
    check(shadow_output, without_sun || without_shadows, "shadow");
    check(ao_output, ao_input.empty() && (without_sky || without_occlusion), "ambient occlusion");
}

void ShadeCommand::run(Outputs& outputs) {
    check_stages();
    Host host(common.device);
    const Grid grid = read_grid(input);
    const CellSize cell = common.cell_of(grid);
    square_side(cell); // tells of oblong cells
    const lighting_Parameters p = parameters(find_sun(grid));
    print_detail(format_text("sun_direction %g %g %g, sun_rings %d, sun_intensity %g, ambient_intensity %g",
                             static_cast<double>(p.sun_direction[0]), static_cast<double>(p.sun_direction[1]),
                             static_cast<double>(p.sun_direction[2]), p.sun_rings, static_cast<double>(p.sun_intensity),
                             static_cast<double>(p.ambient_intensity)));
    const Cells ao = ao_input.empty() ? Cells() : read_mask(ao_input, {grid.width, grid.height});
    outputs.check_grids(grid);
    const Scene scene{grid, cell, exaggeration * common.height_unit_of(grid), p, surface(grid)};
    if (ao.empty() && diffuse_output.path.empty() && shadow_output.path.empty() && ao_output.path.empty()) {
        outputs.add_picture(output, grid, draw_scene(host, scene));
    } else {
        LitGrid lit = render(host, scene, ao);
        outputs.add_picture(output, grid, develop(scene, lit));
        outputs.add(diffuse_output, with_cells(grid, std::move(lit.diffuse)));
        outputs.add(shadow_output, with_cells(grid, std::move(lit.shadow)));
        outputs.add(ao_output, with_cells(grid, std::move(lit.ao)));
    }
    outputs.write();
}

} // namespace

void add_shade_command(CLI::App& app) {
    const auto settings = std::make_shared<ShadeCommand>();
    Command command(app, "shade", "Render a lit picture with shadows and ambient occlusion", {"Shade"});
    command.input("IN", settings->input, "grid", unit_of_heights, "Height grid");
    command.picture("OUT", settings->output, "Picture, .png");
    const Range factor{0, 1e6};
    auto azimuth = command.number("--azimuth", settings->sun.azimuth, {-360, 360}, "degrees",
                                  "Where the sun stands, clockwise from north");
    auto elevation = command.number("--elevation", settings->sun.elevation, {-90, 90}, "degrees",
                                    "Height of the sun above the horizon");
    auto date = command.text("--date", settings->date, "day", "MM-DD", "The sun of this day, month and day", check_day)
                    .excludes(azimuth)
                    .excludes(elevation);
    command
        .text("--time", settings->time, "time", "HH:MM", "Solar time of that day: at 12:00 the sun stands highest",
              check_time)
        .needs(date);
    command
        .number("--latitude", settings->latitude, {-90, 90}, "degrees",
                "Where that day's sun is seen; north is positive")
        .otherwise("from the file")
        .needs(date);
    command.number("--rings", settings->rings,
                   {-8, 17, false, {-8, -4, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}}, "",
                   "Rings of rays over the sun's disc, or -4 or -8 parallel rays");
    command.number("--diameter", settings->diameter, {0, 180}, "degrees", "Apparent diameter of the sun for --rings")
        .advanced();
    command
        .number("--ambient-subdivisions", settings->ambient_subdivisions, {0, 3}, "",
                "Rays of the sky: 0 to 3 for 7, 23, 94 or 371")
        .advanced();
    command
        .number("--hybrid-levels", settings->hybrid_levels, {0, 15}, "",
                "Trace ambient occlusion at the coarsest of so many levels; 0 is full size")
        .advanced();
    command.number("--exposure", settings->exposure, factor, "", "Factor on all light");
    command.number("--sun-intensity", settings->sun_intensity, factor, "", "Light of the sun")
        .otherwise("so that level ground is as light as its albedo")
        .advanced();
    command.number("--ambient-intensity", settings->ambient_intensity, factor, "", "Light of the sky")
        .otherwise("0.3")
        .advanced();
    command.number("--sun-colour", settings->sun_colour, factor, "", "Red, green and blue of the sun", 3).advanced();
    command.number("--ambient-colour", settings->ambient_colour, factor, "", "Red, green and blue of the sky", 3)
        .advanced();
    auto albedo = command.number("--albedo", settings->albedo, from_0_to_1, "", "Grey ground that reflects so much")
                      .otherwise("colours by height");
    std::vector<Entry> grids;
    for (std::size_t i = 0; i < settings->albedo_grids.size(); ++i) {
        constexpr std::array names{"--albedo-red", "--albedo-green", "--albedo-blue"};
        grids.push_back(
            command.input(names[i], settings->albedo_grids[i], "grid", "share", "What the ground reflects, from 0 to 1")
                .excludes(albedo));
    }
    for (std::size_t i = 0; i < grids.size(); ++i)
        grids[i].needs(grids[(i + 1) % 3]).needs(grids[(i + 2) % 3]);
    command.input("--ao", settings->ao_input, "grid", "share", "Ambient occlusion to use instead of tracing it");
    command.flag("--no-sun", settings->without_sun, "No light of the sun");
    command.flag("--no-sky", settings->without_sky, "No light of the sky");
    command.flag("--no-shadows", settings->without_shadows, "The sun reaches everything that faces it");
    command.flag("--no-occlusion", settings->without_occlusion, "The sky lights everything alike");
    command.output("--diffuse-out", settings->diffuse_output, "Also write the cosine towards the sun");
    command.output("--shadow-out", settings->shadow_output, "Also write the share of the sun's rays that arrive");
    command.output("--ao-out", settings->ao_output, "Also write the ambient occlusion");
    command.number("--exaggeration", settings->exaggeration, above_0, "", "Factor on all heights");
    add_range_option(command, settings->range);
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn shade land.tif picture.png --exaggeration 2",
                    "A picture in the light of an afternoon, heights doubled");
    command.example("tarn shade land.tif winter.png --date 12-21 --time 15:30",
                    "The sun of that day at the latitude of the file");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
