#include "threads.hpp"

namespace sycl::detail {

void run_parallel(piece_function function, const void* work, std::size_t begin, std::size_t end, std::size_t, double) {
    function(work, begin, end);
}

} // namespace sycl::detail
