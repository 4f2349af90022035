#include "device/argument_check.hpp"
#include "mesh/mesh_check.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace {

using namespace tarn;
using mesh_rasterizer::MeshView;
using mesh_rasterizer::Parameters;

bool check(const SyclQueue* queue, const MeshView* mesh, const float* height, const Parameters* parameters,
           const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::render_mesh, callbacks);
    check.not_null("queue", queue).not_null("mesh", mesh).not_null("height", height).not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    mesh_rasterizer::check_resolution(check, p, p.supersample != 0);
    check.finite("vertical_scale", p.vertical_scale)
        .require(p.vertical_scale != 0.0f, "vertical_scale", p.vertical_scale, "other than 0")
        .finite("rotation_x", p.rotation_x)
        .finite("rotation_y", p.rotation_y)
        .finite("rotation_z", p.rotation_z)
        .finite("scale", p.scale)
        .finite("offset_x", p.offset_x)
        .finite("offset_y", p.offset_y)
        .finite("offset_z", p.offset_z);
    if (check.passed())
        mesh_rasterizer::check_mesh(check, *mesh);
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t MeshRasterizer_RenderMesh(SyclQueue* handle, const mesh_rasterizer_MeshView* mesh,
                                                       float* height, float* noise,
                                                       mesh_rasterizer_Parameters* parameters,
                                                       const HostCallbacks* callbacks) {
    if (!check(handle, mesh, height, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t entries = std::uint64_t{mesh->vertex_count} + mesh->triangle_count;
    const std::uint64_t need =
        16u * entries + (parameters->supersample != 0 ? 52u : 16u) * mesh_rasterizer::grid_shape(*parameters).size();

    return call_frame(frames::render_mesh, queue, mesh_rasterizer::callbacks, callbacks, need, [&] {
        mesh_rasterizer::render_mesh(queue, *mesh, height, noise, *parameters, *callbacks);
        return false;
    });
}
