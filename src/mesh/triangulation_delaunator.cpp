// The triangulation by delaunator-cpp, which is built in place of triangulation.cpp where the header is installed.

#include "mesh/triangulation.hpp"

#include <cstddef>
#include <stdexcept>

#include <delaunator.hpp>

namespace tarn::mesh_rasterizer {

std::vector<PointTriangle> triangulate(const std::vector<double>& coordinates) {
    // The class looks for a second place without checking that there is one.
    bool has_second = false;
    for (std::size_t i = 2; i + 1 < coordinates.size() && !has_second; i += 2)
        has_second = coordinates[i] != coordinates[0] || coordinates[i + 1] != coordinates[1];
    if (!has_second)
        throw std::runtime_error("not triangulation");

    const delaunator::Delaunator result(coordinates);
    std::vector<PointTriangle> triangles;
    triangles.reserve(result.triangles.size() / 3);
    for (std::size_t i = 0; i + 2 < result.triangles.size(); i += 3) {
        const auto corner = [&](std::size_t n) {
            return static_cast<std::uint32_t>(result.triangles[i + n]);
        };
        triangles.push_back({corner(0), corner(1), corner(2)});
    }
    return triangles;
}

} // namespace tarn::mesh_rasterizer
