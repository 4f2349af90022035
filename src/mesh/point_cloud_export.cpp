#include <algorithm>

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
    const mesh_rasterizer::CallerImage image{red, green, blue};
    const std::uint64_t count = parameters->point_count, cells = mesh_rasterizer::grid_shape(*parameters).size();
    const std::uint64_t told = 32u * count + (red != nullptr ? 16u : 0u) + 8u * cells;
    // A vertex and two triangles for each point, and their colours; the triangles' numbers; on devices other than CPUs
    // copies of the caller's grids.
    const unsigned copies = queue.get_device().is_cpu() ? 0u : image.is_complete() ? 20u : 8u;
    const std::uint64_t taken = (image.is_complete() ? 80u : 48u) * count + (4u + copies) * cells;

    return call_frame(
        frames::render_point_cloud, queue, mesh_rasterizer::callbacks, callbacks, std::max(told, taken), [&] {
            mesh_rasterizer::render_point_cloud(queue, points, height, noise, image, *parameters, *callbacks);
            return false;
        });
}
