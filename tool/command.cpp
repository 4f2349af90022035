#include "command.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <type_traits>
#include <utility>

#include <CLI/CLI.hpp>
#include <cpl_json.h>

#include "help.hpp"
#include "message.hpp"

namespace {

std::vector<std::shared_ptr<CommandRecord>>& table() {
    static std::vector<std::shared_ptr<CommandRecord>> commands;
    return commands;
}

std::function<void()>& prepared_run() {
    static std::function<void()> run;
    return run;
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : separator) + word;
    return text;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

} // namespace

std::string placeholder_of(const OptionRecord& record) {
    if (!record.placeholder.empty())
        return record.placeholder;
    if (record.type == "flag")
        return "";
    if (record.type == "choice")
        return joined(record.choices, "|");
    if (record.type == "picture")
        return record.role == "output" ? "PNG" : "RGB";
    if (record.count == 3)
        return "R G B";
    if (record.type == "number" || record.type == "integer")
        return record.unit == "metres" || record.unit == "degrees" || record.unit == "cells" ? upper(record.unit)
                                                                                             : "NUMBER";
    return upper(record.type);
}

std::string default_of(const OptionRecord& option) {
    if (option.type == "flag")
        return "";
    return option.defaults.empty() ? option.default_text : joined(option.defaults, " ");
}

const std::vector<std::shared_ptr<CommandRecord>>& all_commands() {
    return table();
}

const CommandRecord* find_command(const std::string& name) {
    for (const auto& command : table())
        if (command->name == name)
            return command.get();
    return nullptr;
}

namespace {

/// The number of single-character changes between two words (V. I. Levenshtein, 1966).
std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row[b.size()];
}

template <class Number>
constexpr const char* type_of = std::is_integral_v<Number> ? "integer" : "number";

/// The shortest decimal that is this number.
template <class Number>
std::string decimal(Number value) {
    char text[32];
    return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

CLI::Validator range_check(const Range& range) {
    return CLI::Validator(
        [range](const std::string& text) -> std::string {
            double value = 0;
            // NaN passes CLI11's own range.
            if (!CLI::detail::lexical_cast(text, value) || !std::isfinite(value))
                return "'" + text + "' is not a finite number";
            const auto is_value = [value](int member) {
                return member == value;
            };
            if (!range.members.empty()) {
                std::vector<std::string> members;
                members.reserve(range.members.size());
                for (const int member : range.members)
                    members.push_back(std::to_string(member));
                return std::any_of(range.members.begin(), range.members.end(), is_value)
                           ? ""
                           : "'" + text + "' is not one of " + joined(members, ", ");
            }
            if (range.above_lowest) {
                // Below the smallest normal float a parameter of the library would be 0 or lose its digits.
                const double least = range.lowest + static_cast<double>(std::numeric_limits<float>::min());
                return value >= least && value <= range.highest ? "" : "'" + text + "' is not a number above 0";
            }
            return value >= range.lowest && value <= range.highest
                       ? ""
                       : format_text("'%s' is not from %.10g to %.10g", text.c_str(), range.lowest, range.highest);
        },
        "");
}

/// The name in `names` that was probably meant, or empty.
std::string nearest_name(const std::string& name, const std::vector<std::string>& names) {
    std::string nearest;
    std::size_t least = name.size() / 3 + 1; // changes that a typo may make
    for (const std::string& candidate : names)
        if (const std::size_t changes = distance(name, candidate); changes < least + (nearest.empty() ? 1 : 0)) {
            nearest = candidate;
            least = changes;
        }
    return nearest;
}

CPLJSONArray array_of(const std::vector<std::string>& words) {
    CPLJSONArray array;
    for (const std::string& word : words)
        array.Add(word);
    return array;
}

/// A default in the JSON type of its option.
void add_value(CPLJSONArray& array, const OptionRecord& record, const std::string& value) {
    if (record.type == "integer")
        array.Add(static_cast<GInt64>(std::strtoll(value.c_str(), nullptr, 10)));
    else if (record.type == "number")
        array.Add(std::strtod(value.c_str(), nullptr));
    else if (record.type == "flag")
        array.Add(value == "true");
    else
        array.Add(value);
}

std::vector<std::string> names_of(const std::set<CLI::Option*>& options) {
    std::vector<std::string> names;
    names.reserve(options.size());
    for (const CLI::Option* const option : options)
        names.push_back(option->get_name());
    std::sort(names.begin(), names.end());
    return names;
}

CPLJSONObject json_of(const OptionRecord& record) {
    CPLJSONObject json;
    json.Add("name", record.name);
    json.Add("option", record.option);
    if (!record.alias.empty())
        json.Add("alias", record.alias);
    json.Add("role", record.role);
    json.Add("type", record.type);
    json.Add("unit", record.unit);
    json.Add("help", record.help);
    json.Add("count", record.count);
    json.Add("required", record.is_required);
    json.Add("advanced", record.is_advanced);
    if (!record.defaults.empty()) {
        CPLJSONArray values;
        for (const std::string& value : record.defaults)
            add_value(values, record, value);
        if (record.count == 1)
            json.Add("default", values[0]);
        else
            json.Add("default", values);
    }
    if (!record.default_text.empty())
        json.Add("default_text", record.default_text);
    if (record.range && record.range->members.empty()) {
        const auto add = [&](const char* name, double limit) {
            if (record.type == "integer")
                json.Add(name, static_cast<GInt64>(limit));
            else
                json.Add(name, limit);
        };
        add(record.range->above_lowest ? "exclusive_minimum" : "minimum", record.range->lowest);
        add("maximum", record.range->highest);
    } else if (record.range) {
        CPLJSONArray members;
        for (const int member : record.range->members)
            members.Add(member);
        json.Add("members", members);
    }
    if (const std::string placeholder = placeholder_of(record); !placeholder.empty())
        json.Add("placeholder", placeholder);
    if (!record.choices.empty())
        json.Add("choices", array_of(record.choices));
    if (!record.contents.empty())
        json.Add("contents", record.contents);
    if (!record.parser->get_needs().empty())
        json.Add("needs", array_of(names_of(record.parser->get_needs())));
    if (!record.parser->get_excludes().empty())
        json.Add("excludes", array_of(names_of(record.parser->get_excludes())));
    return json;
}

void print_json() {
    CPLJSONArray commands;
    for (const auto& command : table()) {
        CPLJSONObject json;
        json.Add("name", command->name);
        json.Add("summary", command->summary);
        json.Add("functions", array_of(command->functions));
        CPLJSONArray options;
        for (const OptionRecord& option : command->options)
            options.Add(json_of(option));
        json.Add("options", options);
        CPLJSONArray examples;
        for (const Example& example : command->examples) {
            CPLJSONObject line;
            line.Add("line", example.line);
            line.Add("text", example.text);
            examples.Add(line);
        }
        json.Add("examples", examples);
        commands.Add(json);
    }
    CPLJSONArray flags;
    for (const CommonFlag& flag : common_flags) {
        CPLJSONObject json;
        json.Add("names", flag.names);
        json.Add("help", flag.help);
        flags.Add(json);
    }
    CPLJSONObject root;
    root.Add("common_flags", flags);
    root.Add("version", std::string(TARN_VERSION));
    root.Add("commands", commands);
    std::printf("%s\n", root.Format(CPLJSONObject::PrettyFormat::Pretty).c_str());
}

} // namespace

Entry& Entry::otherwise(const std::string& text) {
    record().default_text = text;
    record().defaults.clear();
    return *this;
}

Entry& Entry::required() {
    record().is_required = true;
    record().parser->required();
    return *this;
}

Entry& Entry::optional() {
    record().is_required = false;
    record().parser->required(false);
    return *this;
}

Entry& Entry::advanced() {
    record().is_advanced = true;
    return *this;
}

Entry& Entry::needs(const Entry& other) {
    record().parser->needs(other.record().parser);
    return *this;
}

Entry& Entry::excludes(const Entry& other) {
    record().parser->excludes(other.record().parser);
    return *this;
}

Command::Command(CLI::App& app, const std::string& name, const std::string& summary,
                 const std::vector<std::string>& functions)
    : parser_(app.add_subcommand(name, summary)), outputs_(std::make_shared<Outputs>()) {
    table().push_back(std::make_shared<CommandRecord>(CommandRecord{name, summary, functions, {}, {}}));
    record_ = table().back();
}

Entry Command::add(CLI::Option* parser, OptionRecord record) {
    const bool is_positional = !record.name.starts_with("-");
    if (const std::size_t comma = record.name.find(','); comma != std::string::npos) {
        record.alias = record.name.substr(comma + 1);
        record.name.erase(comma);
    }
    record.option = is_positional ? "" : record.name;
    record.name.erase(0, record.name.find_first_not_of('-'));
    std::transform(record.name.begin(), record.name.end(), record.name.begin(),
                   [](unsigned char c) { return c == '-' ? '_' : static_cast<char>(std::tolower(c)); });
    record.parser = parser;
    record.is_required = is_positional;
    if (is_positional)
        parser->required();
    record_->options.push_back(std::move(record));
    return {*record_, record_->options.size() - 1};
}

Entry Command::input(const std::string& name, std::string& path, const std::string& type, const std::string& unit,
                     const std::string& help) {
    OptionRecord record;
    record.name = name;
    record.role = "input";
    record.type = type;
    record.unit = unit;
    record.help = help;
    return add(parser_->add_option(name, path), std::move(record));
}

Entry Command::output(const std::string& name, GridOutput& grid, const std::string& help) {
    OptionRecord record;
    record.name = name;
    record.role = "output";
    record.type = "grid";
    record.unit = grid.unit;
    record.help = help;
    record.contents = grid.contents;
    outputs_->expect_grid(grid);
    return add(parser_->add_option(name, grid.path), std::move(record));
}

Entry Command::file(const std::string& name, std::string& path, const std::string& type, const std::string& ending,
                    const std::string& help) {
    OptionRecord record;
    record.name = name;
    record.role = "output";
    record.type = type;
    record.help = help;
    outputs_->expect_file(path);
    const auto has_ending = [ending](const std::string& text) -> std::string {
        const bool has_it = text.size() > ending.size() && (text.ends_with(ending) || text.ends_with(upper(ending)));
        return has_it ? "" : "'" + text + "' must end in " + ending;
    };
    return add(parser_->add_option(name, path)->check(CLI::Validator(has_ending, "")), std::move(record));
}

Entry Command::picture(const std::string& name, std::string& path, const std::string& help) {
    return file(name, path, "picture", ".png", help);
}

Entry Command::page(const std::string& name, std::string& path, const std::string& help) {
    return file(name, path, "page", ".html", help);
}

Entry Command::flag(const std::string& name, bool& value, const std::string& help) {
    OptionRecord record;
    record.name = name;
    record.role = "parameter";
    record.type = "flag";
    record.help = help;
    record.defaults = {"false"};
    return add(parser_->add_flag(name, value), std::move(record));
}

Entry Command::text(const std::string& name, std::string& value, const std::string& type,
                    const std::string& placeholder, const std::string& help, std::string (*check)(const std::string&)) {
    OptionRecord record;
    record.name = name;
    record.role = "parameter";
    record.type = type;
    record.placeholder = placeholder;
    record.help = help;
    if (!value.empty())
        record.defaults = {value};
    CLI::Option* const parser = parser_->add_option(name, value);
    if (check != nullptr)
        parser->check(CLI::Validator(check, ""));
    return add(parser, std::move(record));
}

Entry Command::texts(const std::string& name, std::vector<std::string>& values, const std::string& placeholder,
                     const std::string& help) {
    OptionRecord record;
    record.name = name;
    record.role = "parameter";
    record.type = "text";
    record.placeholder = placeholder;
    record.help = help;
    record.count = 0;
    return add(parser_->add_option(name, values)->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll),
               std::move(record));
}

template <class Value>
Entry Command::number(const std::string& name, Value& value, const Range& range, const std::string& unit,
                      const std::string& help, int count) {
    OptionRecord record;
    record.name = name;
    record.role = "parameter";
    record.unit = unit;
    record.help = help;
    record.range = range;
    record.count = count;
    if constexpr (std::is_arithmetic_v<Value>) {
        record.type = type_of<Value>;
        record.defaults = {decimal(value)};
    } else { // an optional or a vector
        record.type = type_of<typename Value::value_type>;
        if constexpr (requires { value.size(); })
            for (const auto number : value)
                record.defaults.push_back(decimal(number));
        else if (value)
            record.defaults = {decimal(*value)};
    }
    CLI::Option* const parser = parser_->add_option(name, value)->check(range_check(range));
    if (count > 1)
        parser->expected(count);
    return add(parser, std::move(record));
}

template Entry Command::number(const std::string&, float&, const Range&, const std::string&, const std::string&, int);
template Entry Command::number(const std::string&, double&, const Range&, const std::string&, const std::string&, int);
template Entry Command::number(const std::string&, int&, const Range&, const std::string&, const std::string&, int);
template Entry Command::number(const std::string&, std::uint32_t&, const Range&, const std::string&, const std::string&,
                               int);
template Entry Command::number(const std::string&, std::optional<float>&, const Range&, const std::string&,
                               const std::string&, int);
template Entry Command::number(const std::string&, std::optional<double>&, const Range&, const std::string&,
                               const std::string&, int);
template Entry Command::number(const std::string&, std::optional<int>&, const Range&, const std::string&,
                               const std::string&, int);
template Entry Command::number(const std::string&, std::vector<float>&, const Range&, const std::string&,
                               const std::string&, int);
template Entry Command::number(const std::string&, std::vector<int>&, const Range&, const std::string&,
                               const std::string&, int);

Entry Command::choice(const std::string& name, const std::vector<std::string>& words, const std::string& current,
                      const std::string& help, const std::function<void(std::size_t)>& choose) {
    const auto find = [words](const std::string& text) {
        return std::find_if(words.begin(), words.end(),
                            [&](const std::string& word) { return upper(word) == upper(text); }) -
               words.begin();
    };
    OptionRecord record;
    record.name = name;
    record.role = "parameter";
    record.type = "choice";
    record.help = help;
    record.choices = words;
    record.defaults = {current};
    CLI::Option* const parser = parser_->add_option(name, [=](const CLI::results_t& texts) {
        choose(static_cast<std::size_t>(find(texts[0])));
        return true;
    });
    return add(parser->check(CLI::Validator(
                   [=](const std::string& text) {
                       return find(text) < std::ssize(words) ? ""
                                                             : "'" + text + "' is not one of " + joined(words, ", ");
                   },
                   "")),
               std::move(record));
}

void Command::runs(const std::function<void(Outputs&)>& run) {
    parser_->callback([run, outputs = outputs_, record = record_] {
        for (const OptionRecord& option : record->options)
            if (option.name == "seed")
                outputs->note_seed(option.parser->empty() ? option.defaults[0] : option.parser->results()[0]);
        outputs->check_names();
        prepared_run() = [run, outputs] {
            run(*outputs);
        };
    });
}

std::function<void()> take_prepared_run() {
    return std::exchange(prepared_run(), nullptr);
}

void clear_table() {
    table().clear();
}

void check_command(const std::string& name) {
    if (find_command(name) != nullptr)
        return;
    std::vector<std::string> names;
    for (const auto& command : table())
        names.push_back(command->name);
    const std::string nearest = nearest_name(name, names);
    throw ToolError(ExitCode::usage,
                    "there is no command '" + name + "'" +
                        (nearest.empty() ? "; `tarn help` lists them" : "; did you mean `tarn " + nearest + "`?"));
}

void check_options(const std::string& command, const std::vector<std::string>& arguments) {
    std::vector<std::string> names{"-q", "-v", "-h", "--quiet", "--verbose", "--help", "--version"};
    for (const OptionRecord& option : find_command(command)->options)
        for (const std::string& name : {option.option, option.alias})
            if (!name.empty())
                names.push_back(name);
    for (const std::string& argument : arguments) {
        const std::string name = argument.substr(0, argument.find('='));
        if (name == "--")
            return;
        const bool is_option = name.size() > 1 && name[0] == '-' && (name[1] == '-' || std::isalpha(name[1]) != 0);
        if (!is_option || std::find(names.begin(), names.end(), name) != names.end())
            continue;
        const std::string nearest = name.size() > 2 ? nearest_name(name, names) : "";
        const std::string hint =
            nearest.empty() ? format_text(" (see `tarn help %s`)", command.c_str()) : "; did you mean " + nearest + "?";
        throw ToolError(ExitCode::usage,
                        format_text("`tarn %s` has no option '%s'%s", command.c_str(), name.c_str(), hint.c_str()));
    }
}

void add_options_command(CLI::App& app) {
    const auto as_json = std::make_shared<bool>(false);
    Command command(app, "options", "List all options of all commands", {});
    command.flag("--json", *as_json, "As JSON: names, types, units, defaults, ranges and helps");
    command.example("tarn options", "The helps of all commands, one after the other");
    command.example("tarn options --json > options.json", "The same table for another program");
    command.runs([as_json](Outputs&) {
        if (*as_json)
            print_json();
        else
            for (const auto& record : table())
                std::printf("%s\n", help_text(*record).c_str());
    });
}
