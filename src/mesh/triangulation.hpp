// Delaunay triangulation of points in the plane.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace tarn::mesh_rasterizer {

/// Three numbers of points.
using PointTriangle = std::array<std::uint32_t, 3>;

/// Covers the convex hull of the points x0, y0, x1, y1, ... by triangles that do not overlap; no point lies inside the
/// circle through the corners of a triangle. Corners go round clockwise, with y upwards. Of several points in one place
/// one is used. Throws std::runtime_error("not triangulation") if no triangle can be formed: for fewer than three
/// points, or if all lie on one line. Coordinates must be finite.
std::vector<PointTriangle> triangulate(const std::vector<double>& coordinates);

} // namespace tarn::mesh_rasterizer
