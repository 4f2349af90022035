// Delaunay triangulation by dividing the points and merging the triangulations of the parts.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "mesh/triangulation.hpp"

namespace tarn::mesh_rasterizer {

/// A point in whole units, of at most 42 bits and a sign, and its number.
struct Place {
    std::int64_t x, y;
    std::uint32_t point;
};

/// The Delaunay triangles of places, sorted by x and then by y, no two alike: numbers of places, counter-clockwise, in
/// an order of their own. Nothing if four places lie so near one circle that doubles cannot tell on which side, or if
/// there are more than 715 million.
std::optional<std::vector<PointTriangle>> divide_and_conquer(const std::vector<Place>& places);

} // namespace tarn::mesh_rasterizer
