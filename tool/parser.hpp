#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// The parser of all commands, fresh: with the defaults in their settings. The table of commands is that of the latest.
std::shared_ptr<CLI::App> make_parser();

/// Parses and checks what comes after `tarn`. What is returned runs the command, as long as the parser lives; it is
/// empty if a help was asked for. Both throw ToolError.
std::function<void()> prepare_arguments(CLI::App& parser, const std::vector<std::string>& arguments);
