// The process-wide state of the library: each module's copy of the host's callbacks, and two flag bytes. All of it is
// plain data, since a host makes one call at a time.
#pragma once

#include <string>

#include <tarn/oneapi.h>

namespace tarn {

/// One module's copy of the host's record. An export refreshes its module's copy on entry, so that code below it can
/// log without a record passed down to it. Before the first call of the module nothing is logged.
class ModuleCallbacks {
  public:
    void set(const HostCallbacks& record) { record_ = record; }

    void log_info(const char* text) const {
        if (record_.log_info != nullptr)
            record_.log_info(text);
    }

    void log_info(const std::string& text) const { log_info(text.c_str()); }

    void log_error(const char* text) const {
        if (record_.log_error != nullptr)
            record_.log_error(text);
    }
    void log_error(const std::string& text) const { log_error(text.c_str()); }

  private:
    HostCallbacks record_{};
};

/// The device layer's copy, written by CreateSyclQueue alone.
inline ModuleCallbacks device_callbacks;

/// Set by the queues' asynchronous error handler and by note_failure, cleared when an export starts its work, read when
/// it ends.
inline bool failure_flag = false;

/// For an error that has no other way out, as in a destructor: the run under way ends with status_failed.
inline void note_failure(const char* text) noexcept {
    failure_flag = true;
    device_callbacks.log_error(text);
}

/// True while a device allocation is under way that is allowed to fail. The asynchronous error handler drops the errors
/// of such an allocation: its caller sees the null pointer.
inline bool allocation_probe_active = false;

} // namespace tarn
