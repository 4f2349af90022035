#include "cells/cellular3d.hpp"

#include <cmath>
#include <limits>

#include "cells/cellular3d_kernels.hpp"

namespace tarn::cellular3d {

namespace {

constexpr float largest_density = 512.0f;
constexpr float most_cells = 1e8f;
/// Cells of the lattice beyond the block, along each axis.
constexpr float surroundings = 5.0f;

float vertical_size(const Parameters& p, float density) {
    return p.z_range * density * p.extent_z / p.z_unit;
}

/// The last coordinate of an axis that the block takes up to `size` of; no value where it does not fit.
std::optional<int> last_coordinate(float size) {
    // Far below the limit of int, so that sums and the number of cells on an axis stay inside.
    if (!(size >= 0.0f && size < 1e9f))
        return std::nullopt;
    return static_cast<int>(size) + 2;
}

bool is_scale(float scale) {
    return scale > 0.0f && std::isfinite(scale) && std::isfinite(1.0f / scale);
}

} // namespace

Budget budget(const Parameters& p) {
    float density = minimum(p.cell_density, largest_density);
    float x = density * p.extent_x + surroundings;
    float y = density * p.extent_y + surroundings;
    float z = vertical_size(p, density) + surroundings;
    if (x * y * z > most_cells) {
        const float factor = std::pow(most_cells / (x * y * z), 0.33333334f);
        density *= factor;
        x *= factor;
        y *= factor;
        z *= factor;
    }
    const float bytes =
        x * 24.0f * y * z + 12.0f * static_cast<float>(p.grid_width) * static_cast<float>(p.grid_height);
    // What is not representable belongs to a record that no lattice can be made of.
    const bool fits = bytes >= 0.0f && bytes < 9e18f;
    return {density, fits ? static_cast<std::uint64_t>(bytes) : std::numeric_limits<std::uint64_t>::max()};
}

std::uint64_t bytes(const Lattice& lattice, const Parameters& p) {
    const auto grid_cells = static_cast<std::uint64_t>(p.grid_width) * static_cast<std::uint64_t>(p.grid_height);
    return 24u * static_cast<std::uint64_t>(lattice.cells()) + 8u * static_cast<std::uint64_t>(lattice.columns()) +
           12u * grid_cells;
}

std::optional<Lattice> make_lattice(const Parameters& p) {
    Lattice lattice{};
    const auto width = static_cast<float>(p.grid_width), height = static_cast<float>(p.grid_height);
    lattice.scale_x = p.cell_density * p.extent_x / width;
    lattice.scale_y = p.cell_density * p.extent_y / height;
    lattice.scale_z = vertical_size(p, p.cell_density);
    if (!is_scale(lattice.scale_x) || !is_scale(lattice.scale_y) || !is_scale(lattice.scale_z))
        return std::nullopt;
    lattice.inverse_x = 1.0f / lattice.scale_x;
    lattice.inverse_y = 1.0f / lattice.scale_y;
    lattice.inverse_z = 1.0f / lattice.scale_z;
    const auto x = last_coordinate(static_cast<float>(p.grid_width - 1) * lattice.scale_x);
    const auto y = last_coordinate(static_cast<float>(p.grid_height - 1) * lattice.scale_y);
    const auto z = last_coordinate(lattice.scale_z);
    if (!x || !y || !z)
        return std::nullopt;
    lattice.last_x = *x;
    lattice.last_y = *y;
    lattice.last_z = *z;
    lattice.size_x = *x - Lattice::first + 1;
    lattice.size_y = *y - Lattice::first + 1;
    lattice.size_z = *z - Lattice::first + 1;
    if (lattice.size_x > INT32_MAX / lattice.size_y || lattice.columns() > INT32_MAX / lattice.size_z)
        return std::nullopt;
    return lattice;
}

Cellular3D::Cellular3D(const Parameters& parameters, const Lattice& lattice, sycl::queue& queue,
                       const HostCallbacks& record)
    : tracker_(record, queue), parameters_(parameters), queue_(&queue),
      points_(sycl::range<1>(static_cast<std::size_t>(lattice.cells())), queue), solidity_(points_.shape(), queue),
      cell_random_(points_.shape(), queue), lattice_(lattice) {}

template <int variant>
void Cellular3D::launch_points(const float* height, const float* gap_factor) {
    const auto size = [](int cells) {
        return static_cast<std::size_t>(cells);
    };
    queue_
        ->parallel_for(sycl::range<3>(size(lattice_.size_z), size(lattice_.size_y), size(lattice_.size_x)),
                       [=, points = points_.data(), solidity = solidity_.data(), cell_random = cell_random_.data(),
                        lattice = lattice_, p = parameters_](sycl::id<3> index) {
                           const int x = static_cast<int>(index[2]) + Lattice::first;
                           const int y = static_cast<int>(index[1]) + Lattice::first;
                           const int z = static_cast<int>(index[0]) + Lattice::first;
                           const int i = lattice.index(x, y, z);
                           const CellRandoms random = cell_randoms<variant>(lattice_hash(x, y, z, p.seed));
                           const Point point{jittered(random.x, p.jitter_x, x), jittered(random.y, p.jitter_y, y),
                                             jittered(random.z, p.jitter_z, z), 0.0f};
                           const auto cell =
                               static_cast<std::ptrdiff_t>(grid_index(point.y * lattice.inverse_y, p.grid_height)) *
                                   p.grid_width +
                               grid_index(point.x * lattice.inverse_x, p.grid_width);
                           const float gap = gap_factor != nullptr ? p.gap * gap_factor[cell] : p.gap;
                           points[i] = point;
                           solidity[i] = point.z * lattice.inverse_z < height[cell] ? solidity_of(gap) : 0.0f;
                           cell_random[i] = random.cell;
                       })
        .wait();
}

void Cellular3D::launch_top(int* top_layer) {
    queue_->parallel_for(
        sycl::range<1>(static_cast<std::size_t>(lattice_.columns())),
        [=, solidity = solidity_.data(), columns = lattice_.columns(), layers = lattice_.size_z](sycl::id<1> index) {
            const int column = static_cast<int>(index[0]);
            int layer = layers - 1;
            while (layer >= 0 && solidity[layer * columns + column] == 0.0f)
                --layer;
            top_layer[column] = layer + Lattice::first;
        });
}

void Cellular3D::launch_spread(const int* top_layer, int* top_layer_spread) {
    const int width = lattice_.size_x, height = lattice_.size_y;
    queue_->parallel_for(
        sycl::range<2>(static_cast<std::size_t>(height), static_cast<std::size_t>(width)), [=](sycl::id<2> index) {
            const int column = static_cast<int>(index[1]), row = static_cast<int>(index[0]);
            // Repeating the edge columns is leaving out what lies outside: a maximum does not change.
            int top = top_layer[row * width + column];
            for (int y = -1; y <= 1; ++y)
                for (int x = -1; x <= 1; ++x)
                    top =
                        maximum(top, top_layer[clamp_index(row + y, height) * width + clamp_index(column + x, width)]);
            top_layer_spread[row * width + column] = top;
        });
}

void Cellular3D::launch_surface(const int* top_layer_spread, float* height, float* random) {
    const SolidCells cells{lattice_, points_.data(), solidity_.data(), cell_random_.data()};
    const int grid_width = parameters_.grid_width;
    const auto rows = static_cast<std::size_t>(parameters_.grid_height);
    if (!queue_->get_device().is_cpu()) {
        queue_->parallel_for(sycl::range<2>(rows, static_cast<std::size_t>(grid_width)), [=](sycl::id<2> index) {
            const int x = static_cast<int>(index[1]), y = static_cast<int>(index[0]);
            const float px = static_cast<float>(x) * cells.lattice.scale_x;
            const float py = static_cast<float>(y) * cells.lattice.scale_y;
            const int top = start_layer(cells.lattice, top_layer_spread, static_cast<int>(px), static_cast<int>(py));
            const Surface surface = surface_at(cells, top, px, py);
            const std::ptrdiff_t cell = static_cast<std::ptrdiff_t>(y) * grid_width + x;
            height[cell] = surface.height;
            random[cell] = surface.random;
        });
        return;
    }
    const int grid_height = parameters_.grid_height;
    const std::size_t bands = (rows - 1) / SurfaceBlock::side + 1;
    queue_->parallel_for(sycl::range<1>(bands), [=](sycl::id<1> index) {
        // Where the cells of a row or column from `start` on leave their lattice cell, or the largest block ends.
        const auto end_of_block = [](int start, int size, float scale) {
            const auto lattice_cell = [=](int cell) {
                return static_cast<int>(static_cast<float>(cell) * scale);
            };
            int end = start + 1;
            while (end < minimum(start + SurfaceBlock::side, size) && lattice_cell(end) == lattice_cell(start))
                ++end;
            return end;
        };
        const int first = static_cast<int>(index[0]) * SurfaceBlock::side;
        const int last = minimum(first + SurfaceBlock::side, grid_height);
        for (int y = first, end_y = 0; y < last; y = end_y) {
            end_y = end_of_block(y, last, cells.lattice.scale_y);
            for (int x = 0, end_x = 0; x < grid_width; x = end_x) {
                end_x = end_of_block(x, grid_width, cells.lattice.scale_x);
                SurfaceBlock block(cells, x, y, end_x, end_y);
                block.find(top_layer_spread);
                block.write(height, random, grid_width);
            }
        }
    });
}

template <int variant>
void Cellular3D::render(float* height, const float* gap_factor, float* random) {
    const Extent<2> extent(static_cast<std::uint32_t>(parameters_.grid_width),
                           static_cast<std::uint32_t>(parameters_.grid_height));
    const usm_ptr<float, 2> height_grid(extent, *queue_, height, true, true);
    const usm_ptr<float, 2> random_grid(extent, *queue_, random, true, true);
    const auto gap_grid = usm_ptr<float, 2>::input(extent.shape(), *queue_, gap_factor);
    launch_points<variant>(height_grid.data(), gap_grid.data());

    const sycl::range<2> columns(static_cast<std::size_t>(lattice_.size_y), static_cast<std::size_t>(lattice_.size_x));
    const Layers top_layer(columns, *queue_);
    launch_top(top_layer.data());
    const Layers top_layer_spread(columns, *queue_);
    launch_spread(top_layer.data(), top_layer_spread.data());
    launch_surface(top_layer_spread.data(), height_grid.data(), random_grid.data());
}

template void Cellular3D::render<0>(float*, const float*, float*);
template void Cellular3D::render<1>(float*, const float*, float*);

} // namespace tarn::cellular3d
