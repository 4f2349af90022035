#include "commands.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>

#include "grid.hpp"
#include "host.hpp"
#include "lighting.hpp"
#include "message.hpp"
#include "options.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

struct ShadeCommand {
    std::string input;
    std::string output;
    std::string device = "cpu";
    GroundScale ground;
    double exaggeration = 1;

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
    std::vector<float> sun_colour;
    std::vector<float> ambient_colour;
    std::optional<float> albedo; ///< grey; colours by height if nothing is given
    std::array<std::string, 3> albedo_grids;
    std::string ao_input;
    bool without_sun = false;
    bool without_sky = false;
    bool without_shadows = false;
    bool without_occlusion = false;

    std::string diffuse_output;
    std::string shadow_output;
    std::string ao_output;

    void run();

  private:
    SunPosition find_sun(const Grid& grid) const;
    lighting_Parameters parameters(const SunPosition& position) const;
    Surface surface(const Grid& grid) const;
    void write(const std::string& name, Grid grid, const std::vector<float>& cells, const char* stage) const;
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

Surface ShadeCommand::surface(const Grid& grid) const {
    if (albedo)
        return {};
    if (albedo_grids[0].empty())
        return tinted_surface(grid);
    const auto read = [&](const std::string& name) {
        return read_mask(name, {grid.width, grid.height});
    };
    return {read(albedo_grids[0]), read(albedo_grids[1]), read(albedo_grids[2])};
}

void ShadeCommand::write(const std::string& name, Grid grid, const std::vector<float>& cells, const char* stage) const {
    if (name.empty())
        return;
    if (cells.empty())
        throw ToolError(ExitCode::usage, format_text("there is no %s to write: its stage is turned off", stage));
    grid.cells = cells;
    grid.unit.clear();
    write_grid(name, grid);
}

void ShadeCommand::run() {
    check_folder(output);
    for (const std::string& name : {diffuse_output, shadow_output, ao_output})
        if (!name.empty())
            check_grid_name(name);
    Host host(device);
    const Grid grid = read_grid(input);
    const CellSize cell = ground.cell_of(grid);
    if (std::abs(cell.x - cell.y) > 0.01 * cell.x)
        print_note(format_text("cells are %.4g x %.4g m; squares of %.4g m are assumed", cell.x, cell.y,
                               std::sqrt(cell.x * cell.y)));
    const lighting_Parameters p = parameters(find_sun(grid));
    print_detail(format_text("sun_direction %g %g %g, sun_rings %d, sun_intensity %g, ambient_intensity %g",
                             static_cast<double>(p.sun_direction[0]), static_cast<double>(p.sun_direction[1]),
                             static_cast<double>(p.sun_direction[2]), p.sun_rings, static_cast<double>(p.sun_intensity),
                             static_cast<double>(p.ambient_intensity)));
    const std::vector<float> ao =
        ao_input.empty() ? std::vector<float>() : read_mask(ao_input, {grid.width, grid.height});
    const LitGrid lit = render(host, grid, cell, exaggeration * ground.height_unit_of(grid), p, surface(grid), ao);
    write(diffuse_output, grid, lit.diffuse, "cosine of the sun");
    write(shadow_output, grid, lit.shadow, "shadow");
    write(ao_output, grid, lit.ao, "ambient occlusion");
    write_picture(output, grid.width, grid.height, 3, develop(grid, lit));
}

} // namespace

void add_shade_command(CLI::App& app) {
    const auto settings = std::make_shared<ShadeCommand>();
    CLI::App* const command = app.add_subcommand("shade", "Render a lit picture with shadows and ambient occlusion");
    const auto add_number = [&](const char* name, auto& value, double lowest, double highest, const char* text,
                                const char* type = "NUMBER") {
        return command->add_option(name, value, text)->check(finite_number(lowest, highest))->type_name(type);
    };
    command->add_option("IN", settings->input, "Height grid")->required();
    command->add_option("OUT", settings->output, "Picture, .png")->required()->check(png_name());

    CLI::Option* const azimuth = add_number("--azimuth", settings->sun.azimuth, -360, 360,
                                            "Where the sun stands, degrees from north over east", "DEGREES")
                                     ->capture_default_str();
    CLI::Option* const elevation = add_number("--elevation", settings->sun.elevation, -90, 90,
                                              "Height of the sun above the horizon, degrees", "DEGREES")
                                       ->capture_default_str();
    CLI::Option* const date = command->add_option("--date", settings->date, "The sun of this day, month and day")
                                  ->check(month_and_day())
                                  ->type_name("MM-DD")
                                  ->excludes(azimuth)
                                  ->excludes(elevation);
    command->add_option("--time", settings->time, "Solar time of that day: at 12:00 the sun stands highest")
        ->check(hour_and_minute())
        ->type_name("HH:MM")
        ->needs(date)
        ->capture_default_str();
    add_number("--latitude", settings->latitude, -90, 90, "Degrees, north is positive [from the file]", "DEGREES")
        ->needs(date);

    command->add_option("--rings", settings->rings, "Rings of rays over the sun's disc, or -4 or -8 parallel rays")
        ->check(CLI::IsMember(std::vector<int>{-8, -4, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}))
        ->type_name("NUMBER")
        ->capture_default_str();
    add_number("--diameter", settings->diameter, 0, 180, "Apparent diameter of the sun for --rings, degrees", "DEGREES")
        ->capture_default_str();
    command
        ->add_option("--ambient-subdivisions", settings->ambient_subdivisions,
                     "Rays of the sky: 0 to 3 for 7, 23, 94 or 371")
        ->check(CLI::Range(0, 3))
        ->type_name("NUMBER")
        ->capture_default_str();
    command
        ->add_option("--hybrid-levels", settings->hybrid_levels,
                     "Trace ambient occlusion at the coarsest of so many levels; 0 is full size")
        ->check(CLI::Range(0, 15))
        ->type_name("NUMBER")
        ->capture_default_str();
    add_number("--exposure", settings->exposure, 0, 1e6, "Factor on all light")->capture_default_str();
    add_number("--sun-intensity", settings->sun_intensity, 0, 1e6,
               "Light of the sun [so that level ground is as light as its albedo]");
    add_number("--ambient-intensity", settings->ambient_intensity, 0, 1e6, "Light of the sky [0.3]");
    const auto add_colour = [&](const char* name, std::vector<float>& value, const char* text) {
        command->add_option(name, value, text)->expected(3)->check(finite_number(0, 1e6))->type_name("R G B");
    };
    add_colour("--sun-colour", settings->sun_colour, "Colour of the sun [1.04 1 0.9]");
    add_colour("--ambient-colour", settings->ambient_colour, "Colour of the sky [0.86 1 1.2]");
    CLI::Option* const albedo = add_number("--albedo", settings->albedo, 0, 1, "Grey ground [colours by height]");
    constexpr std::array names{"--albedo-red", "--albedo-green", "--albedo-blue"};
    std::array<CLI::Option*, 3> grids{};
    for (std::size_t i = 0; i < names.size(); ++i)
        grids[i] = command->add_option(names[i], settings->albedo_grids[i], "What the ground reflects, from 0 to 1")
                       ->type_name("GRID")
                       ->excludes(albedo);
    for (CLI::Option* const a : grids)
        for (CLI::Option* const b : grids)
            if (a != b)
                a->needs(b);
    command->add_option("--ao", settings->ao_input, "Ambient occlusion to use instead of tracing it")
        ->type_name("GRID");
    command->add_flag("--no-sun", settings->without_sun, "No light of the sun");
    command->add_flag("--no-sky", settings->without_sky, "No light of the sky");
    command->add_flag("--no-shadows", settings->without_shadows, "The sun reaches everything that faces it");
    command->add_flag("--no-occlusion", settings->without_occlusion, "The sky lights everything alike");
    command->add_option("--diffuse-out", settings->diffuse_output, "Also write the cosine towards the sun")
        ->type_name("GRID");
    command->add_option("--shadow-out", settings->shadow_output, "Also write the share of the sun's rays that arrive")
        ->type_name("GRID");
    command->add_option("--ao-out", settings->ao_output, "Also write the ambient occlusion")->type_name("GRID");
    command->add_option("--exaggeration", settings->exaggeration, "Factor on all heights")
        ->check(positive_number())
        ->type_name("FACTOR")
        ->capture_default_str();
    command->add_option("--device", settings->device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
    settings->ground.add_options(*command);
    command->callback([settings] { settings->run(); });
}
