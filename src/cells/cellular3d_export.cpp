#include "cells/cellular3d.hpp"

#include <algorithm>

#include "device/argument_check.hpp"

namespace {

using namespace tarn;
using cellular3d::Parameters;

bool check(const Parameters* parameters, const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::cellular3d_render, callbacks);
    if (!check.not_null("parameters", parameters).passed())
        return false;
    const Parameters& p = *parameters;
    const std::int64_t cells = std::int64_t{p.grid_width} * p.grid_height;
    check.require(p.grid_width >= 1, "grid_width", p.grid_width, "at least 1")
        .require(p.grid_height >= 1, "grid_height", p.grid_height, "at least 1")
        .require(cells <= INT32_MAX, "grid_width * grid_height", cells, "at most 2147483647");
    check.above_zero("cell_density", p.cell_density);
    check.finite("gap", p.gap);
    check.above_zero("extent_x", p.extent_x);
    check.above_zero("extent_y", p.extent_y);
    check.finite("extent_z", p.extent_z)
        .finite("jitter_x", p.jitter_x)
        .finite("jitter_y", p.jitter_y)
        .finite("jitter_z", p.jitter_z)
        .finite("z_unit", p.z_unit)
        .require(p.z_unit != 0.0f, "z_unit", p.z_unit, "other than 0")
        .finite("z_range", p.z_range);
    if (!check.passed())
        return false;
    check.above_zero("z_range * extent_z / z_unit", p.z_range * p.extent_z / p.z_unit);
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t Cellular3D_Render(SyclQueue* handle, float* height, const float* gap_factor, float* random,
                                               Cellular3D_Parameters* parameters, const HostCallbacks* callbacks) {
    if (handle == nullptr || height == nullptr || random == nullptr)
        return status_failed;
    if (!check(parameters, callbacks))
        return status_failed;

    const cellular3d::Budget budget = cellular3d::budget(*parameters);
    Parameters affordable = *parameters;
    affordable.cell_density = budget.cell_density;
    const auto lattice = cellular3d::make_lattice(affordable);
    if (!lattice) {
        ArgumentCheck(frames::cellular3d_render, callbacks)
            .require(false, "cell_density", parameters->cell_density,
                     "in proportion to the block: its lattice cannot be formed with at most 2147483647 cells");
        return status_failed;
    }

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t need = std::max(budget.need, cellular3d::bytes(*lattice, affordable));
    // Other devices are probed for free memory before the run.
    const std::uint64_t memory = queue.get_device().get_info<sycl::info::device::global_mem_size>();
    if (queue.get_device().is_cpu() && need > memory) {
        ArgumentCheck(frames::cellular3d_render, callbacks)
            .require(false, "cell_density", parameters->cell_density,
                     "lower: the lattice takes more memory than there is");
        return status_out_of_memory;
    }
    *parameters = affordable;

    return call_frame(frames::cellular3d_render, queue, cellular3d::callbacks, callbacks, need, [&] {
        cellular3d::Cellular3D cellular(affordable, *lattice, queue, *callbacks);
        if (affordable.hash_variant == 0u)
            cellular.render<0>(height, gap_factor, random);
        else
            cellular.render<1>(height, gap_factor, random);
        return cellular.cancelled();
    });
}
