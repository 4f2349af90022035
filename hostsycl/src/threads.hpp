#pragma once

#include <algorithm>
#include <cstddef>

#include "hostsycl/launch.hpp"

namespace sycl::detail {

/// Runs [begin, end) on all threads that there are, the calling one among them. A build has one of: oneTBB's workers
/// (threads_tbb.cpp), threads of its own (threads_pool.cpp), the calling thread alone (threads_none.cpp).
void run_parallel(piece_function function, const void* work, std::size_t begin, std::size_t end, std::size_t row,
                  double nanoseconds_per_cell);

/// How [begin, end) is cut for several threads: at the multiples of a length.
struct intervals {
    intervals(std::size_t begin, std::size_t end, std::size_t row, double nanoseconds_per_cell, std::size_t threads)
        : begin_(begin), end_(end) {
        const double ideal = nanoseconds / nanoseconds_per_cell;
        // The rest may be heavier than what has been seen of it, so there are some intervals for each thread in any
        // case.
        const std::size_t longest = std::max<std::size_t>(1, (end - begin) / (threads * each_thread));
        length_ =
            ideal < static_cast<double>(longest) ? std::max<std::size_t>(1, static_cast<std::size_t>(ideal)) : longest;
        if (length_ > row)
            length_ -= length_ % row;
    }

    /// Numbers of the intervals: from the first up to before the last.
    std::size_t first() const { return begin_ / length_; }
    std::size_t last() const { return (end_ - 1) / length_ + 1; }

    /// Where the intervals with the numbers [number, after) begin and end.
    std::size_t begin(std::size_t number) const { return std::max(begin_, number * length_); }
    std::size_t end(std::size_t after) const { return std::min(end_, after * length_); }

  private:
    // What one interval should take: far more than handing it to a thread costs, far less than a launch.
    static constexpr double nanoseconds = 10000.0;
    static constexpr std::size_t each_thread = 8;

    std::size_t begin_;
    std::size_t end_;
    std::size_t length_;
};

} // namespace sycl::detail
