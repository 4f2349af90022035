// The mesh rasterizer: triangle meshes drawn from above into height grids.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"
#include "device/progress_tracker.hpp"
#include "device/usm_ptr.hpp"

namespace tarn::mesh_rasterizer {

using Parameters = mesh_rasterizer_Parameters;

using MeshView = mesh_rasterizer_MeshView;

using vec2 = sycl::vec<float, 2>;
using vec3 = sycl::vec<float, 3>;
using uvec3 = sycl::vec<std::uint32_t, 3>;
static_assert(sizeof(vec3) == sizeof(TarnFloat3) && alignof(vec3) == alignof(TarnFloat3));
static_assert(sizeof(uvec3) == sizeof(TarnUint3) && alignof(uvec3) == alignof(TarnUint3));

/// The module's copy of the host's callbacks.
inline ModuleCallbacks callbacks;

using Grid = usm_ptr<float, 2>;
using Vertices = usm_ptr<vec3, 1>;
using Triangles = usm_ptr<uvec3, 1>;

/// The grid that a record's `resolution` names: {height, width}.
inline sycl::range<2> grid_shape(const Parameters& parameters) {
    return {static_cast<std::size_t>(parameters.resolution.y), static_cast<std::size_t>(parameters.resolution.x)};
}

/// A copy of the mesh's vertices that kernels may rewrite, on a CPU too.
Vertices upload_vertices(const MeshView& mesh, sycl::queue& queue);
/// The mesh's triangles, in place on a CPU. They are only ever read.
Triangles upload_triangles(const MeshView& mesh, sycl::queue& queue);
/// The normals of the mesh's vertices, in place on a CPU. They are only ever read.
Vertices upload_normals(const MeshView& mesh, sycl::queue& queue);

/// The least and the largest coordinates of a list of vertices.
struct BoundingBox {
    float min_x, max_x, min_y, max_y, min_z, max_z;
};

/// The box of all vertices; 0 if there are none. Vertices with a NaN coordinate count with their others. Waits for the
/// result.
BoundingBox compute_bounding_box(const Vertices& vertices, sycl::queue& queue);

/// One rendering run over vertices that are final, in frame space: x and y in cells, z in units of the height grid.
class MeshRasterizer {
  public:
    /// Reports 0 %, then takes the caller's grids in; they receive the results when the object ends. A null `noise`
    /// stays empty.
    MeshRasterizer(sycl::queue& queue, float* height, float* noise, Parameters& parameters, Vertices& vertices,
                   Triangles& triangles, bool with_triangle_ids, const HostCallbacks& record);

    /// Over grids that the caller has built, in the record's resolution.
    MeshRasterizer(sycl::queue& queue, const Grid& height, const Grid& noise, Parameters& parameters,
                   Vertices& vertices, Triangles& triangles, bool with_triangle_ids, const HostCallbacks& record);

    /// Takes vertices from model space to frame space: rotated, fitted to the frame in their proportions and moved as
    /// the record says.
    static void process_vertices(Vertices& vertices, sycl::queue& queue, const Parameters& parameters);

    /// Takes vertices from unit space to frame space and moves them by displacement maps, which all have the size of
    /// `xy_map`: along their normals, or sideways alone.
    template <bool horizontal_displacement>
    static void process_vertices_with_displacement(Vertices& vertices, const Vertices& normals, const Grid& xy_map,
                                                   const Grid& xz_map, const Grid& yz_map, sycl::queue& queue,
                                                   const Parameters& parameters);

    /// Draws both sides of all triangles over the heights, of which each cell keeps the highest, and with a noise grid
    /// their numbers. The work is expanded: each triangle is given as many work-items as its bounding box has cells.
    /// Triangles with a box of 2^28 cells or more are dropped. Throws sycl::exception (errc::nd_range) if the boxes
    /// have 2^31 cells or more in all.
    void draw_highest();

    /// Draws a surface whose triangles do not overlap, with heights and noise. The work is expanded as above. Where
    /// triangles overlap by their enlargement the last one stands.
    void draw_surface();

    /// The same without a limit on the triangles' boxes, with one colour for each triangle.
    void draw_coloured_surface(float* red, float* green, float* blue, const vec3* triangle_colours);

    /// Over the heights, of which each cell keeps the highest, draws the triangles that turn clockwise or not at all,
    /// as seen with y upwards. Triangles may have any size.
    void draw_highest_facing();

    /// Bakes the normals of `height` in the frames of the vertices, which are in unit space. Cells under no triangle
    /// keep what the outputs hold.
    void compute_tangent_space_normals(float* red, float* green, float* blue, vec2* hit_positions,
                                       const std::vector<vec3>& vertex_normals,
                                       const std::vector<vec3>& vertex_tangents);

  private:
    /// Enters at each cell the number of the last triangle that `draw_highest_facing` would draw there.
    void enter_facing_triangles();
    /// Draws the facing triangles in the launch shape that suits the device.
    template <class Store>
    void draw_facing(const Store& store);
    /// The shape for GPUs: one sub-group to each triangle.
    template <class Store>
    void draw_facing_by_group(const Store& store);
    /// The shape for CPUs: one work-item to each triangle in each band of rows.
    template <class Store>
    void draw_facing_by_band(const Store& store);
    /// A pass over the triangles enters the number of the last one at each cell, one over the cells draws what the
    /// numbers say, and `paint(index, triangle)` adds to it.
    template <class Paint>
    void draw_surface(bool is_limited, const Paint& paint);

    ProgressTracker tracker_;
    sycl::queue* device_queue_;
    Parameters* parameters_;
    Extent<2> extent_;
    Grid height_;
    Grid noise_;
    Vertices* vertices_;
    Triangles* triangles_;
    /// The number of the triangle drawn at each cell; not initialised, and empty unless asked for.
    usm_ptr<std::uint32_t, 2> triangle_ids_;
};

/// The whole run of MeshRasterizer_RenderMesh.
void render_mesh(sycl::queue& queue, const MeshView& mesh, float* height, float* noise, Parameters& parameters,
                 const HostCallbacks& record);

/// Displacement maps in the host's memory, for surfaces that face along z, y and x.
struct CallerMaps {
    const float* xy;
    const float* xz;
    const float* yz;
};

/// The whole run of MeshRasterizer_RenderMeshWithTriplanarDisplacement.
void render_mesh_with_triplanar_displacement(sycl::queue& queue, const MeshView& mesh, float* height,
                                             const CallerMaps& maps, Parameters& parameters,
                                             const HostCallbacks& record);

/// The two ends of supersampling. Doubles the record's resolution if it asks for it; this is part of the boundary.
void double_supersampled_resolution(Parameters& parameters);
/// An output in the resolution that the run draws in: the caller's grid, or, with `supersample`, a copy of twice its
/// size that has lost its way back to `host`.
Grid open_output(const sycl::range<2>& shape, sycl::queue& queue, float* host, bool supersample);
/// Reduces a supersampled output to the caller's size and sends it on its way to `host`. An empty one stays empty.
void reduce_output(Grid& output, float* host);

} // namespace tarn::mesh_rasterizer
