// Filling the small closed pits of a terrain before particles run over it: on the coarser levels of a Laplacian
// pyramid, with the fine detail put back only where nothing was raised.
#pragma once

#include <memory>

#include <sycl/sycl.hpp>

namespace tarn::flow {

using Grid = sycl::buffer<float, 2>;

/// How many levels coarser than the grid itself pits are filled on. The coarsest is 256 to 511 cells wide; grids below
/// 512 columns have none.
int coarser_levels(int width);

/// The fewest rows that a grid of this width needs, for its coarsest level to have one.
int least_height(int width);

/// Raises the pits of `heights` in place.
void fill_pits(Grid& heights, sycl::queue& queue);

/// One level of the pyramid.
class LaplacianLevel {
  public:
    /// Level 0, which shares the storage of `level_heights`.
    LaplacianLevel(sycl::queue& level_queue, Grid level_heights);

    /// The next coarser level, half the size rounded down. Writes this level's `detail`.
    std::unique_ptr<LaplacianLevel> create_subsequent_level();

    /// Raises the level's pits by a fixed number of passes.
    void fill_pits();

    /// Replaces the parent's heights by this level's, upsampled, with the parent's detail where nothing was raised.
    void reconstruct();

    sycl::queue& queue;
    sycl::range<2> extent;
    /// The next finer level; null at level 0.
    LaplacianLevel* parent = nullptr;
    Grid heights;
    /// What `heights` has and the next coarser level lacks.
    Grid detail;
    /// 1 where a pass has raised the cell, else 0. Not used at level 0.
    Grid raised;
};

} // namespace tarn::flow
