#pragma once

#include <csignal>

/// Takes Ctrl-C and SIGTERM as a wish to stop, for as long as it lives. One may be made while another one lives.
class InterruptGuard {
  public:
    enum class Second { ends_program, is_ignored };
    /// What a second one does.
    explicit InterruptGuard(Second second);
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

  private:
    struct sigaction previous_interrupt_ = {};
    struct sigaction previous_terminate_ = {};
};

/// Whether there was one since the outermost guard was made.
bool is_interrupted();
