// `tarn`: a command-line host of Tarn.oneAPI. It reads height grids, has the library work on them and writes the
// results. docs/tool.md is its manual.

#include <algorithm>
#include <csignal>
#include <exception>
#include <new>

#include <CLI/CLI.hpp>

#include "command.hpp"
#include "commands.hpp"
#include "message.hpp"

namespace {

/// Set as soon as it is parsed, so that the subcommands, which run at the end of parsing, follow it.
void add_verbosity_flags(CLI::App& app) {
    app.add_flag_callback(
        "-q,--quiet", [] { set_verbosity(Verbosity::quiet); }, "No notes and no progress bar");
    app.add_flag_callback(
        "-v,--verbose", [] { set_verbosity(Verbosity::verbose); }, "Also what the library reports");
}

int run(int argc, char** argv) {
    CLI::App app("Shapes terrain with Tarn.oneAPI", "tarn");
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->column_width(34);
    app.fallthrough();
    app.set_version_flag("--version", TARN_VERSION);
    add_verbosity_flags(app);
    add_devices_command(app);
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
    add_options_command(app);
    app.add_subcommand("help", "Tell about a command");
    for (CLI::App* const command : app.get_subcommands({}))
        command->group("Commands");
    set_command_line(argc, argv);
    const char* const* const command = std::find_if(argv + 1, argv + argc, [](const char* a) { return *a != '-'; });
    if (command != argv + argc)
        check_command(app, *command);
    // The parser would take the name after it for a second command.
    if (command != argv + argc && std::string(*command) == "help") {
        print_help(app, command + 1 == argv + argc ? "" : command[1]);
        return static_cast<int>(ExitCode::ok);
    }
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            throw ToolError(ExitCode::usage, "a command is missing; `tarn help` lists them");
    } catch (const CLI::Success& request) { // --help or --version
        return app.exit(request);
    } catch (const CLI::ExtrasError&) {
        refuse_arguments(app);
    } catch (const CLI::ParseError& error) {
        const std::string name = command == argv + argc ? "" : std::string(" ") + *command;
        throw ToolError(ExitCode::usage, format_text("%s (see `tarn help%s`)", error.what(), name.c_str()));
    }
    return static_cast<int>(ExitCode::ok);
}

} // namespace

int main(int argc, char** argv) {
    // A file that grows too large is an error to report, not a reason to die.
    std::signal(SIGXFSZ, SIG_IGN);
    ExitCode code = ExitCode::failed;
    try {
        return run(argc, argv);
    } catch (const ToolError& error) {
        print_error(error.what());
        code = error.exit_code;
    } catch (const std::bad_alloc&) {
        print_error("out of memory");
        code = ExitCode::out_of_memory;
    } catch (const std::exception& error) {
        print_error(error.what());
    }
    return static_cast<int>(code);
}
