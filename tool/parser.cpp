#include "parser.hpp"

#include <algorithm>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "command.hpp"
#include "commands.hpp"
#include "help.hpp"
#include "message.hpp"
#include "spelling.hpp"

namespace {

/// Set as soon as it is parsed, so that the subcommands, which run at the end of parsing, follow it.
void add_verbosity_flags(CLI::App& app) {
    app.add_flag_callback("-q,--quiet", [] { set_verbosity(Verbosity::quiet); });
    app.add_flag_callback("-v,--verbose", [] { set_verbosity(Verbosity::verbose); });
}

bool is_name(const std::string& argument) {
    return !argument.starts_with("-");
}

} // namespace

std::shared_ptr<CLI::App> make_parser() {
    clear_table();
    auto parser = std::make_shared<CLI::App>("", "tarn");
    CLI::App& app = *parser;
    use_help_text(app);
    app.fallthrough();
    app.set_version_flag("--version", TARN_VERSION);
    add_verbosity_flags(app);
    add_devices_command(app);
    add_info_command(app);
    add_shape_command(app);
    add_weather_command(app);
    add_erode_command(app);
    add_dunes_command(app);
    add_shade_command(app);
    add_sunlight_command(app);
    add_mesh_command(app);
    add_debris_command(app);
    add_stamp_command(app);
    add_median_command(app);
    add_cells_command(app);
    add_flow_command(app);
    add_colour_command(app);
    add_points_command(app);
    add_bake_command(app);
    add_preview_command(app);
    add_view_command(app);
    add_pipeline_command(app);
    add_bench_command(app);
    add_options_command(app);
    add_help_command(app);
    return parser;
}

std::function<void()> prepare_arguments(CLI::App& parser, const std::vector<std::string>& arguments) {
    const auto command = std::find_if(arguments.begin(), arguments.end(), is_name);
    if (command != arguments.end())
        check_command(*command);
    // The parser would take the name after it for a second command.
    if (command != arguments.end() && *command == "help") {
        const auto name = std::find_if(command + 1, arguments.end(), is_name);
        if (name != arguments.end())
            check_command(*name);
        std::fputs(name == arguments.end() ? help_text().c_str() : help_text(*find_command(*name)).c_str(), stdout);
        return nullptr;
    }
    if (command != arguments.end())
        check_options(*command, {command + 1, arguments.end()});
    try {
        parser.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        if (parser.get_subcommands().empty())
            throw ToolError(ExitCode::usage, "a command is missing; `tarn help` lists them");
    } catch (const CLI::Success& request) { // --help or --version
        parser.exit(request);
    } catch (const CLI::ExtrasError&) {
        throw ToolError(ExitCode::usage, "'" + parser.remaining(true).front() + "' is one argument too many");
    } catch (const CLI::ParseError& error) {
        const std::string name = command == arguments.end() ? "" : " " + *command;
        throw ToolError(ExitCode::usage, format_text("%s (see `tarn help%s`)", error.what(), name.c_str()));
    }
    return take_prepared_run();
}
