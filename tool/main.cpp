// `tarn`: a command-line host of Tarn.oneAPI. It reads height grids, has the library work on them and writes the
// results. docs/tool.md is its manual.

#include <csignal>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include <malloc.h>

#include <CLI/CLI.hpp>

#include "message.hpp"
#include "outputs.hpp"
#include "parser.hpp"

int main(int argc, char** argv) {
    // A file that grows too large is an error to report, not a reason to die.
    std::signal(SIGXFSZ, SIG_IGN);
    // Grids come and go. What one leaves stays for the next, for which the system would have to clear pages.
    mallopt(M_MMAP_THRESHOLD, 1 << 25);
    mallopt(M_TRIM_THRESHOLD, 1 << 28);
    ExitCode code = ExitCode::failed;
    try {
        const std::vector<std::string> arguments(argv + 1, argv + argc);
        set_command_line(arguments);
        const auto parser = make_parser();
        if (const auto run = prepare_arguments(*parser, arguments))
            run();
        return static_cast<int>(ExitCode::ok);
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
