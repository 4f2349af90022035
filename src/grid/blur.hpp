// Blur of grids along one axis at a time. A running sum makes the cost of a cell independent of the radius, and two box
// passes an axis come near to a Gaussian.
#pragma once

#include <sycl/sycl.hpp>

#include "device/usm_ptr.hpp"

namespace tarn::blur {

namespace detail {

/// Blurs every row of `source`, whose extent is `extent`, with a window that reaches `radius` cells to each side; its
/// two outermost cells count with the fraction of the radius, so that the radius may change smoothly. With `straight` a
/// row's result is the same row of `destination`, else the same column: the grid comes out transposed, and
/// `destination` has extent.y() columns. The edge cells are repeated beyond the edges. The sum runs through the whole
/// row in single precision. Source and destination must differ; `radius` is finite and not negative. Does not wait. The
/// first template argument is always true.
template <bool, bool straight>
void fastblur_half_pass(sycl::queue& queue, const float* source, float* destination, const Extent<2>& extent,
                        float radius);

/// The same for a square grid of `size` x `size` cells.
template <bool always, bool straight>
void fastblur_half_pass(sycl::queue& queue, const float* source, float* destination, int size, float radius) {
    const auto side = static_cast<std::uint32_t>(size);
    fastblur_half_pass<always, straight>(queue, source, destination, Extent<2>(side, side), radius);
}

/// Blurs every row of a square grid with weights that fall linearly from the centre to 0 at `radius` (above 0.5), into
/// the same column of `destination`. The cost of a cell grows with the radius. Does not wait. The template argument is
/// always 1.
template <unsigned>
void blur_half_pass(sycl::queue& queue, const float* source, float* destination, int size, float radius);

} // namespace detail

/// Blurs `source` twice along each axis into `destination`; `scratch` holds as many cells. `source` may be neither of
/// them. Does not wait.
void blur(sycl::queue& queue, const float* source, float* scratch, float* destination, const Extent<2>& extent,
          float radius);

} // namespace tarn::blur
