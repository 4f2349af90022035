// What an export checks before it touches anything.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include <tarn/oneapi.h>

#include "device/call_frame.hpp"

namespace tarn {

/// Whether slopes can be worked out over cells of this width: above 0 and finite, and its inverse too.
inline bool is_usable_cell_width(float width) {
    return width > 0.0f && std::isfinite(width) && std::isfinite(1.0f / width);
}

/// Checks an export's arguments. The first one that does not hold is logged through the caller's record in one line
/// that names the export, the field and its value; the export then returns status_failed before it has touched
/// anything. Allocates nothing, since it stands outside the exception barrier.
class ArgumentCheck {
  public:
    ArgumentCheck(const ExportFrame& frame, const HostCallbacks* callbacks) : frame_(frame), callbacks_(callbacks) {
        not_null("callbacks", callbacks);
    }

    /// `argument` must not be null.
    ArgumentCheck& not_null(const char* argument, const void* pointer);
    /// Both at least 1, and no more than 2^31 - 1 cells in all.
    ArgumentCheck& grid_size(std::int32_t width, std::int32_t height);
    /// Neither NaN nor infinite.
    ArgumentCheck& finite(const char* field, float value);
    /// Finite and above 0.
    ArgumentCheck& above_zero(const char* field, float value);
    /// No cell of a grid of `width` columns is NaN or infinite. Reads the whole grid, so it comes last.
    ArgumentCheck& finite_grid(const char* argument, const float* cells, std::size_t width, std::size_t height);
    /// `holds` must be true; `rule` says in words what `field` has to be.
    template <class Value>
    ArgumentCheck& require(bool holds, const char* field, Value value, const char* rule) {
        if (!holds) {
            if constexpr (std::is_integral_v<Value>)
                refuse(field, static_cast<std::int64_t>(value), rule);
            else
                refuse(field, value, rule);
        }
        return *this;
    }

    bool passed() const { return passed_; }

  private:
    void refuse(const char* field, float value, const char* rule);
    void refuse(const char* field, std::int64_t value, const char* rule);
    void log(const char* line);

    const ExportFrame& frame_;
    const HostCallbacks* callbacks_;
    bool passed_ = true;
};

} // namespace tarn
