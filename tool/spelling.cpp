#include "spelling.hpp"

#include <algorithm>
#include <cctype>

#include "message.hpp"
#include "option_table.hpp"

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

} // namespace

void check_command(const std::string& name) {
    if (find_command(name) != nullptr)
        return;
    std::vector<std::string> names;
    for (const auto& command : all_commands())
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
