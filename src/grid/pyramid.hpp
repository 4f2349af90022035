// What the Laplacian pyramids (Burt and Adelson, 1983) of the simulations share. Their levels, and the rules by which a
// level is folded back into its finer one, differ.
#pragma once

#include <sycl/sycl.hpp>

#include "device/usm_ptr.hpp"
#include "grid/access.hpp"
#include "grid/upsample.hpp"

namespace tarn {

/// Sets `detail` to what the fine grid has and the coarse one lacks: fine - upsampled coarse.
inline void take_detail(sycl::queue& queue, sycl::buffer<float, 2>& fine, sycl::buffer<float, 2>& coarse,
                        sycl::buffer<float, 2>& detail) {
    queue.submit([&](sycl::handler& handler) {
        const Reader<float> from = read(fine, handler), up_from = read(coarse, handler);
        const Writer<float> to = overwrite(detail, handler);
        launch_upsampled(
            launch_on(handler, queue), Extent<2>(fine.get_range()), up_from, Extent<2>(coarse.get_range()),
            [=](std::ptrdiff_t row, int x, float up) { cells_of(to)[row + x] = cells_of(from)[row + x] - up; });
    });
}

inline void take_detail(sycl::queue& queue, const usm_ptr<float, 2>& fine, const usm_ptr<float, 2>& coarse,
                        const usm_ptr<float, 2>& detail) {
    launch_upsampled(launch_on(queue), fine.extent(), static_cast<const float*>(coarse.data()), coarse.extent(),
                     [from = fine.data(), to = detail.data()](std::ptrdiff_t row, int x, float up) {
                         to[row + x] = from[row + x] - up;
                     });
}

} // namespace tarn
