#include "commands.hpp"

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <sstream>

#include <CLI/CLI.hpp>
#include <toml.hpp>

#include "command.hpp"
#include "message.hpp"
#include "named_grids.hpp"
#include "parser.hpp"

namespace {

struct Step {
    std::string title;
    std::shared_ptr<CLI::App> parser;
    std::function<void()> run;
};

/// On one line.
std::string flattened(const std::string& text) {
    std::istringstream words(text);
    std::string line;
    for (std::string word; words >> word;)
        line += (line.empty() ? "" : " ") + word;
    return line;
}

std::string text_of(const std::string& key, const toml::value& value) {
    if (value.is_string())
        return toml::get<std::string>(value);
    if (value.is_integer())
        return std::to_string(toml::get<long long>(value));
    if (value.is_floating())
        return format_text("%.9g", toml::get<double>(value));
    throw ToolError(ExitCode::usage, "'" + key + "' must be a text, a number, true, false or a list of those");
}

/// The words that a key of a step stands for on a command line.
std::vector<std::string> words_of(const std::string& key, const toml::value& value) {
    std::string option = "--" + key;
    std::replace(option.begin(), option.end(), '_', '-');
    if (value.is_boolean())
        return toml::get<bool>(value) ? std::vector<std::string>{option} : std::vector<std::string>{};
    if (!value.is_array())
        return {option + "=" + text_of(key, value)};
    std::vector<std::string> words{option};
    for (const toml::value& element : toml::get<std::vector<toml::value>>(value))
        words.push_back(text_of(key, element));
    return words;
}

std::vector<std::string> arguments_of(const toml::value& table) {
    const auto name = toml::find<std::string>(table, "command");
    check_command(name);
    if (name == "pipeline")
        throw ToolError(ExitCode::usage, "a pipeline cannot be a step of one");
    std::vector<std::string> arguments{name};
    std::set<std::string> positionals{"command"};
    for (const OptionRecord& option : find_command(name)->options)
        if (option.option.empty() && table.contains(option.name)) {
            arguments.push_back(text_of(option.name, toml::find(table, option.name)));
            positionals.insert(option.name);
        }
    for (const auto& [key, value] : toml::get<std::map<std::string, toml::value>>(table))
        if (!positionals.contains(key))
            for (std::string& word : words_of(key, value))
                arguments.push_back(std::move(word));
    return arguments;
}

/// Refuses a grid that is read before a step has made it.
void check_grid_order(const std::string& command, std::set<std::string>& made) {
    std::set<std::string> makes;
    for (const OptionRecord& option : find_command(command)->options)
        for (const std::string& value : option.parser->results())
            if (value.starts_with("@") && option.role == "output")
                makes.insert(value);
            else if (value.starts_with("@") && !made.contains(value))
                throw ToolError(ExitCode::usage, "no step before makes the grid '" + value + "'");
    made.merge(makes);
}

/// Runs `work`; what it refuses is told with the step.
void in_step(const std::string& title, const std::function<void()>& work) {
    try {
        work();
    } catch (const ToolError& error) {
        throw ToolError(error.exit_code, title + ": " + error.what());
    } catch (const std::out_of_range&) {
        throw ToolError(ExitCode::usage, title + ": 'command' is missing");
    } catch (const toml::exception& error) {
        throw ToolError(ExitCode::usage, title + ": " + flattened(error.what()));
    }
}

std::vector<toml::value> read_steps(const std::string& path) {
    try {
        return toml::find<std::vector<toml::value>>(toml::parse(path), "step");
    } catch (const std::exception& error) {
        throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "': " + flattened(error.what()));
    }
}

void run_pipeline(const std::string& path) {
    const std::vector<toml::value> tables = read_steps(path);
    allow_grid_names();
    std::vector<Step> steps;
    std::set<std::string> made;
    for (const toml::value& table : tables) {
        Step step;
        step.title = format_text("step %zu of %zu", steps.size() + 1, tables.size());
        step.parser = make_parser();
        in_step(step.title, [&] {
            const std::vector<std::string> arguments = arguments_of(table);
            step.title += ", " + arguments[0];
            step.run = prepare_arguments(*step.parser, arguments);
            check_grid_order(arguments[0], made);
        });
        steps.push_back(std::move(step));
    }
    const double share = 100.0 / static_cast<double>(std::max<std::size_t>(1, steps.size()));
    for (std::size_t i = 0; i < steps.size(); ++i) {
        print_note(steps[i].title);
        set_progress_part(steps[i].title + ": ", share * static_cast<double>(i), share * static_cast<double>(i + 1));
        if (steps[i].run)
            in_step(steps[i].title, steps[i].run);
        steps[i] = {}; // its grids may go
    }
}

} // namespace

void add_pipeline_command(CLI::App& app) {
    Command command(app, "pipeline", "Run several commands, without files between them", {});
    const auto path = std::make_shared<std::string>();
    command.input("STEPS", *path, "file", "", "Text file with the steps, TOML");
    command.example("tarn pipeline steps.toml", "The steps one after the other; all are checked before the first runs");
    command.example("tarn --verbose pipeline steps.toml", "With what the library reports of each");
    command.runs([path](Outputs&) { run_pipeline(*path); });
}
