// Flow: a map of where water gathers. Particles are scattered over the terrain and traced downhill in batches; the map
// sums their visits, and the terrain that they walk over rises a little where they have been.
#pragma once

#include <cstdint>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "flow/particles.hpp"
#include "flow/planes.hpp"

namespace tarn::flow {

using Parameters = flow_Parameters;

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

/// The caller's grids; the mask may be null.
struct CallerGrids {
    const float* heights;
    float* flow_map;
    const float* mask;
};

class Flow {
  public:
    /// Reports 0 %, then takes the caller's grids in; the flow map is written back when the object ends.
    Flow(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
         const CallerGrids& grids);

    void process();

    bool cancelled() const { return tracker_.cancelled; }

  private:
    /// Walks `count` particles from `first` on over the work heights and counts their visits.
    void trace_trails(const std::vector<Point>& particles, std::uint32_t first, std::uint32_t count,
                      std::uint32_t steps, sycl::buffer<float, 1>& directions);
    /// Adds the visits of a batch to the flow map and to the work heights, and clears them.
    void fold(float norm);

    ProgressTracker tracker_;
    sycl::queue queue_;
    Parameters parameters_;
    sycl::range<2> extent_;
    Grid heights_;
    Grid work_heights_;
    Grid flow_map_;
    sycl::buffer<std::uint32_t, 2> hits_;
    Grid mask_;
    /// More visits, 8 bits a cell; with one row more than the grid.
    PlaneBuffers<std::uint8_t> planes_;
};

} // namespace tarn::flow
