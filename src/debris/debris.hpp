// Debris: rocks that slide down a terrain as points, come to rest, and are stamped into it as faceted bodies.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"

namespace tarn::debris {

using Parameters = debris_Parameters;

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

/// Rocks that are born, slide and are drawn together.
inline constexpr std::uint32_t batch_size = 1024;

/// The largest radius of a rock in cells: the pixels of its window can then be counted in 31 bits.
inline constexpr float largest_radius = 15446.0f;

/// What most kernels read.
struct GlobalContext {
    explicit GlobalContext(const Parameters& parameters);

    Parameters parameters;
    int resolution;
    float cells_per_unit;
    float units_per_cell;
    /// Makes the difference of two pairs of cells, one cell apart, a true slope.
    float slope_scale;
    /// Width of a cell in units of height.
    float cell;
    float gravity = 9.81f;
    float time_step = 0.03f;
};

/// Where a rock is, in world units.
struct ParticlePos {
    float x;
    float y;
    float z;
    float radius;
};

/// How a rock moves. The velocity lies in the plane of the map, the direction on the terrain.
struct ParticleSim {
    float velocity_x;
    float velocity_y;
    float direction_x;
    float direction_y;
    float direction_z;
    std::uint8_t alive;
};

/// What a rock is drawn with.
struct ParticleRen {
    /// In cells, as `radius`.
    float x;
    float y;
    /// World units.
    float birthplace_x;
    float birthplace_y;
    std::uint32_t rock_seed;
    /// The part of the rock's window that lies on the grid: its first column and its columns, its first row.
    std::uint32_t first_column;
    std::uint32_t columns;
    std::uint32_t first_row;
    /// The pixels in it, which are the work-items of this rock.
    std::uint32_t pixel_count;
    float radius;
    /// Radius over the largest one.
    float size_ratio;
    /// Height of the body for a height of 1 over its unit square.
    float height_scale;
    /// Slope of the terrain under the rock.
    float gradient_x;
    float gradient_y;
    float gradient_length;
    /// Height that the body stands on.
    float base_height;
};

/// A body with sharp facets over the unit square (u, v): the lower envelope of its planes.
struct SharpRock {
    /// z = a u + b v + c.
    struct Plane {
        float a;
        float b;
        float c;
    };

    /// Four flanks that lean on a peak, and a cut across the top. `phase` turns the corners by a part of a full turn.
    void init(std::uint32_t seed, float phase);

    Plane planes[5];
};

/// The two bodies that a rock is mixed from.
struct RockBodies {
    SharpRock first;
    SharpRock second;
};

/// The caller's grids.
struct CallerGrids {
    float* height;
    float* rock_id;
    float* coverage;
    float* speed;
};

class Debris {
  public:
    using Grid = sycl::buffer<float, 2>;

    /// Rows and columns of the noise that roughens the rocks. A rock reads a square of it, in a band of its own.
    static constexpr std::size_t warp_rows = 512;
    static constexpr std::size_t warp_columns = 256;

    /// Reports 0 %, then takes the caller's grids in; they receive the results when the object ends.
    Debris(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
           const CallerGrids& grids);

    void run();

    /// Fills a grid with six octaves of gradient noise.
    void generate_warpnoise(Grid& grid, std::uint32_t seed);
    /// Sets `n` rocks of a new batch down at random places. How the rocks of the batch before moved carries over.
    void place_particles(std::uint32_t n, std::uint32_t seed);
    /// Slides the `n` rocks of the batch until they rest or leave the terrain.
    void simulation_async(std::uint32_t n);
    /// Stamps the `n` rocks of the batch into the height. All of them see the terrain as it is before the first one.
    void render(std::uint32_t n);
    /// Draws the bodies of `count` rocks from `start` on, sharp ones, or, which no run does, round ones.
    void render_sharp(Grid& warp_a, Grid& warp_b, std::uint32_t count, std::uint32_t start);
    void render_rounded(Grid& warp_a, Grid& warp_b, std::uint32_t count, std::uint32_t start);

    bool cancelled() const { return tracker_.cancelled; }

  private:
    /// The work-items of `count` rocks from `start` on, and of all rocks before these.
    void calculate_work_amount(std::uint64_t& work, std::uint64_t& base, std::uint32_t count, std::uint32_t start);
    /// Finds what the `n` rocks lie on and gives them their bodies.
    void prepare(std::uint32_t n);
    template <class Body>
    void render_bodies(Grid& warp_a, Grid& warp_b, std::uint32_t count, std::uint32_t start);

    ProgressTracker tracker_;
    sycl::queue* queue_;
    GlobalContext context_;
    Grid height_;
    Grid rock_id_;
    Grid coverage_;
    Grid speed_;
    sycl::buffer<ParticleSim, 1> sim_;
    sycl::buffer<ParticlePos, 1> pos_;
    sycl::buffer<ParticleRen, 1> ren_;
    sycl::buffer<RockBodies, 1> bodies_;
    /// Work-items of each rock of the batch and of all before it.
    sycl::buffer<std::uint64_t, 1> prefix_;
    Grid warp_a_;
    Grid warp_b_;
};

} // namespace tarn::debris
