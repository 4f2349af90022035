// ColorTransport: moves the colours of an image along downhill trails. Pits, particles, batches and trails are those of
// a flow map; what the particles of a batch carry is mixed into the image that the next batch sees.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "flow/particles.hpp"
#include "flow/planes.hpp"

namespace tarn::color_transport {

using Parameters = color_transport_Parameters;

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

using flow::Grid;
using flow::Point;

struct Color {
    float red;
    float green;
    float blue;
};

/// What particles have laid down in a cell. Two numbers at a time can be changed as one of 64 bits.
struct alignas(16) Load {
    Color sum;
    std::uint32_t hits;
};

/// The caller's grids; mask and length map may be null.
struct CallerGrids {
    const float* heights;
    float* red;
    float* green;
    float* blue;
    const float* mask;
    const float* length_map;
};

/// Weight of a cell's old colour in the mean; not below 0.
float prior_weight(float persistence);

/// How many steps a colour travels at most until the next one is taken up, on a grid of `rows` rows.
float pick_distance(float transport, std::size_t rows);

class ColorTransport {
  public:
    /// Reports 0 %, then takes the caller's grids in; the image is written back when the object ends.
    ColorTransport(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
                   const CallerGrids& grids);

    void process();

    bool cancelled() const { return tracker_.cancelled; }

  private:
    /// Walks `count` particles from `start` on over the work heights, with the image as it is.
    void color_transport_full(sycl::buffer<Point, 1>& particles, std::uint32_t start, std::uint32_t count, float steps,
                              sycl::buffer<float, 1>& directions);
    /// Mixes what a batch has laid down into the image, adds its visits to the work heights, and clears both.
    void fold(float norm);

    ProgressTracker tracker_;
    sycl::queue queue_;
    Parameters parameters_;
    sycl::range<2> extent_;
    Grid heights_;
    Grid work_heights_;
    Grid red_;
    Grid green_;
    Grid blue_;
    /// The sums of the three colours and the hits of a cell lie side by side: a visit touches one line of the cache.
    sycl::buffer<Load, 2> loads_;
    Grid mask_;
    Grid length_map_;
    /// More of them.
    flow::PlaneBuffers<Load> planes_;
};

} // namespace tarn::color_transport
