// What the rasterizer's exports check alike.
#pragma once

#include <cstdint>

#include "device/argument_check.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

/// The grid's size, and with `supersample` twice that in each direction.
inline void check_resolution(ArgumentCheck& check, const Parameters& p, bool supersample) {
    check.grid_size(p.resolution.x, p.resolution.y);
    const std::int64_t cells = std::int64_t{p.resolution.x} * p.resolution.y;
    check.require(!supersample || 4 * cells <= INT32_MAX, "4 * width * height", 4 * cells,
                  "at most 2147483647 with supersample");
}

/// The mesh's lists are there, and every triangle has three of its vertices.
inline void check_mesh(ArgumentCheck& check, const MeshView& mesh) {
    check.require(mesh.vertex_count <= INT32_MAX, "mesh.vertex_count", mesh.vertex_count, "at most 2147483647")
        .require(mesh.triangle_count <= INT32_MAX, "mesh.triangle_count", mesh.triangle_count, "at most 2147483647");
    if (mesh.vertex_count > 0)
        check.not_null("mesh.vertices", mesh.vertices);
    if (mesh.triangle_count > 0)
        check.not_null("mesh.triangles", mesh.triangles);
    if (!check.passed())
        return;
    for (std::uint32_t t = 0; t < mesh.triangle_count; ++t) {
        const TarnUint3& corners = mesh.triangles[t];
        for (const std::uint32_t corner : {corners.x, corners.y, corners.z})
            if (corner >= mesh.vertex_count) {
                check.require(false, "mesh.triangles", corner, "below mesh.vertex_count");
                return;
            }
    }
}

} // namespace tarn::mesh_rasterizer
