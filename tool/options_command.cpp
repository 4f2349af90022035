#include "commands.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>

#include <CLI/CLI.hpp>
#include <cpl_json.h>

#include "command.hpp"
#include "help.hpp"

namespace {

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
    for (const auto& command : all_commands()) {
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
            for (const auto& record : all_commands())
                std::printf("%s\n", help_text(*record).c_str());
    });
}
