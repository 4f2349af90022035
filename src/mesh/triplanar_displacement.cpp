#include <cmath>

#include "mesh/displacement_kernels.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

template <bool horizontal_displacement>
void MeshRasterizer::process_vertices_with_displacement(Vertices& vertices, const Vertices& normals, const Grid& xy_map,
                                                        const Grid& xz_map, const Grid& yz_map, sycl::queue& queue,
                                                        const Parameters& parameters) {
    if (vertices.size() == 0)
        return;
    const Extent<2> maps = xy_map.extent();
    const auto width = static_cast<float>(parameters.resolution.x);
    const auto height = static_cast<float>(parameters.resolution.y);
    const Displacement<horizontal_displacement> displace{
        {xy_map.data(), xz_map.data(), yz_map.data(), static_cast<int>(maps.x()), static_cast<int>(maps.y())},
        width,
        height,
        static_cast<float>(maps.x()) / width,
        parameters.displacement_amount,
        parameters.displacement_bias,
        vec3(width, height, 1.0f / parameters.vertical_scale)};
    queue.parallel_for(vertices.shape(), [=, v = vertices.data(), n = normals.data()](sycl::id<1> i) {
        v[i[0]] = displace(v[i[0]], n[i[0]]);
    });
}

template void MeshRasterizer::process_vertices_with_displacement<true>(Vertices&, const Vertices&, const Grid&,
                                                                       const Grid&, const Grid&, sycl::queue&,
                                                                       const Parameters&);
template void MeshRasterizer::process_vertices_with_displacement<false>(Vertices&, const Vertices&, const Grid&,
                                                                        const Grid&, const Grid&, sycl::queue&,
                                                                        const Parameters&);

void render_mesh_with_triplanar_displacement(sycl::queue& queue, const MeshView& mesh, float* height,
                                             const CallerMaps& maps, Parameters& parameters,
                                             const HostCallbacks& record) {
    Vertices vertices = upload_vertices(mesh, queue);
    Triangles triangles = upload_triangles(mesh, queue);
    const sycl::range<2> shape = grid_shape(parameters);
    {
        // In a block of their own: the maps and the normals go before the output comes.
        const auto upload_map = [&](const float* map) {
            return Grid::input(shape, queue, map);
        };
        const Grid xy_map = upload_map(maps.xy), xz_map = upload_map(maps.xz), yz_map = upload_map(maps.yz);
        double_supersampled_resolution(parameters);
        const Vertices normals = upload_normals(mesh, queue);
        if (parameters.horizontal_displacement != 0)
            MeshRasterizer::process_vertices_with_displacement<true>(vertices, normals, xy_map, xz_map, yz_map, queue,
                                                                     parameters);
        else
            MeshRasterizer::process_vertices_with_displacement<false>(vertices, normals, xy_map, xz_map, yz_map, queue,
                                                                      parameters);
    }
    // Heights over a vertical scale of 0 are infinite: such a mesh draws nothing.
    const bool draws = triangles.size() > 0 && std::isfinite(1.0f / parameters.vertical_scale);
    const bool supersample = draws && parameters.supersample != 0;
    Grid heights = open_output(shape, queue, height, supersample);
    const Grid no_noise(shape, queue, nullptr, false, true);
    {
        Parameters copy = parameters;
        MeshRasterizer rasterizer(queue, heights, no_noise, copy, vertices, triangles, false, record);
        if (draws)
            rasterizer.draw_highest_facing();
    }
    if (supersample)
        reduce_output(heights, height);
}

} // namespace tarn::mesh_rasterizer
