// ThermalShaper: slow slope failure as a filter. A slope rule runs on every level of a Laplacian pyramid of the
// terrain, coarsest level first, so that it acts at every scale at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"

namespace tarn::thermal_shaper {

using Parameters = thermal_shaper_Parameters;

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

using Grid = usm_ptr<float, 2>;

/// One level of the pyramid.
struct LaplacianLevel {
    LaplacianLevel(sycl::queue& level_queue, Grid level_base, Grid level_mask, LaplacianLevel* finer);

    /// The next coarser level: half the size, rounded down; an axis of one cell is not halved. Writes this level's
    /// `detail`, and counts one more coarser level on this level and on every finer one.
    std::unique_ptr<LaplacianLevel> create_subsequent_level();

    /// Folds this level into its parent: upsampled, plus the parent's detail times `detail_gain`.
    void reconstruct_previous_level(const Parameters& parameters);

    /// The caller's queue, which outlives the grids that come and go as `base`.
    sycl::queue* queue;
    Extent<2> extent;
    /// Number of coarser levels: 0 at the coarsest.
    std::int32_t level = 0;
    /// The next finer level; null at the root.
    LaplacianLevel* parent;
    Grid base;
    /// What `base` has and the next coarser level lacks.
    Grid detail;
    /// Null data without a mask.
    Grid mask;
};

class ThermalShaper {
  public:
    /// Reports 0 %, then takes the caller's grids in. `heights` receives the result when the object ends; `mask` may be
    /// null.
    ThermalShaper(const Parameters& parameters, sycl::queue& queue, const HostCallbacks& record, float* heights,
                  const float* mask);

    void process();

    bool cancelled() const { return tracker_.cancelled; }

  private:
    /// Runs the iterations of one level. Afterwards `base` is the grid of the last one, at the root too, where that may
    /// be a scratch grid in place of the caller's.
    template <bool has_mask>
    void process_level(LaplacianLevel& level);
    void process_level(LaplacianLevel& level);

    /// Number of levels as a float; its whole part counts levels, its fraction weighs the coarsest one's work.
    float level_count() const;
    /// The iteration budget for `levels` levels, which keeps the total work near that of one level.
    float iteration_budget(std::size_t levels) const;

    ProgressTracker tracker_;
    Parameters parameters_;
    sycl::queue* queue_;
    LaplacianLevel root_;
    /// The caller's grid; the root's `base` may change to a scratch grid.
    Grid heights_;
    float iterations_ = 64.0f;
    float level_fraction_ = 0.0f;
};

} // namespace tarn::thermal_shaper
