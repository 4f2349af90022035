#pragma once

#include <stdexcept>
#include <string>
#include <vector>

/// What the tool tells its caller. The first four are the status numbers of the library, the others follow sysexits.h.
enum class ExitCode {
    ok = 0,
    cancelled = 1,
    out_of_memory = 2,
    failed = 3,
    usage = 64,
    unreadable_input = 66,
    no_device = 69,
    unwritable_output = 73
};

/// Ends a command: one line for the user and the exit code.
class ToolError : public std::runtime_error {
  public:
    ToolError(ExitCode code, const std::string& line) : std::runtime_error(line), exit_code(code) {}

    ExitCode exit_code;
};

/// How much the tool says on the standard error stream.
enum class Verbosity { quiet, normal, verbose };
void set_verbosity(Verbosity verbosity);

/// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);

/// The words in one text, with the separator between them.
std::string joined(const std::vector<std::string>& words, const std::string& separator);

/// In capitals.
std::string upper(std::string text);

/// Something the user did not ask for but should know, such as a grid that had to be padded. Not shown when quiet.
void print_note(const std::string& line);

/// What only an interested user wants to know. Shown when verbose.
void print_detail(const std::string& line);

/// Always shown.
void print_error(const std::string& line);

/// Draws `label` with a bar for `percent` on the standard error stream if that is a terminal; every other line printed
/// through this header clears it first.
void draw_progress(const std::string& label, double percent);
void clear_progress();

/// Bars that follow are the part of one bar from `begin` to `end` percent, with `prefix` before their labels.
void set_progress_part(const std::string& prefix, double begin, double end);
