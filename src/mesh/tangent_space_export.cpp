#include "device/argument_check.hpp"
#include "mesh/mesh_check.hpp"
#include "mesh/tangent_space.hpp"

namespace {

using namespace tarn;
using mesh_rasterizer::MeshView;
using mesh_rasterizer::Parameters;

bool check(const SyclQueue* queue, const MeshView* mesh, const float* height, const float* red, const float* green,
           const float* blue, const TarnFloat2* hit_positions, const Parameters* parameters,
           const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::compute_tangent_space_normals, callbacks);
    check.not_null("queue", queue)
        .not_null("mesh", mesh)
        .not_null("height", height)
        .not_null("red", red)
        .not_null("green", green)
        .not_null("blue", blue)
        .not_null("hit_positions", hit_positions)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    mesh_rasterizer::check_resolution(check, p, false);
    check.finite("vertical_scale", p.vertical_scale)
        .require(p.vertical_scale != 0.0f, "vertical_scale", p.vertical_scale, "other than 0")
        .finite("vertical_scale * width", p.vertical_scale * static_cast<float>(p.resolution.x));
    if (check.passed())
        mesh_rasterizer::check_mesh(check, *mesh);
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t MeshRasterizer_ComputeTangentSpaceNormals(
    SyclQueue* handle, const mesh_rasterizer_MeshView* mesh, const float* height, float* red, float* green, float* blue,
    TarnFloat2* hit_positions, const mesh_rasterizer_Parameters* parameters, const HostCallbacks* callbacks) {
    if (!check(handle, mesh, height, red, green, blue, hit_positions, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t entries = std::uint64_t{mesh->vertex_count} + mesh->triangle_count;
    const std::uint64_t need =
        16u * entries + (parameters->supersample != 0 ? 52u : 16u) * mesh_rasterizer::grid_shape(*parameters).size();

    return call_frame(frames::compute_tangent_space_normals, queue, mesh_rasterizer::callbacks, callbacks, need, [&] {
        const mesh_rasterizer::CallerNormalMap map{red, green, blue,
                                                   reinterpret_cast<mesh_rasterizer::vec2*>(hit_positions)};
        mesh_rasterizer::compute_tangent_space_normals(queue, *mesh, height, map, *parameters, *callbacks);
        return false;
    });
}
