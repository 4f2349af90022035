#include "debris/debris.hpp"

#include <algorithm>
#include <cmath>

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using debris::Parameters;

bool check(SyclQueue* queue, const debris::CallerGrids& grids, const Parameters* parameters,
           const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::debris_simulation, callbacks);
    check.not_null("queue", queue)
        .not_null("height", grids.height)
        .not_null("rock_id", grids.rock_id)
        .not_null("coverage", grids.coverage)
        .not_null("speed", grids.speed)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    check.require(p.resolution >= 1 && p.resolution <= 46340, "resolution", p.resolution, "from 1 to 46340")
        .finite("terrain_size", p.terrain_size)
        .require(p.terrain_size > 0.0f, "terrain_size", p.terrain_size, "above 0")
        .finite("terrain_height", p.terrain_height)
        .require(p.terrain_height > 0.0f, "terrain_height", p.terrain_height, "above 0")
        .finite("max_size", p.max_size)
        .require(p.max_size > 0.0f, "max_size", p.max_size, "above 0")
        .finite("min_size", p.min_size)
        .require(p.min_size >= 0.0f, "min_size", p.min_size, "at least 0")
        .finite("friction", p.friction)
        .finite("restitution", p.restitution);
    if (!check.passed())
        return false;
    const debris::GlobalContext context(p);
    const float radius = std::max(p.max_size, p.min_size) * context.cells_per_unit;
    return check
        .require(context.cell > 0.0f && std::isfinite(context.cell) && std::isfinite(context.slope_scale) &&
                     context.cells_per_unit > 0.0f && context.units_per_cell > 0.0f,
                 "terrain_height", p.terrain_height, "in proportion to terrain_size")
        .require(radius <= debris::largest_radius, p.max_size >= p.min_size ? "max_size" : "min_size",
                 std::max(p.max_size, p.min_size), "at most 15446 cells")
        .passed();
}

} // namespace

extern "C" TARN_API uint32_t DebrisSimulation(SyclQueue* handle, float* height, float* rock_id, float* coverage,
                                              float* speed, const debris_Parameters* parameters,
                                              const HostCallbacks* callbacks) {
    const debris::CallerGrids grids{height, rock_id, coverage, speed};
    if (!check(handle, grids, parameters, callbacks))
        return status_ok; // there is no other

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    return call_frame(frames::debris_simulation, queue, debris::callbacks, callbacks, 0, [&] {
        debris::Debris rocks(*parameters, queue, *callbacks, grids);
        rocks.run();
        return rocks.cancelled();
    });
}
