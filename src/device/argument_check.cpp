#include "device/argument_check.hpp"

#include <bit>
#include <charconv>
#include <cstdio>

namespace tarn {

namespace {

/// The shortest text that reads back as the same number.
template <class Number>
struct NumberText {
    explicit NumberText(Number value) { *std::to_chars(text, text + sizeof(text) - 1, value).ptr = '\0'; }

    char text[32];
};

struct RefusalText {
    RefusalText(const char* field, const char* value, const char* rule) {
        std::snprintf(line, sizeof(line), "%s is %s; it must be %s", field, value, rule);
    }

    char line[384];
};

bool is_finite_bits(std::uint32_t bits) {
    constexpr std::uint32_t exponent = 0x7F800000u;
    return (bits & exponent) != exponent;
}

} // namespace

ArgumentCheck& ArgumentCheck::not_null(const char* argument, const void* pointer) {
    if (pointer == nullptr) {
        char line[128];
        std::snprintf(line, sizeof(line), "%s is null", argument);
        log(line);
    }
    return *this;
}

ArgumentCheck& ArgumentCheck::grid_size(std::int32_t width, std::int32_t height) {
    require(width >= 1, "width", width, "at least 1");
    require(height >= 1, "height", height, "at least 1");
    const std::int64_t cells = std::int64_t{width} * height;
    return require(cells <= INT32_MAX, "width * height", cells, "at most 2147483647");
}

ArgumentCheck& ArgumentCheck::finite(const char* field, float value) {
    return require(std::isfinite(value), field, value, "finite");
}

ArgumentCheck& ArgumentCheck::above_zero(const char* field, float value) {
    return finite(field, value).require(value > 0.0f, field, value, "above 0");
}

ArgumentCheck& ArgumentCheck::finite_grid(const char* argument, const float* cells, std::size_t width,
                                          std::size_t height) {
    if (!passed_)
        return *this;
    for (std::size_t y = 0; y < height; ++y) {
        const float* const row = cells + y * width;
        std::uint32_t bad = 0;
        for (std::size_t x = 0; x < width; ++x)
            bad += is_finite_bits(std::bit_cast<std::uint32_t>(row[x])) ? 0u : 1u;
        if (bad == 0)
            continue;
        std::size_t x = 0;
        while (std::isfinite(row[x]))
            ++x;
        char field[96];
        std::snprintf(field, sizeof(field), "%s at column %zu of row %zu", argument, x, y);
        return require(false, field, row[x], "finite");
    }
    return *this;
}

void ArgumentCheck::refuse(const char* field, float value, const char* rule) {
    if (std::isnan(value))
        log(RefusalText(field, "not a number", rule).line);
    else if (std::isinf(value))
        log(RefusalText(field, value > 0.0f ? "infinite" : "minus infinity", rule).line);
    else
        log(RefusalText(field, NumberText(value).text, rule).line);
}

void ArgumentCheck::refuse(const char* field, std::int64_t value, const char* rule) {
    log(RefusalText(field, NumberText(value).text, rule).line);
}

void ArgumentCheck::log(const char* reason) {
    if (passed_ && callbacks_ != nullptr && callbacks_->log_error != nullptr) {
        char line[448];
        std::snprintf(line, sizeof(line), "%s: %s", frame_.name, reason);
        callbacks_->log_error(line);
    }
    passed_ = false;
}

} // namespace tarn
