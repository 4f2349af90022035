#include "device/argument_check.hpp"
#include "mesh/mesh_check.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace {

using namespace tarn;
using mesh_rasterizer::CallerMaps;
using mesh_rasterizer::MeshView;
using mesh_rasterizer::Parameters;

bool check(const SyclQueue* queue, const MeshView* mesh, const float* height, const CallerMaps& maps,
           const Parameters* parameters, const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::render_mesh_with_triplanar_displacement, callbacks);
    check.not_null("queue", queue)
        .not_null("mesh", mesh)
        .not_null("height", height)
        .not_null("xy_map", maps.xy)
        .not_null("xz_map", maps.xz)
        .not_null("yz_map", maps.yz)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    mesh_rasterizer::check_resolution(check, p, p.supersample != 0);
    check.finite("vertical_scale", p.vertical_scale)
        .finite("displacement_amount", p.displacement_amount)
        .finite("displacement_bias", p.displacement_bias);
    if (mesh->vertex_count > 0)
        check.not_null("mesh.normals", mesh->normals);
    if (check.passed())
        mesh_rasterizer::check_mesh(check, *mesh);
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t MeshRasterizer_RenderMeshWithTriplanarDisplacement(
    SyclQueue* handle, const mesh_rasterizer_MeshView* mesh, float* height, const float* xy_map, const float* xz_map,
    const float* yz_map, mesh_rasterizer_Parameters* parameters, const HostCallbacks* callbacks) {
    const CallerMaps maps{xy_map, xz_map, yz_map};
    if (!check(handle, mesh, height, maps, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t need =
        32u * std::uint64_t{mesh->vertex_count} + 16u * std::uint64_t{mesh->triangle_count} +
        (parameters->supersample != 0 ? 28u : 16u) * mesh_rasterizer::grid_shape(*parameters).size();

    return call_frame(frames::render_mesh_with_triplanar_displacement, queue, mesh_rasterizer::callbacks, callbacks,
                      need, [&] {
                          mesh_rasterizer::render_mesh_with_triplanar_displacement(queue, *mesh, height, maps,
                                                                                   *parameters, *callbacks);
                          return false;
                      });
}
