#pragma once

#include <string>

namespace CLI {
class App;
}
struct CommandRecord;

/// What `tarn help` prints, and `tarn help COMMAND`.
std::string help_text();
std::string help_text(const CommandRecord& command);

/// Has `--help` print the same, of this parser and of the commands that are added to it.
void use_help_text(CLI::App& app);

/// `tarn help [COMMAND]`, which main answers itself.
void add_help_command(CLI::App& app);
