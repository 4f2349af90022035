#include "help.hpp"

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include "command.hpp"

namespace {

constexpr std::size_t line_width = 80;
constexpr std::size_t text_column = 32;

/// A text broken into lines that begin at `column`; the first one begins after what stands in `line`.
std::string broken(std::string line, const std::string& text, std::size_t column) {
    std::string lines;
    if (line.size() + 2 > column) {
        lines = line + "\n";
        line.clear();
    }
    line.resize(column, ' ');
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (line.size() > column && line.size() + 1 + word.size() > line_width) {
            lines += line + "\n";
            line.assign(column, ' ');
        }
        line += (line.size() > column ? " " : "") + word;
    }
    return lines + line + "\n";
}

std::string entry(const std::string& name, const std::string& text) {
    return broken("  " + name, text, text_column);
}

/// The other options that an option goes with, or does not.
std::string others(const std::string& words, const std::set<CLI::Option*>& options) {
    std::string text;
    for (const CLI::Option* const option : options)
        text += (text.empty() ? "; " + words + " " : " or ") + option->get_name();
    return text;
}

std::string entry(const OptionRecord& option) {
    const bool is_positional = option.option.empty();
    const std::string placeholder = placeholder_of(option);
    const std::string name = is_positional ? option.parser->get_name() : option.option;
    std::string text = option.help + others("goes with", option.parser->get_needs()) +
                       others("not with", option.parser->get_excludes());
    if (!is_positional && option.is_required)
        text += " (required)";
    if (const std::string value = default_of(option); !value.empty())
        text += " [" + value + "]";
    return entry(name + (is_positional || placeholder.empty() ? "" : " " + placeholder), text);
}

std::string usage(const CommandRecord& command) {
    std::string line = "tarn " + command.name;
    bool has_others = false;
    for (const bool positional : {true, false})
        for (const OptionRecord& option : command.options) {
            if (option.option.empty() != positional)
                continue;
            if (positional)
                line += option.is_required ? " " + option.parser->get_name() : " [" + option.parser->get_name() + "]";
            else if (option.is_required)
                line += " " + option.option + " " + placeholder_of(option);
            else
                has_others = true;
        }
    return line + (has_others ? " [options]" : "");
}

template <class Filter>
std::string section(const CommandRecord& command, const std::string& title, const Filter& is_in) {
    std::string text;
    for (const OptionRecord& option : command.options)
        if (is_in(option))
            text += entry(option);
    return text.empty() ? "" : "\n" + title + text;
}

std::string common_section() {
    std::string text = "\nWith every command:\n";
    for (const CommonFlag& flag : common_flags) {
        const std::size_t comma = flag.names.find(',');
        text += entry(comma == std::string::npos ? flag.names
                                                 : flag.names.substr(0, comma) + ", " + flag.names.substr(comma + 1),
                      flag.help);
    }
    return text;
}

std::string example_section(const std::vector<Example>& examples) {
    std::string text = "\nExamples:\n";
    for (const Example& example : examples)
        text += "  " + example.line + "\n" + broken("", example.text, 6);
    return text;
}

class HelpText : public CLI::Formatter {
  public:
    std::string make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const override {
        const CommandRecord* const command = find_command(app->get_name());
        return command == nullptr ? help_text() : help_text(*command);
    }
};

} // namespace

std::string help_text(const CommandRecord& command) {
    return command.summary + "\n\nUsage: " + usage(command) + "\n" +
           section(command, "", [](const OptionRecord& o) { return o.option.empty(); }) +
           section(command, "Options:\n", [](const OptionRecord& o) { return !o.option.empty() && !o.is_advanced; }) +
           section(command, "Advanced options:\n", [](const OptionRecord& o) { return o.is_advanced; }) +
           common_section() + example_section(command.examples);
}

std::string help_text() {
    std::string text = "Shapes terrain with Tarn.oneAPI\n\nUsage: tarn COMMAND ... [options]\n\nCommands:\n";
    for (const auto& command : all_commands())
        text += broken("  " + command->name, command->summary, 14);
    return text + common_section() +
           example_section({{"tarn help erode", "What a command takes"},
                            {"tarn erode land.tif eroded.tif --preview eroded.png",
                             "Water runs over the terrain in land.tif; the result, and a picture of it"}});
}

void use_help_text(CLI::App& app) {
    app.formatter(std::make_shared<HelpText>());
}

void add_help_command(CLI::App& app) {
    const auto name = std::make_shared<std::string>();
    Command command(app, "help", "Tell about a command, or list all commands", {});
    command.text("COMMAND", *name, "command", "", "Name of a command").optional();
    command.example("tarn help", "All commands");
    command.example("tarn help shape", "The options of one");
}
