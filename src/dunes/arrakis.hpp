// Arrakis: a layer of sand on a fixed ground, moved by saltation and avalanches under a wind.
#pragma once

#include <cstddef>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"

namespace tarn::arrakis {

using Parameters = arrakis_Parameters;

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

using Grid = usm_ptr<float, 2>;

/// Rounds of a run of `duration`.
float round_count(float duration);

/// A cell's width in units of height.
float cell_width(const Parameters& parameters);

/// The height step from one cell to the next at which sand starts to slide.
float repose_step(const Parameters& parameters);

/// The grids of the run, which has one level. `height` is `ground` plus `sand` at every cell before and after a round.
struct LaplacianLevel {
    /// Takes the ground from `height`, puts the sand on top of it, and clears `wind_trace`.
    LaplacianLevel(sycl::queue& level_queue, Grid level_height, Grid level_sand, Grid level_wind_trace);

    sycl::queue* queue;
    Extent<2> extent;
    Grid height;
    Grid sand;
    Grid ground;
    Grid wind_trace;
    /// What the wind lifts off the cells in a round and lays down again.
    Grid sand_change;
};

class Arrakis {
  public:
    /// Reports 0 %, then takes the caller's grids in; they receive the results when the object ends.
    Arrakis(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record, float* height,
            float* sand, float* wind_trace);

    void run();

    bool cancelled() const { return tracker_.cancelled; }

  private:
    /// Runs whole rounds over a level, then draws the streamlines of the last round's wind into its `wind_trace`. A
    /// cancel stops after a round, with no streamlines.
    void simulation(float rounds, LaplacianLevel& level);

    ProgressTracker tracker_;
    sycl::queue queue_;
    Extent<2> resolution_;
    LaplacianLevel level_;
    Parameters parameters_;
};

} // namespace tarn::arrakis
