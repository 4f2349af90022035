// Hydraulic erosion: water particles that carve a Laplacian pyramid of the terrain level by level, from the coarsest to
// the finest.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"
#include "erosion/erosion_plan.hpp"

namespace tarn::parallel_erosion {

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

using Grid = sycl::buffer<float, 2>;

/// What of a water particle lasts from one pass to the next.
struct Particle {
    float x;
    float y;
    /// Over its whole life, as `uphill_steps`.
    std::uint32_t total_steps;
    std::uint32_t uphill_steps;
    /// Of the random direction that it has taken last.
    std::uint32_t direction_index;
    /// Height of the carved bed at the last point.
    float surface;
    float sediment;
};

/// What a particle wants of a cell on its path.
struct Wish {
    /// In fixed point, so that sums do not depend on their order.
    std::int64_t change;
    /// The sum of the changes' weights in the lower half, the number of visits in the upper one.
    std::uint32_t counts;
    std::uint32_t cell;
};

/// What particles do to a cell. All but the visits is 0 between passes.
struct CellState {
    /// The lower and the upper half of the sum of the changes that they want, in fixed point.
    std::uint32_t change_low;
    std::uint32_t change_high;
    /// The sum of the changes' weights; 0 where no particle has been in this pass.
    std::uint32_t weight;
    /// At this level.
    std::uint32_t visits;
};

/// One level of the pyramid.
struct LaplacianLevel {
    /// The full-size level, over the caller's grids.
    LaplacianLevel(sycl::queue& level_queue, Grid level_height, Grid level_sediment, Grid level_wear,
                   Grid level_spawn_map);

    /// The next coarser level, half the size rounded down; an axis of one cell is not halved. Writes the detail of its
    /// parent.
    LaplacianLevel(sycl::queue& level_queue, LaplacianLevel* finer);

    LaplacianLevel(const LaplacianLevel&) = delete;
    LaplacianLevel& operator=(const LaplacianLevel&) = delete;

    /// Replaces the parent's height, sediment and wear by this level's, upsampled, with the parent's detail put back as
    /// far as sediment and wear leave it.
    void reconstruct_previous_level(const Parameters& parameters);

    Extent<2> extent() const { return Extent<2>(static_cast<std::uint32_t>(cols), static_cast<std::uint32_t>(rows)); }
    std::size_t size() const { return rows * cols; }

    sycl::queue* queue;
    std::size_t rows;
    std::size_t cols;
    /// The next finer level; null at the full size.
    LaplacianLevel* parent;
    Grid height;
    Grid sediment;
    Grid wear;
    /// This level's height minus the upsampled height of the next coarser one.
    Grid detail;
    /// Probability of a birth; one element if there is no map.
    Grid spawn_map;
};

/// What a level needs while it runs, and no longer.
struct LevelRun;

/// The caller's grids; the spawn map may be null.
struct CallerGrids {
    float* height;
    const float* spawn_map;
    float* flow;
    float* sediment;
    float* wear;
};

class ParallelErosion {
  public:
    /// Reports 0 %, then takes the caller's grids in; they receive the results when the object ends.
    ParallelErosion(const Parameters& parameters, const Plan& plan, sycl::queue& caller_queue,
                    const HostCallbacks& record, const CallerGrids& grids);

    /// False if the host cancelled it.
    bool erode();

    bool cancelled() const { return tracker_.cancelled; }

  private:
    void erode_level(LaplacianLevel& level, int levels_done);
    /// Sets the particles of a round down at random places. Their number.
    std::uint32_t give_birth(LevelRun& run, std::uint32_t batch_offset);
    /// Takes the first `count` particles one pass further: they walk a piece of their paths, the cells settle. The
    /// number of those that go on.
    std::uint32_t flow(LevelRun& run, std::uint32_t count);
    /// On CPUs: lets the cells settle that `blocks` blocks of particles have been to, and moves those that go on
    /// together. Their number.
    std::uint32_t settle_bands(LevelRun& run, std::size_t blocks);
    /// Wears steep faces back and smooths.
    template <bool with_reach>
    void shape(LevelRun& run);
    /// Writes the visits at the full size into the caller's grid, after a whole run as shares of a thousand.
    void write_flow(LevelRun& run);

    ProgressTracker tracker_;
    sycl::queue queue_;
    Parameters parameters_;
    Plan plan_;
    /// The caller's.
    Grid flow_;
    LaplacianLevel root_;
    /// Random unit vectors that a particle takes in turn, each as x and y.
    sycl::buffer<float, 1> directions_;
};

} // namespace tarn::parallel_erosion
