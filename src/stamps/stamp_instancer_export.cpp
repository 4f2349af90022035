#include <cstddef>
#include <cstdint>

#include "device/argument_check.hpp"
#include "device/call_frame.hpp"
#include "stamps/stamp_instancer.hpp"

namespace {

using namespace tarn;
using stamp_instancer::Instance;
using stamp_instancer::Parameters;

bool check(const SyclQueue* queue, const float* heights, const float* ids, const float* stamps,
           const Instance* instances, const Parameters* parameters, const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::stamp_instancer_populate, callbacks);
    check.not_null("queue", queue)
        .not_null("heights", heights)
        .not_null("ids", ids)
        .not_null("stamps", stamps)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    check.grid_size(p.width, p.height)
        .require(p.stamps_width >= 1, "stamps_width", p.stamps_width, "at least 1")
        .require(p.stamps_height >= 1, "stamps_height", p.stamps_height, "at least 1")
        .require(p.stamp_width >= 1, "stamp_width", p.stamp_width, "at least 1")
        .require(p.stamp_height >= 1, "stamp_height", p.stamp_height, "at least 1")
        .require(p.instance_count >= 0, "instance_count", p.instance_count, "at least 0");
    if (!check.passed() || (p.instance_count > 0 && !check.not_null("instances", instances).passed()))
        return false;
    const std::int64_t floats = std::int64_t{p.stamps_width} * p.stamps_height;
    const std::int64_t stamp_cells = std::int64_t{p.stamp_width} * p.stamp_height;
    check
        .require(floats <= INT32_MAX, "stamps_width * stamps_height", floats, "at most 2147483647")
        // Divided, since the product of all three could leave 64 bits.
        .require(p.instance_count == 0 || stamp_cells <= INT32_MAX / p.instance_count,
                 "instance_count * stamp_width * stamp_height", p.instance_count * stamp_cells, "at most 2147483647");
    if (!check.passed())
        return false;
    const std::int64_t stamp_count = floats / stamp_cells;
    for (std::int32_t n = 0; n < p.instance_count; ++n)
        if (instances[n].stamp >= stamp_count)
            return check.require(false, "instance.stamp", instances[n].stamp, "a stamp inside the array of stamps")
                .passed();
    return true;
}

} // namespace

extern "C" TARN_API uint32_t StampInstancer_Populate(SyclQueue* handle, float* heights, float* ids, const float* stamps,
                                                     stamp_instancer_Instance* instances,
                                                     const stamp_instancer_Parameters* parameters,
                                                     const HostCallbacks* callbacks) {
    if (!check(handle, heights, ids, stamps, instances, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const Parameters& p = *parameters;
    const auto product = [](std::int32_t a, std::int32_t b) {
        return static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b);
    };
    const std::uint64_t need = 8u * product(p.width, p.height) + 4u * product(p.stamps_width, p.stamps_height) +
                               16u * static_cast<std::uint64_t>(p.instance_count);

    return call_frame(frames::stamp_instancer_populate, queue, stamp_instancer::callbacks, callbacks, need, [&] {
        stamp_instancer::place(queue, heights, ids, stamps, instances, p);
        return false;
    });
}
