#include "hostsycl/launch.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include "hostsycl/detail/queue_impl.hpp"
#include "threads.hpp"

namespace sycl::detail {

namespace {

// Pieces must have run for this long before their time is believed: cold caches make the first ones slow.
constexpr double trusted_nanoseconds = 1000.0;
// The rest of a launch goes to all threads if one thread would need longer than this. Waking threads costs a few
// microseconds.
constexpr double parallel_nanoseconds = 15000.0;
constexpr std::size_t first_piece = 16;
constexpr std::size_t piece_growth = 8;

using wall_clock = std::chrono::steady_clock;

#if defined(__x86_64__)

/// The time stamp counter costs a third of the system's clock; it is compared with it once.
double nanoseconds_per_tick() {
    static const double value = [] {
        const auto start = wall_clock::now();
        const std::uint64_t start_ticks = __rdtsc();
        for (;;) {
            const auto now = wall_clock::now();
            const std::uint64_t ticks = __rdtsc() - start_ticks;
            const double elapsed = std::chrono::duration<double, std::nano>(now - start).count();
            if (elapsed > 20000.0)
                return ticks > 0 ? elapsed / static_cast<double>(ticks) : 1.0;
        }
    }();
    return value;
}

class stopwatch {
  public:
    stopwatch() : scale_(nanoseconds_per_tick()), last_(__rdtsc()) {}
    /// Nanoseconds since the last lap.
    double lap() {
        const std::uint64_t now = __rdtsc();
        const auto ticks = static_cast<std::int64_t>(now - last_);
        last_ = now;
        // Counters of different cores may differ by a little.
        return static_cast<double>(std::max<std::int64_t>(ticks, 1)) * scale_;
    }

  private:
    double scale_;
    std::uint64_t last_;
};

#else

class stopwatch {
  public:
    double lap() {
        const auto now = wall_clock::now();
        const double elapsed = std::chrono::duration<double, std::nano>(now - last_).count();
        last_ = now;
        return std::max(elapsed, 1.0);
    }

  private:
    wall_clock::time_point last_ = wall_clock::now();
};

#endif

} // namespace

void refuse_launch(const std::string& message) {
    throw exception(errc::nd_range, message);
}

void run_adaptive(piece_function function, const void* work, std::size_t total, std::size_t row) {
    if (total <= 1) {
        if (total == 1)
            function(work, 0, 1);
        return;
    }
    std::size_t done = 0;
    std::size_t piece = std::clamp<std::size_t>(total / 64, 1, first_piece);
    double measured = 0.0;
    stopwatch watch;
    for (;;) {
        function(work, done, done + piece);
        done += piece;
        const std::size_t left = total - done;
        if (left == 0)
            return;
        const double elapsed = watch.lap();
        measured += elapsed;
        const double per_cell = elapsed / static_cast<double>(piece);
        if (measured >= trusted_nanoseconds) {
            if (per_cell * static_cast<double>(left) > parallel_nanoseconds) {
                run_parallel(function, work, done, total, row, per_cell);
                return;
            }
            // Light so far; what is left may still turn out heavier, so it is looked at again on the way.
        }
        piece = std::min(left, piece * piece_growth);
    }
}

namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t smallest_parallel_block = std::size_t{1} << 20;

} // namespace

void copy_bytes(void* target, const void* source, std::size_t bytes) {
    if (bytes < smallest_parallel_block) {
        std::memcpy(target, source, bytes);
        return;
    }
    struct block {
        std::byte* target;
        const std::byte* source;
        std::size_t bytes;
    };
    const block all{static_cast<std::byte*>(target), static_cast<const std::byte*>(source), bytes};
    run_adaptive(
        [](const void* work, std::size_t begin, std::size_t end) {
            const auto& b = *static_cast<const block*>(work);
            std::memcpy(b.target + begin * page, b.source + begin * page, std::min(end * page, b.bytes) - begin * page);
        },
        &all, (bytes + page - 1) / page, 1);
}

void set_bytes(void* target, int value, std::size_t bytes) {
    if (bytes < smallest_parallel_block) {
        std::memset(target, value, bytes);
        return;
    }
    struct block {
        std::byte* target;
        int value;
        std::size_t bytes;
    };
    const block all{static_cast<std::byte*>(target), value, bytes};
    run_adaptive(
        [](const void* work, std::size_t begin, std::size_t end) {
            const auto& b = *static_cast<const block*>(work);
            std::memset(b.target + begin * page, b.value, std::min(end * page, b.bytes) - begin * page);
        },
        &all, (bytes + page - 1) / page, 1);
}

} // namespace sycl::detail
