#include "commands.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include <CLI/CLI.hpp>
#include <cpl_vsi.h>
#include <toml.hpp>

#include "command.hpp"
#include "common_options.hpp"
#include "message.hpp"
#include "named_grids.hpp"
#include "parser.hpp"
#include "spelling.hpp"

namespace {

namespace fs = std::filesystem;

struct Step {
    std::string title;
    std::vector<std::string> arguments;
    std::shared_ptr<CLI::App> parser;
    std::function<void()> run;
};

[[noreturn]] void refuse(const std::string& line) {
    throw ToolError(ExitCode::usage, line);
}

std::string text_of(const std::string& key, const toml::value& value) {
    if (value.is_string())
        return toml::get<std::string>(value);
    if (value.is_integer())
        return std::to_string(toml::get<long long>(value));
    if (value.is_floating()) {
        char text[32];
        return {text, std::to_chars(text, text + sizeof text, toml::get<double>(value)).ptr};
    }
    refuse("'" + key + "' must be a text or a number");
}

/// The words that a key of a step stands for on a command line.
std::vector<std::string> words_of(const OptionRecord& option, const toml::value& value) {
    if (option.type == "flag") {
        if (!value.is_boolean())
            refuse("'" + option.name + "' must be true or false");
        return toml::get<bool>(value) ? std::vector<std::string>{option.option} : std::vector<std::string>{};
    }
    if (!value.is_array())
        return {option.option + "=" + text_of(option.name, value)};
    if (option.count == 1)
        refuse("'" + option.name + "' takes one value");
    std::vector<std::string> words;
    for (const toml::value& element : toml::get<std::vector<toml::value>>(value))
        if (option.count == 0)
            words.push_back(option.option + "=" + text_of(option.name, element));
        else
            words.push_back(text_of(option.name, element));
    if (option.count != 0)
        words.insert(words.begin(), option.option);
    return words;
}

/// Throws if a step cannot be this command. What neither reads nor writes a grid is of no use as one.
const CommandRecord& command_of(const toml::value& table) {
    if (!table.is_table() || !table.contains("command"))
        refuse("'command' is missing");
    const std::string name = text_of("command", toml::find(table, "command"));
    check_command(name);
    const CommandRecord& command = *find_command(name);
    const bool has_input = std::any_of(command.options.begin(), command.options.end(),
                                       [](const OptionRecord& option) { return option.role == "input"; });
    if (!has_input || name == "pipeline")
        refuse("`tarn " + name + "` cannot be a step");
    return command;
}

std::vector<std::string> arguments_of(const toml::value& table) {
    const CommandRecord& command = command_of(table);
    std::vector<std::string> arguments{command.name};
    std::set<std::string> known{"command"};
    std::vector<std::string> words;
    for (const OptionRecord& option : command.options) {
        known.insert(option.name);
        if (!table.contains(option.name))
            continue;
        const toml::value& value = toml::find(table, option.name);
        if (option.option.empty())
            arguments.push_back(text_of(option.name, value));
        else
            for (std::string& word : words_of(option, value))
                words.push_back(std::move(word));
    }
    for (const auto& [key, value] : toml::get<std::map<std::string, toml::value>>(table))
        if (!known.contains(key)) {
            std::string option = "--" + key;
            std::replace(option.begin(), option.end(), '_', '-');
            check_options(command.name, {option});
            refuse("'" + key + "' is no option of a step"); // but one of every command line
        }
    arguments.insert(arguments.end(), words.begin(), words.end());
    return arguments;
}

/// What the steps read and write, in their order.
class Files {
  public:
    /// Refuses what no step before makes and is no file, and other things than grids under a grid's name.
    void check(const CommandRecord& command, std::size_t step);
    /// Grids that no step reads.
    std::vector<std::string> unread() const { return {unread_.begin(), unread_.end()}; }
    /// Frees the grids that no step after this one uses.
    void forget_after(std::size_t step) const {
        for (const auto& [name, last] : last_use_)
            if (last == step)
                forget_grid(name);
    }

  private:
    void check_input(const std::string& path) const;

    std::set<std::string> made_, unread_;
    std::map<std::string, std::size_t> last_use_;
};

std::string place_of(const std::string& path) {
    return is_grid_name(path) ? path : fs::weakly_canonical(fs::absolute(path)).string();
}

void Files::check_input(const std::string& path) const {
    if (made_.contains(place_of(path)))
        return;
    if (is_grid_name(path))
        refuse("no step before makes the grid '" + path + "'");
    // GDAL has names with a colon for parts of files.
    if (VSIStatBufL status; path.find(':') == std::string::npos && VSIStatL(path.c_str(), &status) != 0)
        throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "': there is no such file");
}

void Files::check(const CommandRecord& command, std::size_t step) {
    std::set<std::string> makes;
    for (const OptionRecord& option : command.options) {
        const bool is_layer = option.placeholder.ends_with("GRID"); // NAME=GRID
        if (option.role == "parameter" && !is_layer)
            continue;
        for (const std::string& value : option.parser->results()) {
            if (option.type.ends_with("_or_grid") && number_of(value))
                continue;
            const std::string path = is_layer ? value.substr(value.find('=') + 1) : value;
            if (is_grid_name(path) && option.type != "grid" && !is_layer)
                refuse("'" + path + "': only grids stay in memory");
            if (is_grid_name(path))
                last_use_[path] = step;
            if (option.role == "output") {
                makes.insert(place_of(path));
                continue;
            }
            check_input(path);
            unread_.erase(path);
        }
    }
    for (const std::string& path : makes)
        if (is_grid_name(path))
            unread_.insert(path);
    made_.merge(makes);
}

/// Runs `work`; what it refuses is told with the step.
void in_step(const std::string& title, const std::function<void()>& work) {
    try {
        work();
    } catch (const ToolError& error) {
        throw ToolError(error.exit_code, title + ": " + error.what());
    }
}

/// What the parser of TOML says is several lines, with the text around the place. "line 3: value is not closed"
std::string syntax_error(const std::string& message) {
    std::istringstream lines(message);
    std::string what, place, line;
    std::getline(lines, what);
    while (place.empty() && std::getline(lines, line)) {
        std::istringstream words(line); // " 3 | command ="
        int number = 0;
        char bar = 0;
        if (words >> number >> bar && bar == '|')
            place = "line " + std::to_string(number) + ": ";
    }
    for (const char* const prefix : {"[error] ", "toml::"})
        if (what.starts_with(prefix))
            what.erase(0, what.find(' ') + 1);
    return place + what;
}

std::vector<toml::value> read_steps(const std::string& path) {
    const auto refuse_file = [&](const std::string& reason) {
        throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "': " + reason);
    };
    if (fs::is_directory(path))
        refuse_file("it is a folder");
    std::ifstream file(path, std::ios::binary);
    if (!file)
        refuse_file("there is no such file");
    toml::value root;
    try {
        root = toml::parse(file, path);
    } catch (const std::exception& error) {
        refuse_file(syntax_error(error.what()));
    }
    for (const auto& [key, value] : toml::get<std::map<std::string, toml::value>>(root))
        if (key != "step")
            refuse_file("'" + key + "' is not known; each step is a table [[step]]");
    if (!root.contains("step") || !toml::find(root, "step").is_array() || toml::find(root, "step").size() == 0)
        refuse_file("it has no table [[step]]");
    return toml::get<std::vector<toml::value>>(toml::find(root, "step"));
}

void run_pipeline(const std::string& path) {
    const std::vector<toml::value> tables = read_steps(path);
    allow_grid_names();
    std::vector<Step> steps;
    Files files;
    for (const toml::value& table : tables) {
        Step step;
        step.title = format_text("step %zu of %zu", steps.size() + 1, tables.size());
        step.parser = make_parser();
        in_step(step.title, [&] {
            step.arguments = arguments_of(table);
            step.title += ", " + step.arguments[0];
        });
        in_step(step.title, [&] {
            step.run = prepare_arguments(*step.parser, step.arguments);
            files.check(*find_command(step.arguments[0]), steps.size());
        });
        steps.push_back(std::move(step));
    }
    for (const std::string& name : files.unread())
        print_note("no step reads the grid '" + name + "'");
    const double share = 100.0 / static_cast<double>(steps.size());
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const std::string number = format_text("step %zu of %zu: ", i + 1, steps.size());
        print_note(number + command_line_of(steps[i].arguments));
        const auto start = std::chrono::steady_clock::now();
        set_progress_part(steps[i].title + ": ", share * static_cast<double>(i), share * static_cast<double>(i + 1));
        set_command_line(steps[i].arguments, format_text("step %zu of %s", i + 1, path.c_str()));
        in_step(steps[i].title, steps[i].run);
        steps[i] = {}; // the grids that it holds may go
        files.forget_after(i);
        print_note(
            number +
            format_text("%.2f s", std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count()));
    }
}

} // namespace

void add_pipeline_command(CLI::App& app) {
    Command command(app, "pipeline", "Run several commands, without files between them", {});
    const auto path = std::make_shared<std::string>();
    command.input("STEPS", *path, "file", "",
                  "TOML file with a table [[step]] for each step: its command, and its arguments and options by their "
                  "names, as in erosion_strength = 0.7. A grid named @NAME stays in memory for later steps");
    command.example("tarn pipeline steps.toml", "The steps one after the other; all are checked before the first runs");
    command.example("tarn --verbose pipeline steps.toml", "With what the library reports of each");
    command.runs([path](Outputs&) { run_pipeline(*path); });
}
