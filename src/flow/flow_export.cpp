#include "flow/flow.hpp"

#include "device/argument_check.hpp"
#include "flow/checks.hpp"

namespace {

using namespace tarn;
using flow::Parameters;

bool check(SyclQueue* queue, const flow::CallerGrids& grids, const Parameters* parameters,
           const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::flow_simulation, callbacks);
    check.not_null("queue", queue)
        .not_null("heights", grids.heights)
        .not_null("flow_map", grids.flow_map)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    flow::check_trails(check, *parameters);
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t FlowSimulation(SyclQueue* handle, const float* heights, float* flow_map, const float* mask,
                                            const flow_Parameters* parameters, const HostCallbacks* callbacks) {
    const flow::CallerGrids grids{heights, flow_map, mask};
    if (!check(handle, grids, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t cells =
        static_cast<std::uint64_t>(parameters->width) * static_cast<std::uint64_t>(parameters->height);
    const std::uint64_t need = frames::flow_simulation.bytes_per_cell * cells;

    return call_frame(frames::flow_simulation, queue, flow::callbacks, callbacks, need, [&] {
        flow::Flow flow_map_of_run(*parameters, queue, *callbacks, grids);
        flow_map_of_run.process();
        return flow_map_of_run.cancelled();
    });
}
