// Point clouds: scattered height samples drawn as a triangulated surface.
#pragma once

#include <cstdint>
#include <vector>

#include "mesh/mesh_rasterizer.hpp"
#include "mesh/triangulation.hpp"

namespace tarn::mesh_rasterizer {

/// An image in the host's memory, or none.
struct CallerImage {
    float* red;
    float* green;
    float* blue;

    bool is_complete() const { return red != nullptr && green != nullptr && blue != nullptr; }
};

/// The whole run of MeshRasterizer_RenderPointCloud. `points` are x, y, z in turn.
void render_point_cloud(sycl::queue& queue, const float* points, float* height, float* noise, const CallerImage& image,
                        const Parameters& parameters, const HostCallbacks& record);

} // namespace tarn::mesh_rasterizer
