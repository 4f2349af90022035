// Thermal: weathering of slopes. Ground on slopes above the repose angle turns into loose cover, which slides downhill
// and comes to rest, on every level of a Laplacian pyramid from the coarsest to the finest.
#pragma once

#include <cstdint>
#include <memory>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"

namespace tarn::thermal {

using Parameters = thermal_Parameters;

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

using Grid = sycl::buffer<float, 2>;

/// Width of a cell of a level, in units of height.
float cell_width(const Parameters& parameters, std::size_t columns);

/// How many levels a run has, and how many iterations each.
class Schedule {
  public:
    explicit Schedule(const Parameters& parameters);

    /// Levels of the pyramid, at least 1; as many as the feature size asks for.
    int levels() const { return levels_; }
    /// Iterations of a level, as a float: `level_index` counts from 0 at the coarsest. The work halves per step towards
    /// the finest, but for the first few steps; the coarsest level runs the share that the fraction of the level count
    /// asks for.
    float iterations(int level_index) const;

    /// log2(width * feature_size / terrain_size), the level count before it is rounded.
    static float level_count(const Parameters& parameters);

  private:
    int levels_;
    float fraction_;
    float full_iterations_;
};

/// What an iteration of a level does.
enum class Phase {
    plain,
    directional, ///< the root's last iterations before it settles
    settling,    ///< plain, with every slope active
};

/// The phase of iteration `t` out of `iterations`.
Phase phase_of(float t, float iterations, int level_index, bool is_root);

/// One level of the pyramid.
struct LaplacianLevel {
    /// A level over `heights`, whose other grids are new, but for those that a caller binds.
    LaplacianLevel(sycl::queue& level_queue, Grid level_heights, Grid level_depth, Grid level_wear,
                   Grid level_erosion_mask, Grid level_absorption_mask, LaplacianLevel* finer);

    /// The next coarser level, half the size rounded down; an axis of one cell is not halved. Writes this level's
    /// `detail`. A 1 x 1 level is followed by another that starts from the same heights.
    std::unique_ptr<LaplacianLevel> create_subsequent_level(const Parameters& parameters);

    /// Replaces the parent's heights, depth and wear by this level's, upsampled, with the parent's detail put back as
    /// far as cover and wear leave it.
    void reconstruct_previous_level(const Parameters& parameters);

    sycl::queue* queue;
    sycl::range<2> extent;
    /// The next finer level; null at the root.
    LaplacianLevel* parent;
    /// The surface, loose material included.
    Grid heights;
    Grid depth;
    Grid wear;
    /// Partners of `heights` and `depth`, exchanged by handle after every iteration.
    Grid next_heights;
    Grid next_depth;
    /// Sum of the falls from a cell to its lower neighbours.
    Grid drop_sum;
    /// What `heights` has and the next coarser level lacks.
    Grid detail;
    /// Absent masks have one element.
    Grid erosion_mask;
    Grid absorption_mask;
};

/// The caller's grids; the masks may be null.
struct CallerGrids {
    float* heights;
    float* depth;
    float* wear;
    const float* erosion_mask;
    const float* absorption_mask;
};

class Thermal {
  public:
    /// Reports 0 %, then takes the caller's grids in; they receive the results when the object ends.
    Thermal(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
            const CallerGrids& grids);

    void run();

    bool cancelled() const { return tracker_.cancelled; }

  private:
    void simulation(float iterations, LaplacianLevel& level, int level_index);

    ProgressTracker tracker_;
    sycl::queue queue_;
    sycl::range<2> resolution_;
    LaplacianLevel root_;
    /// The buffers that are bound to the caller's memory; after an odd number of exchanges the root's are others.
    Grid caller_heights_;
    Grid caller_depth_;
    Parameters parameters_;
};

} // namespace tarn::thermal
