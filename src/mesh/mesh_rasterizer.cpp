#include "mesh/mesh_rasterizer.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "grid/resampling.hpp"
#include "mesh/mesh_kernels.hpp"
#include "mesh/work_expansion.hpp"

namespace tarn::mesh_rasterizer {

namespace {

/// A list of the caller's as kernels see it; an empty one has nothing to take over.
template <class T, class Element>
const T* list_or_null(const Element* list, std::uint32_t count) {
    return count > 0 ? reinterpret_cast<const T*>(list) : nullptr;
}

struct Quaternion {
    float w, x, y, z;
};

Quaternion operator*(const Quaternion& a, const Quaternion& b) {
    return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x, a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}

/// About z first, then y, then x; in degrees, with x and z turning clockwise.
Rotation make_rotation(float x_degrees, float y_degrees, float z_degrees) {
    constexpr float half_radians = 0.008726646f; // pi / 360
    const float x = -x_degrees * half_radians, y = y_degrees * half_radians, z = -z_degrees * half_radians;
    Quaternion q = Quaternion{std::cos(x), std::sin(x), 0.0f, 0.0f} * Quaternion{std::cos(y), 0.0f, std::sin(y), 0.0f} *
                   Quaternion{std::cos(z), 0.0f, 0.0f, std::sin(z)};
    const float length = std::sqrt(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z);
    q = {q.w / length, q.x / length, q.y / length, q.z / length};
    return {{{1.0f - 2.0f * (q.y * q.y + q.z * q.z), 2.0f * (q.x * q.y - q.w * q.z), 2.0f * (q.x * q.z + q.w * q.y)},
             {2.0f * (q.x * q.y + q.w * q.z), 1.0f - 2.0f * (q.x * q.x + q.z * q.z), 2.0f * (q.y * q.z - q.w * q.x)},
             {2.0f * (q.x * q.z - q.w * q.y), 2.0f * (q.y * q.z + q.w * q.x), 1.0f - 2.0f * (q.x * q.x + q.y * q.y)}}};
}

/// The transform that lets the unrotated model touch the frame on its tightest axis, times the record's scale.
FrameTransform fit_to_frame(const Vertices& vertices, sycl::queue& queue, const Parameters& p) {
    const BoundingBox box = compute_bounding_box(vertices, queue);
    const auto width = static_cast<float>(p.resolution.x);
    const auto height = static_cast<float>(p.resolution.y);
    const float cells_per_unit = p.vertical_scale * width;
    // An axis along which the model is flat asks for an infinite scale, which another axis undercuts.
    const float fit = minimum(minimum(width / (box.max_x - box.min_x), height / (box.max_y - box.min_y)),
                              cells_per_unit / (box.max_z - box.min_z)) *
                      p.scale;
    const vec3 centre((box.min_x + box.max_x) / 2.0f, (box.min_y + box.max_y) / 2.0f, (box.min_z + box.max_z) / 2.0f);
    const vec3 origin((p.offset_x + 0.5f) * width, (0.5f - p.offset_y) * height, (p.offset_z + 0.5f) * cells_per_unit);
    return {centre, make_rotation(p.rotation_x, p.rotation_y, p.rotation_z), fit, origin, cells_per_unit};
}

} // namespace

Vertices upload_vertices(const MeshView& mesh, sycl::queue& queue) {
    // Copied on a CPU too, so that nothing is written to the caller's list.
    auto* const vertices = const_cast<vec3*>(list_or_null<vec3>(mesh.vertices, mesh.vertex_count));
    return {sycl::range<1>(mesh.vertex_count), queue, vertices, false, false};
}

Triangles upload_triangles(const MeshView& mesh, sycl::queue& queue) {
    return Triangles::input(mesh.triangle_count, queue, list_or_null<uvec3>(mesh.triangles, mesh.triangle_count));
}

Vertices upload_normals(const MeshView& mesh, sycl::queue& queue) {
    return Vertices::input(mesh.vertex_count, queue, list_or_null<vec3>(mesh.normals, mesh.vertex_count));
}

BoundingBox compute_bounding_box(const Vertices& vertices, sycl::queue& queue) {
    if (vertices.size() == 0)
        return {};
    constexpr float most = std::numeric_limits<float>::max();
    float bounds[6] = {most, -most, most, -most, most, -most};
    {
        const usm_ptr<float, 1> list(sycl::range<1>(6), queue, bounds, true, true);
        float* const b = list.data();
        const auto least = [&](int n) {
            return sycl::reduction(b + n, sycl::minimum<float>());
        };
        const auto largest = [&](int n) {
            return sycl::reduction(b + n, sycl::maximum<float>());
        };
        queue
            .parallel_for(
                vertices.shape(), least(0), largest(1), least(2), largest(3), least(4), largest(5),
                [v = vertices.data()](sycl::id<1> i, auto& x0, auto& x1, auto& y0, auto& y1, auto& z0, auto& z1) {
                    // SYCL leaves open whether the smaller of a number and a NaN is the number.
                    const auto unless_nan = [](float coordinate, float otherwise) {
                        return coordinate == coordinate ? coordinate : otherwise;
                    };
                    const vec3& vertex = v[i[0]];
                    x0.combine(unless_nan(vertex.x(), most));
                    x1.combine(unless_nan(vertex.x(), -most));
                    y0.combine(unless_nan(vertex.y(), most));
                    y1.combine(unless_nan(vertex.y(), -most));
                    z0.combine(unless_nan(vertex.z(), most));
                    z1.combine(unless_nan(vertex.z(), -most));
                })
            .wait();
    }
    return {bounds[0], bounds[1], bounds[2], bounds[3], bounds[4], bounds[5]};
}

MeshRasterizer::MeshRasterizer(sycl::queue& queue, float* height, float* noise, Parameters& parameters,
                               Vertices& vertices, Triangles& triangles, bool with_triangle_ids,
                               const HostCallbacks& record)
    : tracker_(record, queue), device_queue_(&queue), parameters_(&parameters), extent_(grid_shape(parameters)),
      height_(extent_, queue, height, true, true), noise_(extent_, queue, noise, true, true), vertices_(&vertices),
      triangles_(&triangles), triangle_ids_(with_triangle_ids ? extent_.shape() : sycl::range<2>(0, 0), queue) {}

MeshRasterizer::MeshRasterizer(sycl::queue& queue, const Grid& height, const Grid& noise, Parameters& parameters,
                               Vertices& vertices, Triangles& triangles, bool with_triangle_ids,
                               const HostCallbacks& record)
    : tracker_(record, queue), device_queue_(&queue), parameters_(&parameters), extent_(grid_shape(parameters)),
      height_(height), noise_(noise), vertices_(&vertices), triangles_(&triangles),
      triangle_ids_(with_triangle_ids ? extent_.shape() : sycl::range<2>(0, 0), queue) {}

void MeshRasterizer::process_vertices(Vertices& vertices, sycl::queue& queue, const Parameters& parameters) {
    if (vertices.size() == 0)
        return;
    queue.parallel_for(vertices.shape(), [v = vertices.data(), to_frame = fit_to_frame(vertices, queue, parameters)](
                                             sycl::id<1> i) { v[i[0]] = to_frame(v[i[0]]); });
    if (parameters.rest_on_floor == 0)
        return;
    const float lowest = compute_bounding_box(vertices, queue).min_z;
    queue.parallel_for(vertices.shape(),
                       [v = vertices.data(), above_floor = lowest - parameters.offset_z](sycl::id<1> i) {
                           v[i[0]] = v[i[0]] - vec3(above_floor, above_floor, above_floor);
                       });
}

void MeshRasterizer::draw_highest() {
    const WorkExpansion expansion(*device_queue_, *vertices_, *triangles_, true);
    if (noise_)
        expansion.launch(*device_queue_, extent_, KeepHighest<true>{height_.data(), noise_.data()});
    else
        expansion.launch(*device_queue_, extent_, KeepHighest<false>{height_.data(), nullptr});
}

void MeshRasterizer::draw_highest_facing() {
    draw_facing(KeepHighest<false>{height_.data(), nullptr});
}

void MeshRasterizer::enter_facing_triangles() {
    draw_facing(KeepLastTriangle{triangle_ids_.data()});
}

template <class Store>
void MeshRasterizer::draw_facing(const Store& store) {
    if (triangles_->size() == 0)
        return;
    if (device_queue_->get_device().is_cpu())
        draw_facing_by_band(store);
    else
        draw_facing_by_group(store);
}

template <class Store>
void MeshRasterizer::draw_facing_by_group(const Store& store) {
    const auto sizes = device_queue_->get_device().get_info<sycl::info::device::sub_group_sizes>();
    const std::size_t lanes = sizes.empty() ? 1 : sizes.back();
    const int width = static_cast<int>(extent_.x()), height = static_cast<int>(extent_.y());
    const sycl::nd_range<1> items(sycl::range<1>(triangles_->size() * lanes), sycl::range<1>(lanes));
    device_queue_->parallel_for(
        items, [=, vertices = vertices_->data(), triangles = triangles_->data()](sycl::nd_item<1> item) {
            const auto triangle = static_cast<std::uint32_t>(item.get_group(0));
            const uvec3& corners = triangles[triangle];
            const vec3 &a = vertices[corners.x()], &b = vertices[corners.y()], &c = vertices[corners.z()];
            const ClippedBox box = visible_box(a, b, c, width, height);
            if (box.empty())
                return;
            const DrawnTriangle drawn(triangle, a, b, c);
            const auto span = static_cast<std::uint32_t>(box.x1 - box.x0 + 1);
            const std::uint32_t cells = span * static_cast<std::uint32_t>(box.y1 - box.y0 + 1);
            for (auto i = static_cast<std::uint32_t>(item.get_local_id(0)); i < cells;
                 i += static_cast<std::uint32_t>(lanes)) {
                const std::uint32_t row = i / span;
                const int x = box.x0 + static_cast<int>(i - row * span);
                render_row<1>(drawn, x, x + 1, box.y0 + static_cast<int>(row), width, store);
            }
        });
}

template <class Store>
void MeshRasterizer::draw_facing_by_band(const Store& store) {
    const int width = static_cast<int>(extent_.x()), height = static_cast<int>(extent_.y());
    // The grid is one band where the triangles are enough to keep all cores busy.
    constexpr std::size_t enough_items = 4096;
    constexpr int lowest_band = 8;
    const int most_bands = static_cast<int>(std::max<std::size_t>(enough_items / triangles_->size(), 1));
    const int band_rows = std::max((height - 1) / most_bands + 1, lowest_band);
    const auto bands = static_cast<std::size_t>((height - 1) / band_rows) + 1;
    device_queue_->parallel_for(sycl::range<2>(bands, triangles_->size()),
                                [=, vertices = vertices_->data(), triangles = triangles_->data()](sycl::id<2> index) {
                                    const auto triangle = static_cast<std::uint32_t>(index[1]);
                                    const uvec3& corners = triangles[triangle];
                                    const vec3 &a = vertices[corners.x()], &b = vertices[corners.y()],
                                               &c = vertices[corners.z()];
                                    ClippedBox box = visible_box(a, b, c, width, height);
                                    const int band_start = static_cast<int>(index[0]) * band_rows;
                                    box.y0 = maximum(box.y0, band_start);
                                    box.y1 = minimum(box.y1, band_start + (band_rows - 1));
                                    if (box.empty())
                                        return;
                                    const DrawnTriangle drawn(triangle, a, b, c);
                                    for (int y = box.y0; y <= box.y1; ++y)
                                        render_row<cpu_lanes>(drawn, box.x0, box.x1 + 1, y, width, store);
                                });
}

void double_supersampled_resolution(Parameters& parameters) {
    if (parameters.supersample == 0)
        return;
    parameters.resolution.x *= 2;
    parameters.resolution.y *= 2;
}

Grid open_output(const sycl::range<2>& shape, sycl::queue& queue, float* host, bool supersample) {
    Grid output(shape, queue, host, true, true);
    if (!supersample)
        return output;
    output.set_host_ptr(nullptr);
    return resampling::upsample_box(output);
}

void reduce_output(Grid& output, float* host) {
    if (!output)
        return;
    output = resampling::downsample_box(output);
    output.set_host_ptr(host);
}

void render_mesh(sycl::queue& queue, const MeshView& mesh, float* height, float* noise, Parameters& parameters,
                 const HostCallbacks& record) {
    Vertices vertices = upload_vertices(mesh, queue);
    Triangles triangles = upload_triangles(mesh, queue);
    const sycl::range<2> shape = grid_shape(parameters);
    double_supersampled_resolution(parameters);
    // A mesh without triangles leaves the grids as they are, without a way through another resolution.
    const bool supersample = parameters.supersample != 0 && triangles.size() > 0;
    Grid heights = open_output(shape, queue, height, supersample);
    Grid noises = open_output(shape, queue, noise, supersample);
    MeshRasterizer::process_vertices(vertices, queue, parameters);
    {
        Parameters copy = parameters;
        MeshRasterizer rasterizer(queue, heights, noises, copy, vertices, triangles, false, record);
        rasterizer.draw_highest();
    }
    if (supersample) {
        reduce_output(heights, height);
        reduce_output(noises, noise);
    }
}

} // namespace tarn::mesh_rasterizer
