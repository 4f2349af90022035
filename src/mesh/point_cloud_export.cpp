#include "device/argument_check.hpp"
#include "device/call_frame.hpp"
#include "mesh/point_cloud.hpp"

namespace {

using namespace tarn;
using mesh_rasterizer::Parameters;

bool check(const SyclQueue* queue, const float* points, const float* height, const float* noise,
           const Parameters* parameters, const HostCallbacks* callbacks) {
    ArgumentCheck check(frames::render_point_cloud, callbacks);
    check.not_null("queue", queue)
        .not_null("height", height)
        .not_null("noise", noise)
        .not_null("parameters", parameters);
    if (!check.passed())
        return false;
    const Parameters& p = *parameters;
    check.grid_size(p.resolution.x, p.resolution.y)
        .require(p.point_count <= INT32_MAX, "point_count", p.point_count, "at most 2147483647");
    if (p.point_count > 0)
        check.not_null("points", points);
    return check.passed();
}

} // namespace

extern "C" TARN_API uint32_t MeshRasterizer_RenderPointCloud(SyclQueue* handle, const float* points, float* height,
                                                             float* noise, float* red, float* green, float* blue,
                                                             const mesh_rasterizer_Parameters* parameters,
                                                             const HostCallbacks* callbacks) {
    if (!check(handle, points, height, noise, parameters, callbacks))
        return status_failed;

    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const std::uint64_t need = 32u * std::uint64_t{parameters->point_count} + (red != nullptr ? 16u : 0u) +
                               8u * mesh_rasterizer::grid_shape(*parameters).size();

    return call_frame(frames::render_point_cloud, queue, mesh_rasterizer::callbacks, callbacks, need, [&] {
        mesh_rasterizer::render_point_cloud(queue, points, height, noise, {red, green, blue}, *parameters, *callbacks);
        return false;
    });
}
