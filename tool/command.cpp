#include "command.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <memory>
#include <type_traits>
#include <utility>

#include <CLI/CLI.hpp>

#include "message.hpp"

namespace {

std::function<void()>& prepared_run() {
    static std::function<void()> run;
    return run;
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
    record_ = add_to_table({name, summary, functions, {}, {}});
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
