// Hydraulic erosion: water particles that carve a Laplacian pyramid of the terrain level by level, from the coarsest to
// the finest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"

namespace tarn::parallel_erosion {

using Parameters = parallel_erosion_Parameters;

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

using Grid = sycl::buffer<float, 2>;

/// Positions are floats, which hold whole cells up to here.
inline constexpr std::int32_t longest_side = 1 << 24;

/// The running state of a simulation. Its level is the one that runs.
struct Context {
    std::int32_t rounds;
    /// Counts from 0 at the full size.
    std::int32_t level;
    std::int32_t level_count;
    /// 0 while the coarsest level runs.
    std::int32_t levels_done;
    /// The number of levels before it is rounded up.
    float level_float;
    /// Value of `levels_done` from which on shaping fades.
    float shaping_level;
    float fill_tangent;
    float plain_tangent;
    float terrace_tangent;
    float capacity_scale;
    float shaping_amount;
    float smoothing_amount;
    bool has_spawn_map;
};

/// The feature size that a run works with: above a fifth of the terrain it levels off.
float softened_feature_size(float feature_size, float terrain_size);

/// Plans a run, and softens the record's feature size. The values of a single level are still open.
Context plan(Parameters& parameters, bool has_spawn_map);

/// What a level is run with, `levels_done` levels above the coarsest. Rounds keep the part that the fraction of the
/// level count asks for at the coarsest level, and halve per level from about the fourth on. Capacity and shaping fade
/// by 0.6 and 0.4 a level, shaping from `shaping_level` on. Smoothing doubles.
int rounds(const Parameters& parameters, const Context& context, int levels_done);
float capacity_scale(const Parameters& parameters, const Context& context, int levels_done);
float shaping_amount(const Parameters& parameters, const Context& context, int levels_done);
float smoothing_amount(const Context& context, int levels_done);

using Vector = sycl::vec<float, 2>;

/// Points of one piece of a path.
inline constexpr int longest_path = 12;
/// A water particle.
struct Particle {
    /// The piece of the path that the last walk went. A rising step stands at the height that it rises to.
    float heights[longest_path];
    float rises[longest_path];
    Vector positions[longest_path];
    Vector position;
    std::uint32_t id;
    std::uint32_t path_length;
    /// Over its whole life, as `uphill_steps`.
    std::uint32_t total_steps;
    std::uint32_t uphill_steps;
    /// Ended by the terrain: the last piece moves ground only where it rises.
    std::uint8_t dead;
    /// Takes no part in the next pass.
    std::uint8_t stopped;
    /// Height of the carved bed at the last point and at the one before.
    float surface;
    float previous_surface;
    float sediment;
    /// Sum of what it has scoured off the bed.
    float scoured;
    std::uint32_t direction_index;
};

/// What the particles of a pass want of a cell. Side by side, since each point of a path touches both.
struct DeltaSum {
    /// Sum of the changes, in fixed point.
    std::int64_t changes;
    /// The sum of their weights in the lower half, the number of visits in the upper one.
    std::uint64_t counts;
};

/// One level of the pyramid.
struct LaplacianLevel {
    /// The full-size level, over the caller's grids.
    LaplacianLevel(sycl::queue& level_queue, Grid level_height, Grid level_flow, Grid level_sediment, Grid level_wear,
                   Grid level_spawn_map);

    /// The next coarser level, half the size rounded down; an axis of one cell is not halved. Writes the detail of its
    /// parent.
    LaplacianLevel(sycl::queue& level_queue, LaplacianLevel* finer);

    LaplacianLevel(const LaplacianLevel&) = delete;
    LaplacianLevel& operator=(const LaplacianLevel&) = delete;

    /// Clears the grids that a level starts with at 0.
    template <bool with_reach>
    void init();

    /// Replaces the parent's height, sediment and wear by this level's, upsampled, with the parent's detail put back as
    /// far as sediment and wear leave it.
    void reconstruct_previous_level(const Parameters& parameters);

    /// Width of a cell in units of height.
    float cell_width(const Parameters& parameters) const;

    Extent<2> extent() const { return Extent<2>(static_cast<std::uint32_t>(cols), static_cast<std::uint32_t>(rows)); }
    std::size_t size() const { return rows * cols; }

    sycl::queue* queue;
    std::size_t rows;
    std::size_t cols;
    /// The next finer level; null at the full size.
    LaplacianLevel* parent;
    Grid height;
    /// Visits of particles at this level.
    Grid flow;
    /// The change that the shaping makes of a cell.
    Grid delta;
    Grid sediment;
    Grid wear;
    /// This level's height minus the upsampled height of the next coarser one.
    Grid detail;
    /// What particles want of a cell; 0 but in the middle of a pass.
    sycl::buffer<DeltaSum, 2> delta_sum;
    /// Probability of a birth; one element if there is no map.
    Grid spawn_map;
    /// How far the flow has reached, from 0 to 1; one element each without a map.
    Grid reach;
    Grid reach_next;
};

/// The particles of a level and the lists of those that go on.
struct Swarm;

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
    ParallelErosion(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
                    const CallerGrids& grids);

    /// False if the host cancelled it.
    bool erode();

    bool cancelled() const { return tracker_.cancelled; }

  private:
    void erode_level(LaplacianLevel& level);
    /// Sets the first particles of the swarm down at random places and makes them active. Their number.
    std::uint32_t give_birth(LaplacianLevel& level, Swarm& swarm, std::uint32_t batch_offset);
    /// Walks the first `count` active particles on by one piece of their path.
    void flow(LaplacianLevel& level, Swarm& swarm, std::uint32_t count);
    /// Carves these pieces into the level.
    void render_flow(LaplacianLevel& level, Swarm& swarm, std::uint32_t count);
    /// Wears steep faces back and smooths.
    template <bool with_reach>
    void shape(LaplacianLevel& level);

    ProgressTracker tracker_;
    sycl::queue queue_;
    Parameters parameters_;
    LaplacianLevel root_;
    /// Random unit vectors that a particle takes in turn, each as x and y.
    sycl::buffer<float, 1> directions_;
    Context context_;
};

} // namespace tarn::parallel_erosion
