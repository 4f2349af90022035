#include "debris/debris.hpp"

#include <algorithm>
#include <cmath>

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using debris::Parameters;

/// No call can be stopped, so none may be endless: minutes at most for the rocks to slide, and for them to be drawn.
constexpr std::uint32_t most_rocks = std::uint32_t{1} << 24;
constexpr std::uint64_t most_pixels = std::uint64_t{1} << 40;

/// Pixels that are at most drawn for a rock.
std::uint64_t pixels_of_a_rock(float radius, std::uint64_t resolution) {
    const auto side = static_cast<std::uint64_t>(std::min(radius, debris::largest_radius)) * 3 + 1;
    return std::min(side * side, resolution * resolution);
}

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
        .above_zero("terrain_size", p.terrain_size)
        .above_zero("terrain_height", p.terrain_height)
        .above_zero("max_size", p.max_size)
        .finite("min_size", p.min_size)
        .require(p.min_size >= 0.0f, "min_size", p.min_size, "at least 0")
        .require(p.min_size <= 3.0f * p.max_size, "min_size", p.min_size, "at most three times max_size")
        .finite("friction", p.friction)
        .finite("restitution", p.restitution)
        .require(p.count <= most_rocks, "count", p.count, "at most 16777216");
    if (!check.passed())
        return false;
    const debris::GlobalContext context(p);
    const float largest = std::max(p.max_size, p.min_size);
    const float radius = largest * context.cells_per_unit;
    return check
        .require(is_usable_cell_width(context.cell) && std::isfinite(context.slope_scale) &&
                     context.cells_per_unit > 0.0f && context.units_per_cell > 0.0f,
                 "terrain_height", p.terrain_height, "in proportion to terrain_size")
        .require(radius <= debris::largest_radius, p.max_size >= p.min_size ? "max_size" : "min_size", largest,
                 "at most 15446 cells")
        .require(p.count <= most_pixels / pixels_of_a_rock(radius, p.resolution), "count", p.count,
                 "so small that the windows of the largest rocks have at most 2^40 cells")
        .finite_grid("height", grids.height, p.resolution, p.resolution)
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
