// What the tests share: a host that records its callbacks, terrains to work on, comparisons to the bit.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>
#if !defined(HOSTSYCL_NO_THREADS)
#include <tbb/global_control.h>
#endif

namespace tarn_test {

/// A host's record of callbacks that notes every call. The callbacks are plain functions: the latest host alone hears.
class RecordingHost {
  public:
    RecordingHost() : previous_(std::exchange(current(), this)) {}
    ~RecordingHost() { current() = previous_; }
    RecordingHost(const RecordingHost&) = delete;
    RecordingHost& operator=(const RecordingHost&) = delete;

    HostCallbacks callbacks() const {
        HostCallbacks record{};
        record.progress = [](double percent) {
            current()->progress.push_back(percent);
            current()->has_reported = percent > 0.0;
        };
        record.is_cancelled = [] {
            // Questions between reports depend on the clock and do not count.
            current()->cancel_questions += std::exchange(current()->has_reported, false) ? 1 : 0;
            return current()->cancel_at != 0 && current()->cancel_questions >= current()->cancel_at;
        };
        record.log_info = [](const char* text) {
            current()->infos.emplace_back(text);
        };
        record.log_error = [](const char* text) {
            current()->errors.emplace_back(text);
        };
        record.acquire_memory = [](std::size_t bytes) {
            current()->acquired.push_back(bytes);
        };
        record.release_memory = [](std::size_t bytes) {
            current()->released.push_back(bytes);
        };
        return record;
    }

    std::vector<double> progress;
    int cancel_questions = 0;
    bool has_reported = false;
    /// The question that is answered with yes, as are all later ones; 0 never cancels.
    int cancel_at = 0;
    std::vector<std::string> infos, errors;
    std::vector<std::size_t> acquired, released;

    /// Whether no callback has been called at all.
    bool untouched() const {
        return progress.empty() && cancel_questions == 0 && infos.empty() && errors.empty() && acquired.empty() &&
               released.empty();
    }

  private:
    static RecordingHost*& current() {
        static RecordingHost* host = nullptr;
        return host;
    }

    RecordingHost* previous_;
};

using Cells = std::vector<float>;

inline constexpr float not_a_number = std::numeric_limits<float>::quiet_NaN();
inline constexpr float infinity = std::numeric_limits<float>::infinity();

/// What an output holds before a run.
inline constexpr float untouched = -77.0f;

inline constexpr auto ok = static_cast<std::uint32_t>(status_ok);
inline constexpr auto cancelled = static_cast<std::uint32_t>(status_cancelled);
inline constexpr auto out_of_memory = static_cast<std::uint32_t>(status_out_of_memory);
inline constexpr auto failed = static_cast<std::uint32_t>(status_failed);

/// Limits the kernels to so many threads while it lives.
class Threads {
  public:
#if defined(HOSTSYCL_NO_THREADS)
    explicit Threads(std::size_t) {}
    ~Threads() {}
#else
    explicit Threads(std::size_t count) : limit_(tbb::global_control::max_allowed_parallelism, count) {}

  private:
    tbb::global_control limit_;
#endif
};

inline sycl::queue cpu_queue() {
    return sycl::queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
}

inline double sum(const Cells& cells) {
    return std::accumulate(cells.begin(), cells.end(), 0.0);
}

inline SyclQueue* handle(sycl::queue& queue) {
    return reinterpret_cast<SyclQueue*>(&queue);
}

/// Ground of `height(x, y)`.
template <class Height>
Cells ground(int width, int rows, Height height) {
    Cells cells;
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < width; ++x)
            cells.push_back(height(static_cast<float>(x), static_cast<float>(y)));
    return cells;
}

/// Uneven ground without any symmetry: waves of several lengths and a repeatable roughness.
inline std::vector<float> rough_terrain(int width, int height) {
    std::vector<float> cells;
    std::uint32_t state = 0x9E3779B9u;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            state = state * 1664525u + 1013904223u;
            const float noise = static_cast<float>(state >> 8) * 0x1p-24f;
            const auto fx = static_cast<float>(x), fy = static_cast<float>(y);
            cells.push_back(40.0f * std::sin(fx * 0.11f) * std::cos(fy * 0.07f) +
                            9.0f * std::sin((fx + 2.0f * fy) * 0.5f) + 6.0f * noise);
        }
    }
    return cells;
}

template <class T>
::testing::AssertionResult same_bits(const std::vector<T>& actual, const std::vector<T>& expected) {
    if (actual.size() != expected.size())
        return ::testing::AssertionFailure() << "sizes " << actual.size() << " and " << expected.size();
    for (std::size_t i = 0; i < actual.size(); ++i)
        if (std::memcmp(&actual[i], &expected[i], sizeof(T)) != 0)
            return ::testing::AssertionFailure()
                   << "first difference at " << i << ": " << actual[i] << " instead of " << expected[i];
    return ::testing::AssertionSuccess();
}

} // namespace tarn_test
