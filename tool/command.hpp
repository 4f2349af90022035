#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "option_table.hpp"
#include "outputs.hpp"

namespace CLI {
class App;
class Option;
} // namespace CLI

/// An option that was just added, to say more about it.
class Entry {
  public:
    Entry(CommandRecord& command, std::size_t index) : command_(&command), index_(index) {}

    /// What is taken if the option is not given, where that follows from the input.
    Entry& otherwise(const std::string& text);
    Entry& required();
    /// Of a positional.
    Entry& optional();
    /// An option for those who know the library's parameters: the help lists it last.
    Entry& advanced();
    Entry& needs(const Entry& other);
    Entry& excludes(const Entry& other);

  private:
    OptionRecord& record() const { return command_->options[index_]; }

    CommandRecord* command_;
    std::size_t index_;
};

/// A command under construction. Each call adds an option to the parser and, with the same words, to the table that
/// `tarn options --json` prints, so the two cannot disagree. Defaults are what the variables hold.
class Command {
  public:
    Command(CLI::App& app, const std::string& name, const std::string& summary,
            const std::vector<std::string>& functions);

    /// A file to read; `type` is grid, picture, model, points or file, and `unit` what a grid's numbers are in:
    /// "height", or "share" for a mask.
    Entry input(const std::string& name, std::string& path, const std::string& type, const std::string& unit,
                const std::string& help);
    /// A grid to write. The name of a positional is required.
    Entry output(const std::string& name, GridOutput& grid, const std::string& help);
    /// A picture to write.
    Entry picture(const std::string& name, std::string& path, const std::string& help);
    /// A page of HTML to write.
    Entry page(const std::string& name, std::string& path, const std::string& help);
    Entry flag(const std::string& name, bool& value, const std::string& help);
    /// Any other text; `type` tells what it holds, and `check` what is wrong with one, if anything.
    Entry text(const std::string& name, std::string& value, const std::string& type, const std::string& placeholder,
               const std::string& help, std::string (*check)(const std::string&) = nullptr);
    /// A text that may be given several times.
    Entry texts(const std::string& name, std::vector<std::string>& values, const std::string& placeholder,
                const std::string& help);

    /// A number, an optional number or, with a count, several: float, double, int or std::uint32_t. The name may be two
    /// with a comma: a new one and an old.
    template <class Value>
    Entry number(const std::string& name, Value& value, const Range& range, const std::string& unit,
                 const std::string& help, int count = 1);

    /// One of several words.
    template <class Value>
    Entry choice(const std::string& name, Value& value, const std::vector<std::pair<std::string, Value>>& words,
                 const std::string& help) {
        std::vector<std::string> names;
        std::string current;
        for (const auto& [word, meaning] : words) {
            names.push_back(word);
            if (meaning == value)
                current = word;
        }
        return choice(name, names, current, help, [words, &value](std::size_t i) { value = words[i].second; });
    }

    Outputs& outputs() { return *outputs_; }

    /// A line for the help, with files that the reader may have: land.tif for a grid, and so on.
    void example(const std::string& line, const std::string& text) { record_->examples.push_back({line, text}); }

    /// What the command does. Parsing checks the names of its outputs, and leaves the run to take_prepared_run.
    void runs(const std::function<void(Outputs&)>& run);

  private:
    Entry add(CLI::Option* parser, OptionRecord record);
    Entry file(const std::string& name, std::string& path, const std::string& type, const std::string& ending,
               const std::string& help);
    Entry choice(const std::string& name, const std::vector<std::string>& words, const std::string& current,
                 const std::string& help, const std::function<void(std::size_t)>& choose);

    CLI::App* parser_;
    std::shared_ptr<CommandRecord> record_;
    std::shared_ptr<Outputs> outputs_;
};

/// What the command that was parsed last does; empty if there is none to run.
std::function<void()> take_prepared_run();
