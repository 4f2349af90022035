// The sweeps: rays over a grid, each cell credited for the rays that reach it.
#pragma once

#include <cstdint>
#include <vector>

#include <sycl/sycl.hpp>

#include "lighting/parameters.hpp"
#include "lighting/rays.hpp"

namespace tarn::lighting {

using Grid = sycl::buffer<float, 2>;
using PhotonMap = sycl::buffer<std::int32_t, 2>;

/// The normals of a grid, or the zero vector where a cell has none.
struct NormalGrid {
    explicit NormalGrid(const sycl::range<2>& extent) : x(extent), y(extent), z(extent) {}

    Grid x;
    Grid y;
    Grid z;
};

/// Largest side of a grid that coordinates in 16.16 fixed point have room for, with a step beyond either edge.
inline constexpr int largest_side = 32766;

/// What a credit of a ray that falls on a cell along the normal is in the photon map.
inline constexpr float full_credit = 262144.0f;

/// Adds to the photon map how many of the rays reach each cell. Returns how many more reach all of them: rays straight
/// from above. The grids have the parameters' resolution.
int sweep_sun(const Parameters& parameters, Grid& heights, PhotonMap& photonmap, const std::vector<Ray>& rays,
              sycl::queue& queue);

/// Adds to the photon map the weights of the rays that reach each cell, times the cosine between ray and normal.
void sweep_sky(const Parameters& parameters, Grid& heights, NormalGrid& normals, PhotonMap& photonmap,
               const std::vector<Ray>& rays, sycl::queue& queue);

} // namespace tarn::lighting
