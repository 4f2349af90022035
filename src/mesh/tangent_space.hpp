// Normal baking: the normals of a height grid, in the tangent frames of a mesh that stands in for it.
#pragma once

#include <vector>

#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

/// Smooth normals and tangents of a mesh's vertices, of length 1; those of vertices without a triangle are zero. The
/// texture coordinates are x and y.
struct VertexFrames {
    /// Sums the triangles' up with the angles at their corners as weights (G. Thuermer and C. Wuethrich, Computing
    /// Vertex Normals from Polygonal Facets, 1998). Triangles that stand upright in the xy plane have no tangent to
    /// add, and those without area no normal either.
    explicit VertexFrames(const MeshView& mesh);

    std::vector<vec3> normals;
    std::vector<vec3> tangents;
};

/// The outputs of a bake in the host's memory.
struct CallerNormalMap {
    float* red;
    float* green;
    float* blue;
    vec2* hit_positions;
};

/// The whole run of MeshRasterizer_ComputeTangentSpaceNormals.
void compute_tangent_space_normals(sycl::queue& queue, const MeshView& mesh, const float* height,
                                   const CallerNormalMap& map, const Parameters& parameters,
                                   const HostCallbacks& record);

} // namespace tarn::mesh_rasterizer
