#include "mesh/work_expansion.hpp"

namespace tarn::mesh_rasterizer {

WorkExpansion::WorkExpansion(sycl::queue& queue, const Vertices& vertices, const Triangles& triangles, bool is_limited)
    : vertices_(vertices.data()), triangles_(triangles.data()), sums_(triangles.shape(), queue) {
    if (triangles.size() == 0)
        return;
    queue.parallel_for(triangles.shape(), [is_limited, vertices = vertices_, triangles = triangles_,
                                           counts = sums_.data()](sycl::id<1> index) {
        const uvec3& corners = triangles[index[0]];
        const std::uint32_t cells = box_cells(vertices[corners.x()], vertices[corners.y()], vertices[corners.z()]);
        counts[index[0]] = is_limited && cells >= largest_box ? 0 : cells;
    });
    usm_host_accessor<std::uint32_t> list(sums_, sycl::access::mode::read_write);
    std::uint64_t sum = 0;
    for (std::size_t t = 0; t < list.size(); ++t) {
        sum += list[t];
        list[t] = static_cast<std::uint32_t>(sum);
    }
    list.hand_back();
    if (sum > INT32_MAX)
        throw sycl::exception(sycl::make_error_code(sycl::errc::nd_range), "the triangles' bounding boxes have " +
                                                                               std::to_string(sum) +
                                                                               " cells; one run can draw 2147483647");
    total_ = static_cast<std::uint32_t>(sum);
}

} // namespace tarn::mesh_rasterizer
