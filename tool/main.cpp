// `tarn`: a command-line host of Tarn.oneAPI. It reads height grids, has the library work on them and writes the
// results. docs/tool.md is its manual.

#include <cstdio>
#include <exception>
#include <new>

#include <CLI/CLI.hpp>

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
    app.require_subcommand(1);
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
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) { // --help or --version
        return app.exit(request);
    } catch (const CLI::ParseError& error) {
        throw ToolError(ExitCode::usage, std::string(error.what()) + " (see `tarn --help`)");
    }
    return static_cast<int>(ExitCode::ok);
}

} // namespace

int main(int argc, char** argv) {
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
