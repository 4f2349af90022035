#pragma once

#include <cstddef>

#include "hostsycl/launch.hpp"

namespace sycl::detail {

/// Runs [begin, end) on all threads that there are: oneTBB's workers and the calling thread, or in a build without
/// threads the calling thread alone.
void run_parallel(piece_function function, const void* work, std::size_t begin, std::size_t end, std::size_t row,
                  double nanoseconds_per_cell);

} // namespace sycl::detail
