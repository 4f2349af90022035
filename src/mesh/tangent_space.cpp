#include "mesh/tangent_space.hpp"

#include "grid/launch_lanes.hpp"
#include "mesh/surface_normals.hpp"
#include "mesh/tangent_space_kernels.hpp"

namespace tarn::mesh_rasterizer {

VertexFrames::VertexFrames(const MeshView& mesh)
    : normals(mesh.vertex_count, vec3(0.0f, 0.0f, 0.0f)), tangents(normals) {
    const auto vertex = [&](std::uint32_t n) {
        return vec3(mesh.vertices[n].x, mesh.vertices[n].y, mesh.vertices[n].z);
    };
    for (std::uint32_t t = 0; t < mesh.triangle_count; ++t) {
        const TarnUint3& list = mesh.triangles[t];
        const std::uint32_t corners[3] = {list.x, list.y, list.z};
        const TriangleFrame frame(vertex(corners[0]), vertex(corners[1]), vertex(corners[2]));
        for (int n = 0; n < 3; ++n) {
            normals[corners[n]] = normals[corners[n]] + frame.normal * frame.angles[n];
            if (frame.has_tangent)
                tangents[corners[n]] = tangents[corners[n]] + frame.tangent * frame.angles[n];
        }
    }
    for (std::vector<vec3>* list : {&normals, &tangents})
        for (vec3& sum : *list)
            sum = unit_vector(sum);
}

void MeshRasterizer::compute_tangent_space_normals(float* red, float* green, float* blue, vec2* hit_positions,
                                                   const std::vector<vec3>& vertex_normals,
                                                   const std::vector<vec3>& vertex_tangents) {
    if (triangles_->size() == 0)
        return;
    sycl::queue& queue = *device_queue_;
    const auto width = static_cast<float>(parameters_->resolution.x);
    const auto height = static_cast<float>(parameters_->resolution.y);
    queue.parallel_for(vertices_->shape(),
                       [v = vertices_->data(), size = vec3(width, height, 1.0f / parameters_->vertical_scale)](
                           sycl::id<1> i) { v[i[0]] = v[i[0]] * size; });
    queue.fill(triangle_ids_.data(), no_triangle, triangle_ids_.size());
    enter_facing_triangles();

    const auto upload = [&](const std::vector<vec3>& list) {
        return Vertices::input(list.size(), queue, list.data());
    };
    const auto output = [&](float* host) {
        return Grid(extent_, queue, host, true, true);
    };
    const Vertices tangents = upload(vertex_tangents), normals = upload(vertex_normals);
    const Grid red_grid = output(red), green_grid = output(green), blue_grid = output(blue);
    const usm_ptr<vec2, 2> hits(extent_, queue, hit_positions, true, true);
    const NormalGrid surface_normals = compute_global_normals(height_, *parameters_);
    NormalBake bake;
    bake.heights = height_.data();
    bake.triangle_ids = triangle_ids_.data();
    bake.vertices = vertices_->data();
    bake.triangles = triangles_->data();
    bake.normals = normals.data();
    bake.tangents = tangents.data();
    bake.surface_normals = surface_normals.data();
    bake.red = red_grid.data();
    bake.green = green_grid.data();
    bake.blue = blue_grid.data();
    bake.hit_positions = hits.data();
    bake.extent = {parameters_->resolution.x, parameters_->resolution.y};
    bake.z_scale = width * parameters_->vertical_scale;
    constexpr std::uint32_t block = 1024;
    launch_lanes(launch_on(queue), extent_.x() * extent_.y(), block,
                 [bake](std::uint32_t first, std::uint32_t last, auto lanes) { bake.bake<lanes.value>(first, last); });
}

void compute_tangent_space_normals(sycl::queue& queue, const MeshView& mesh, const float* height,
                                   const CallerNormalMap& map, const Parameters& parameters,
                                   const HostCallbacks& record) {
    Vertices vertices = upload_vertices(mesh, queue);
    Triangles triangles = upload_triangles(mesh, queue);
    Parameters copy = parameters;
    const Grid heights = Grid::input(grid_shape(copy), queue, height);
    const Grid no_noise(grid_shape(copy), queue, nullptr, false, true);
    MeshRasterizer rasterizer(queue, heights, no_noise, copy, vertices, triangles, true, record);
    VertexFrames frames(mesh);
    rasterizer.compute_tangent_space_normals(map.red, map.green, map.blue, map.hit_positions, frames.normals,
                                             frames.tangents);
}

} // namespace tarn::mesh_rasterizer
