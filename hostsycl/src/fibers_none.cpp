// Where a thread cannot leave its stack, as in WebAssembly: kernels run as ever until one reaches a barrier.

#include "hostsycl/work_group.hpp"

namespace sycl::detail {

class fiber_scheduler {};

group_execution::~group_execution() {
    delete scheduler_;
}

void group_execution::wait_at_barrier() {
    throw exception(errc::feature_not_supported, "this build has no barriers within work-groups");
}

void group_execution::wait_for_items() {}

} // namespace sycl::detail
