#pragma once

#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class Option;
}

/// The numbers that an option takes: from the lowest to the highest, or no others than the members.
struct Range {
    double lowest, highest;
    bool above_lowest = false; ///< the lowest itself is not taken
    std::vector<int> members = {};
};
inline const Range above_0{0, static_cast<double>(std::numeric_limits<float>::max()), true};
inline const Range from_0_to_1{0, 1};
inline const Range any_seed{0, 4294967295.0};

/// One option of a command as the table of options tells it: everything that a program needs to offer the option under
/// the same name, in the same unit and with the same default, range and help.
struct OptionRecord {
    std::string name;   ///< with underscores: "feature_size"; "in" for a positional IN
    std::string option; ///< as it is typed: "--feature-size"; empty for a positional
    std::string alias;  ///< another name, from before
    std::string role;   ///< parameter, input or output
    std::string type;   ///< number, integer, flag, choice, day, time, text, grid, picture, model, points...
    std::string unit;   ///< metres, degrees, cells...; "height" is the unit of the heights; empty for plain numbers
    std::string placeholder; ///< in the help
    std::string help;
    std::vector<std::string> defaults; ///< none if the default follows from the input, which default_text then tells
    std::string default_text;
    std::optional<Range> range;
    std::vector<std::string> choices;
    std::string contents; ///< of an output grid: what its numbers are
    int count = 1;        ///< of values after the option; 0 if it may be given any number of times
    bool is_required = false;
    bool is_advanced = false;
    CLI::Option* parser = nullptr;
};

/// A command line, and what comes of it.
struct Example {
    std::string line;
    std::string text;
};

/// A command as the table tells it.
struct CommandRecord {
    std::string name;
    std::string summary;
    std::vector<std::string> functions; ///< of the library
    std::vector<OptionRecord> options;
    std::vector<Example> examples;
};

/// An option that goes with every command.
struct CommonFlag {
    std::string names; ///< with a comma, the short one first
    std::string help;
};
inline const std::vector<CommonFlag> common_flags{{"-q,--quiet", "No notes and no progress bar"},
                                                  {"-v,--verbose", "Also what the library reports"},
                                                  {"-h,--help", "Print this text"},
                                                  {"--version", "Print the version"}};

/// The table of all commands, in the order in which they were added.
const std::vector<std::shared_ptr<CommandRecord>>& all_commands();
/// The record of a command, or null.
const CommandRecord* find_command(const std::string& name);
/// What stands for the value of an option: METRES, GRID, pad|resample...; empty for a flag.
std::string placeholder_of(const OptionRecord& option);
/// The value of an option that is not given, in words; empty if there is none to tell.
std::string default_of(const OptionRecord& option);

/// A command at the end of the table.
std::shared_ptr<CommandRecord> add_to_table(CommandRecord command);
/// Forgets all commands.
void clear_table();
