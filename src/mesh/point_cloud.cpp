#include "mesh/point_cloud.hpp"

#include "grid/launch_cells.hpp"
#include "mesh/mesh_kernels.hpp"
#include "mesh/point_cloud_kernels.hpp"
#include "mesh/work_expansion.hpp"

namespace tarn::mesh_rasterizer {

namespace {

/// The points in the frame, for the device, and their places in the plane, for the triangulation.
struct Cloud {
    Cloud(sycl::queue& queue, const float* points, const Parameters& p)
        : vertices(sycl::range<1>(p.point_count), queue) {
        if (p.point_count == 0)
            return;
        coordinates.reserve(2 * std::size_t{p.point_count});
        usm_host_accessor<vec3> list(vertices, sycl::access::mode::write);
        for (std::size_t n = 0; n < list.size(); ++n) {
            const float* point = points + 3 * n;
            const float x = moved_off_rim(point[0], p.resolution.x);
            const float y = moved_off_rim(point[1], p.resolution.y);
            coordinates.push_back(static_cast<double>(x));
            coordinates.push_back(static_cast<double>(y));
            list[n] = vec3(x, y, point[2]);
        }
        list.hand_back();
    }

    Vertices vertices;
    std::vector<double> coordinates;
};

Triangles upload_triangles(const std::vector<PointTriangle>& triangles, sycl::queue& queue) {
    Triangles result(sycl::range<1>(triangles.size()), queue);
    usm_host_accessor<uvec3> list(result, sycl::access::mode::write);
    for (std::size_t t = 0; t < list.size(); ++t)
        list[t] = uvec3(triangles[t][0], triangles[t][1], triangles[t][2]);
    list.hand_back();
    return result;
}

/// `list[number]` by its elements. A vector is 16 bytes, and strides above 8 are not among those that processors
/// gather.
template <class Element>
sycl::vec<Element, 3> gathered(const sycl::vec<Element, 3>* list, std::uint32_t number) {
    const Element* const elements = reinterpret_cast<const Element*>(list);
    const std::size_t first = std::size_t{number} * (sizeof(*list) / sizeof(Element));
    return {elements[first], elements[first + 1], elements[first + 2]};
}

} // namespace

template <class Paint>
void MeshRasterizer::draw_surface(bool is_limited, const Paint& paint) {
    sycl::queue& queue = *device_queue_;
    std::uint32_t* const ids = triangle_ids_.data();
    const WorkExpansion expansion(queue, *vertices_, *triangles_, is_limited);
    queue.fill(ids, no_triangle, triangle_ids_.size());
    expansion.launch(queue, extent_, KeepLastTriangle{ids});
    launch_cells(launch_on(queue), extent_, 0,
                 [=, width = extent_.x(), heights = height_.data(), noise = noise_.data(), vertices = vertices_->data(),
                  triangles = triangles_->data()](int x, int y, auto) {
                     const std::ptrdiff_t i = static_cast<std::ptrdiff_t>(y) * width + x;
                     // Without a branch, so that it becomes vectors: a cell under no triangle goes along and keeps its
                     // values.
                     const Mask covered = mask_of(ids[i] != no_triangle);
                     const std::uint32_t triangle = ids[i] & covered;
                     const uvec3 corners = gathered(triangles, triangle);
                     const float drawn = DrawnTriangle(triangle, gathered(vertices, corners.x()),
                                                       gathered(vertices, corners.y()), gathered(vertices, corners.z()))
                                             .height(x, y);
                     heights[i] = blend(covered, drawn, heights[i]);
                     noise[i] = blend(covered, triangle_noise(triangle), noise[i]);
                     paint(i, triangle, covered);
                 });
}

void MeshRasterizer::draw_surface() {
    draw_surface(true, [](std::ptrdiff_t, std::uint32_t, Mask) {});
}

void MeshRasterizer::draw_coloured_surface(float* red, float* green, float* blue, const vec3* triangle_colours) {
    draw_surface(false, [=](std::ptrdiff_t i, std::uint32_t triangle, Mask covered) {
        const vec3 colour = gathered(triangle_colours, triangle);
        red[i] = blend(covered, colour.x(), red[i]);
        green[i] = blend(covered, colour.y(), green[i]);
        blue[i] = blend(covered, colour.z(), blue[i]);
    });
}

void render_point_cloud(sycl::queue& queue, const float* points, float* height, float* noise, const CallerImage& image,
                        const Parameters& parameters, const HostCallbacks& record) {
    Cloud cloud(queue, points, parameters);
    Triangles triangles = upload_triangles(triangulate(cloud.coordinates), queue);
    Parameters copy = parameters;
    const auto make_rasterizer = [&] {
        return MeshRasterizer(queue, height, noise, copy, cloud.vertices, triangles, true, record);
    };
    if (!image.is_complete()) {
        make_rasterizer().draw_surface();
        return;
    }
    const Extent<2> extent(grid_shape(parameters));
    const auto upload = [&](float* colour) {
        return Grid(extent, queue, colour, true, true);
    };
    const Grid red = upload(image.red), green = upload(image.green), blue = upload(image.blue);
    const Vertices colours(triangles.shape(), queue);
    const ColourVote vote{red.data(), green.data(), blue.data(), parameters.resolution.x, parameters.resolution.y};
    queue.parallel_for(triangles.shape(), [=, vertices = cloud.vertices.data(), list = triangles.data(),
                                           out = colours.data()](sycl::id<1> t) {
        const uvec3& corners = list[t[0]];
        out[t[0]] = vote(vertices[corners.x()], vertices[corners.y()], vertices[corners.z()]);
    });
    make_rasterizer().draw_coloured_surface(red.data(), green.data(), blue.data(), colours.data());
}

} // namespace tarn::mesh_rasterizer
