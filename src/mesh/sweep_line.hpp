// Delaunay triangulation by a sweep line, and the order in which it finds triangles.
#pragma once

#include <vector>

#include "mesh/divide_and_conquer.hpp"
#include "mesh/triangulation.hpp"

namespace tarn::mesh_rasterizer {

/// The triangles of places, sorted by x and then by y, no two alike: numbers of points, clockwise.
std::vector<PointTriangle> sweep_line(const std::vector<Place>& places);

/// Makes triangles of places, counter-clockwise, what `sweep_line` would have found, in its order. False if it cannot
/// be told whether they are the same; the triangles are then of no use.
bool sort_by_sweep(std::vector<PointTriangle>& triangles, const std::vector<Place>& places);

} // namespace tarn::mesh_rasterizer
