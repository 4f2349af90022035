// The normals of a height grid, and filters for grids of normals.
#pragma once

#include "device/usm_ptr.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

using NormalGrid = usm_ptr<vec3, 2>;

/// The normal at each cell of a height grid by a Scharr operator (H. Scharr, Optimale Operatoren in der Digitalen
/// Bildverarbeitung, 2000); the rim repeats its last cells. x and y point downhill.
NormalGrid compute_global_normals(const Grid& height, const Parameters& parameters);

/// The normal at each cell, led by the steepest of the four quads of cells around it, so that edges stay sharp. x and y
/// point downhill.
NormalGrid compute_global_normals_enhanced(const Grid& height, const Parameters& parameters);

/// Each normal as a mean of those around it, weighted by their slopes: steep ones spread into flat neighbours.
NormalGrid spread_high_slope_normals(const NormalGrid& normals);

/// Each normal set off against those around it.
NormalGrid sharpen_normals(const NormalGrid& normals);

} // namespace tarn::mesh_rasterizer
