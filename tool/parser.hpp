#pragma once

#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The parser of all commands, fresh: with the defaults in their settings. The table of commands is that of the latest.
std::shared_ptr<CLI::App> make_parser();

/// Parses what comes after `tarn`, which runs the command. Throws ToolError.
void run_arguments(CLI::App& parser, const std::vector<std::string>& arguments);
