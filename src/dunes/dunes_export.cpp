#include "dunes/arrakis.hpp"

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using arrakis::Parameters;

/// The largest number of rounds that both a float and an int hold.
constexpr float most_rounds = 2147483520.0f;

bool check(SyclQueue* queue, const float* height, const float* sand, const float* wind_trace,
           const Parameters* parameters, const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::dune_simulation, callbacks);
    check.not_null("queue", queue)
        .not_null("height", height)
        .not_null("sand", sand)
        .not_null("wind_trace", wind_trace)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    check.grid_size(p.width, p.height)
        .finite("duration", p.duration)
        .require(p.duration >= 0.0f, "duration", p.duration, "at least 0")
        .finite("repose_angle", p.repose_angle)
        .require(p.repose_angle >= 0.0f, "repose_angle", p.repose_angle, "at least 0")
        .above_zero("terrain_size", p.terrain_size)
        .above_zero("terrain_height", p.terrain_height);
    if (!check.passed())
        return false;
    const float cell = arrakis::cell_width(p);
    const auto width = static_cast<std::size_t>(p.width), rows = static_cast<std::size_t>(p.height);
    return check.require(arrakis::round_count(p.duration) <= most_rounds, "duration", p.duration, "at most 838860")
        .require(is_usable_cell_width(cell), "terrain_size / (terrain_height * width)", cell, "above 0 and finite")
        .finite_grid("height", height, width, rows)
        .finite_grid("sand", sand, width, rows)
        .passed();
}

} // namespace

extern "C" TARN_API uint32_t DuneSimulation(SyclQueue* handle, float* height, float* sand, float* wind_trace,
                                            const arrakis_Parameters* parameters, const HostCallbacks* callbacks) {
    if (!check(handle, height, sand, wind_trace, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t cells =
        static_cast<std::uint64_t>(parameters->width) * static_cast<std::uint64_t>(parameters->height);
    const std::uint64_t need = frames::dune_simulation.bytes_per_cell * cells;

    return call_frame(frames::dune_simulation, queue, arrakis::callbacks, callbacks, need, [&] {
        arrakis::Arrakis dunes(*parameters, queue, *callbacks, height, sand, wind_trace);
        dunes.run();
        return dunes.cancelled();
    });
}
