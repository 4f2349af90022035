#include "option_table.hpp"

#include <utility>

#include "message.hpp"

namespace {

std::vector<std::shared_ptr<CommandRecord>>& table() {
    static std::vector<std::shared_ptr<CommandRecord>> commands;
    return commands;
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

std::shared_ptr<CommandRecord> add_to_table(CommandRecord command) {
    table().push_back(std::make_shared<CommandRecord>(std::move(command)));
    return table().back();
}

void clear_table() {
    table().clear();
}
