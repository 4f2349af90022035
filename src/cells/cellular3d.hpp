// A terrain rebuilt out of three-dimensional Voronoi cells (S. Worley, "A cellular texture basis function", 1996): the
// cells of the lattice points below the input heights are solid, and the new height is the top of the highest of them.
#pragma once

#include <cstdint>
#include <optional>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"

namespace tarn::cellular3d {

using Parameters = Cellular3D_Parameters;
/// The fourth float is padding.
using Point = TarnFloat3;

inline ModuleCallbacks callbacks;

/// The lattice of points around the block over the grid. A lattice cell (x, y, z) has coordinates from -2 to two cells
/// past the block on each axis.
struct Lattice {
    static constexpr int first = -2;

    /// Lattice units for one cell of the grid in x and y, and for a height of 1; and the other way round.
    float scale_x, scale_y, scale_z;
    float inverse_x, inverse_y, inverse_z;
    /// The last coordinate on each axis.
    int last_x, last_y, last_z;
    /// Number of coordinates on each axis.
    int size_x, size_y, size_z;

    int cells() const { return size_x * size_y * size_z; }
    int columns() const { return size_x * size_y; }
    int column(int x, int y) const { return (y - first) * size_x + (x - first); }
    int index(int x, int y, int z) const { return ((z - first) * size_y + (y - first)) * size_x + (x - first); }
};

/// What the host decides before a run: how dense the lattice can be, and the memory it takes.
struct Budget {
    float cell_density;
    std::uint64_t need;
};
Budget budget(const Parameters& parameters);

/// The memory that a run over a lattice takes. More than the budget says where the block is thin: the cells around it,
/// which a lower density does not make fewer, are many then.
std::uint64_t bytes(const Lattice& lattice, const Parameters& parameters);

/// The lattice of a record whose cell_density is the budget's. Empty if a scale or its inverse is not finite and above
/// 0, or if it has more than 2^31 - 1 cells.
std::optional<Lattice> make_lattice(const Parameters& parameters);

class Cellular3D {
  public:
    /// Reports 0 %, then allocates the lattice.
    Cellular3D(const Parameters& parameters, const Lattice& lattice, sycl::queue& queue, const HostCallbacks& record);

    /// `variant` 0 draws from linear congruential random numbers, 1 from xorshift. The results reach the caller's grids
    /// before this returns; `gap_factor` may be null.
    template <int variant>
    void render(float* height, const float* gap_factor, float* random);

    bool cancelled() const { return tracker_.cancelled; }

  private:
    using Layers = usm_ptr<int, 2>;

    template <int variant>
    void launch_points(const float* height, const float* gap_factor);
    /// The highest solid layer of each lattice column.
    void launch_top(int* top_layer);
    /// The highest one of each column and its neighbours.
    void launch_spread(const int* top_layer, int* top_layer_spread);
    void launch_surface(const int* top_layer_spread, float* height, float* random);

    ProgressTracker tracker_;
    Parameters parameters_;
    sycl::queue* queue_;
    usm_ptr<Point, 1> points_;
    /// 0 for a cell that is not there, else 1 less the gap around it.
    usm_ptr<float, 1> solidity_;
    usm_ptr<float, 1> cell_random_;
    Lattice lattice_;
};

} // namespace tarn::cellular3d
