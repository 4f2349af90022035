#include "mesh/surface_normals.hpp"

#include "grid/launch_cells.hpp"
#include "mesh/surface_normals_kernels.hpp"

namespace tarn::mesh_rasterizer {

namespace {

/// A grid of `normal(extent, x, y, column_kind)`, made from `source`.
template <class Source, class Normal>
NormalGrid make_normals(const Source& source, const Normal& normal) {
    const Extent<2> extent = source.extent();
    NormalGrid result(extent, source.queue());
    launch_cells(launch_on(source.queue()), extent, 1, [=, out = result.data()](int x, int y, auto column_kind) {
        out[static_cast<std::ptrdiff_t>(y) * extent.x() + x] = normal(extent, x, y, column_kind);
    });
    return result;
}

template <class ColumnKind>
Neighbourhood around(const float* heights, const Extent<2>& extent, int x, int y, ColumnKind) {
    const int width = static_cast<int>(extent.x()), height = static_cast<int>(extent.y());
    return neighbourhood<ColumnKind::value>(neighbour_rows(heights, width, height, y), width, x);
}

/// The width of a cell in the unit of the heights.
float cell_width(const Grid& height, const Parameters& parameters) {
    return 1.0f / (parameters.vertical_scale * static_cast<float>(height.extent().x()));
}

} // namespace

NormalGrid compute_global_normals(const Grid& height, const Parameters& parameters) {
    const float z = 32.0f / (parameters.vertical_scale * static_cast<float>(height.extent().x()));
    return make_normals(height, [heights = height.data(), z](const Extent<2>& extent, int x, int y, auto column_kind) {
        return scharr_normal(around(heights, extent, x, y, column_kind), z);
    });
}

NormalGrid compute_global_normals_enhanced(const Grid& height, const Parameters& parameters) {
    return make_normals(height, [heights = height.data(), z = cell_width(height, parameters)](
                                    const Extent<2>& extent, int x, int y, auto column_kind) {
        return steepest_quad_normal(around(heights, extent, x, y, column_kind), z);
    });
}

NormalGrid spread_high_slope_normals(const NormalGrid& normals) {
    return make_normals(normals, [n = normals.data()](const Extent<2>& extent, int x, int y, auto) {
        return spread_normal(n, extent, x, y);
    });
}

NormalGrid sharpen_normals(const NormalGrid& normals) {
    return make_normals(normals, [n = normals.data()](const Extent<2>& extent, int x, int y, auto) {
        return sharpened_normal(n, extent, x, y);
    });
}

} // namespace tarn::mesh_rasterizer
