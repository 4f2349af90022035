#include "interrupt.hpp"

#include <string_view>

#include <unistd.h>

namespace {

volatile std::sig_atomic_t interrupted = 0;
int guards = 0;

void say(std::string_view text) {
    // Nothing can be done in a signal handler about a message that cannot be written.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

void stop_or_end(int) {
    interrupted = 1;
    say("\ntarn: stopping; Ctrl-C again ends at once\n");
}

void stop(int) {
    interrupted = 1;
    say("\ntarn: stopping\n");
}

} // namespace

InterruptGuard::InterruptGuard(Second second) {
    if (guards++ == 0)
        interrupted = 0;
    struct sigaction action = {};
    action.sa_handler = second == Second::ends_program ? stop_or_end : stop;
    action.sa_flags = SA_RESTART;
    if (second == Second::ends_program)
        action.sa_flags |= static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous_interrupt_);
    sigaction(SIGTERM, &action, &previous_terminate_);
}

InterruptGuard::~InterruptGuard() {
    --guards;
    sigaction(SIGINT, &previous_interrupt_, nullptr);
    sigaction(SIGTERM, &previous_terminate_, nullptr);
}

bool is_interrupted() {
    return interrupted != 0;
}
