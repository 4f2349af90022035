#include "flow/color_transport.hpp"

#include <cmath>

#include "device/argument_check.hpp"
#include "flow/checks.hpp"

namespace {

using namespace tarn;
using color_transport::Parameters;

bool check(SyclQueue* queue, const color_transport::CallerGrids& grids, const Parameters* parameters,
           const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::color_transport_simulation, callbacks);
    check.not_null("queue", queue)
        .not_null("heights", grids.heights)
        .not_null("red", grids.red)
        .not_null("green", grids.green)
        .not_null("blue", grids.blue)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    flow::check_trails(check, p);
    return check.finite("persistence", p.persistence)
        .require(p.persistence > -0.1f && std::isfinite(color_transport::prior_weight(p.persistence)), "persistence",
                 p.persistence, "above -0.1")
        .finite("blend", p.blend)
        .finite("transport", p.transport)
        .passed();
}

} // namespace

extern "C" TARN_API uint32_t ColorTransportSimulation(SyclQueue* handle, const float* heights, float* red, float* green,
                                                      float* blue, const float* mask, const float* length_map,
                                                      const color_transport_Parameters* parameters,
                                                      const HostCallbacks* callbacks) {
    const color_transport::CallerGrids grids{heights, red, green, blue, mask, length_map};
    if (!check(handle, grids, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t cells =
        static_cast<std::uint64_t>(parameters->width) * static_cast<std::uint64_t>(parameters->height);
    const std::uint64_t need = frames::color_transport_simulation.bytes_per_cell * cells;

    return call_frame(frames::color_transport_simulation, queue, color_transport::callbacks, callbacks, need, [&] {
        color_transport::ColorTransport transport(*parameters, queue, *callbacks, grids);
        transport.process();
        return transport.cancelled();
    });
}
