#include "message.hpp"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>

#include <unistd.h>

// The library takes over the buffer of std::cerr when it makes a queue, so everything here goes through the C stream.

namespace {

Verbosity current_verbosity = Verbosity::normal;
std::string drawn_progress;
struct {
    std::string prefix;
    double begin = 0, end = 100;
} progress_part;

/// Texts that come from elsewhere may hold line breaks; a message is one line.
void print_line(const char* kind, std::string line) {
    std::replace(line.begin(), line.end(), '\n', ' ');
    clear_progress();
    std::fprintf(stderr, "tarn: %s%s\n", kind, line.c_str());
}

} // namespace

void set_verbosity(Verbosity verbosity) {
    current_verbosity = verbosity;
}

std::string format_text(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list second_pass;
    va_copy(second_pass, arguments);
    std::string text(static_cast<std::size_t>(std::max(0, std::vsnprintf(nullptr, 0, format, arguments))), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, second_pass);
    va_end(second_pass);
    va_end(arguments);
    return text;
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

void print_note(const std::string& line) {
    if (current_verbosity != Verbosity::quiet)
        print_line("note: ", line);
}

void print_detail(const std::string& line) {
    if (current_verbosity == Verbosity::verbose)
        print_line("", line);
}

void print_error(const std::string& line) {
    print_line("error: ", line);
}

void draw_progress(const std::string& label, double percent) {
    static const bool is_terminal = isatty(STDERR_FILENO) == 1;
    if (!is_terminal || current_verbosity == Verbosity::quiet)
        return;
    std::string text = progress_part.prefix + label;
    percent = progress_part.begin + percent * (progress_part.end - progress_part.begin) / 100;
    // Some computations only report their start: a bar that stays empty would say less than none.
    if (percent > 0) {
        constexpr int bar_width = 40;
        const int filled = std::clamp(static_cast<int>(percent * bar_width / 100), 0, bar_width);
        text += format_text(" [%s%s] %3.0f %%", std::string(static_cast<std::size_t>(filled), '#').c_str(),
                            std::string(static_cast<std::size_t>(bar_width - filled), '.').c_str(),
                            std::clamp(percent, 0.0, 100.0));
    } else {
        text += " ...";
    }
    if (text == drawn_progress)
        return;
    clear_progress();
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    drawn_progress = text;
}

void clear_progress() {
    if (drawn_progress.empty())
        return;
    std::fputs("\r\033[K", stderr);
    drawn_progress.clear();
}

void set_progress_part(const std::string& prefix, double begin, double end) {
    progress_part = {prefix, begin, end};
}
