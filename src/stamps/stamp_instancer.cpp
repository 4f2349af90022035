#include "stamps/stamp_instancer.hpp"

#include "device/usm_ptr.hpp"
#include "stamps/stamp_instancer_kernels.hpp"

namespace tarn::stamp_instancer {

namespace {

/// The part [first, last) of a stamp's row or column that lies on the grid, with the stamp starting at `start` there.
struct Overlap {
    Overlap(std::int64_t start, int stamp_size, int grid_size)
        : first(static_cast<int>(minimum<std::int64_t>(maximum<std::int64_t>(-start, 0), stamp_size))),
          last(static_cast<int>(maximum<std::int64_t>(minimum<std::int64_t>(grid_size - start, stamp_size), first))) {}

    int first;
    int last;
};

/// The stamps in the shape for GPUs: one work-item to each cell of each instance.
void launch_cells(sycl::queue& queue, float* heights, float* ids, const float* stamps, const Instance* instances,
                  const Parameters& p) {
    const auto stamp_cells = static_cast<std::uint32_t>(p.stamp_width * p.stamp_height);
    const auto items = static_cast<std::size_t>(p.instance_count) * stamp_cells;
    queue.parallel_for(sycl::range<1>(items), [=](sycl::id<1> item) {
        const auto number = static_cast<std::uint32_t>(item[0]);
        const std::uint32_t n = number / stamp_cells;
        const std::uint32_t cell = number - n * stamp_cells;
        const std::uint32_t row = cell / static_cast<std::uint32_t>(p.stamp_width);
        const std::uint32_t column = cell - row * static_cast<std::uint32_t>(p.stamp_width);
        const Instance& instance = instances[n];
        const std::int64_t x = stamp_start(instance.position.x, p.stamp_width) + column;
        const std::int64_t y = stamp_start(instance.position.y, p.stamp_height) + row;
        if (x < 0 || x >= p.width || y < 0 || y >= p.height)
            return;
        const std::int64_t target = y * p.width + x;
        stamp_cell(heights[target], ids[target], stamps[std::size_t{instance.stamp} * stamp_cells + cell],
                   instance.height, instance_id(n));
    });
}

/// The shape for CPUs: one work-item to each row of each instance, which looks at the cells on the grid alone.
void launch_rows(sycl::queue& queue, float* heights, float* ids, const float* stamps, const Instance* instances,
                 const Parameters& p) {
    const auto rows = static_cast<std::uint32_t>(p.stamp_height);
    const auto items = static_cast<std::size_t>(p.instance_count) * rows;
    queue.parallel_for(sycl::range<1>(items), [=](sycl::id<1> item) {
        const auto number = static_cast<std::uint32_t>(item[0]);
        const std::uint32_t n = number / rows;
        const std::uint32_t row = number - n * rows;
        const Instance& instance = instances[n];
        const std::int64_t y = stamp_start(instance.position.y, p.stamp_height) + row;
        if (y < 0 || y >= p.height)
            return;
        const std::int64_t start = stamp_start(instance.position.x, p.stamp_width);
        const Overlap columns(start, p.stamp_width, p.width);
        const float* stamp =
            stamps + (std::size_t{instance.stamp} * rows + row) * static_cast<std::size_t>(p.stamp_width);
        const float base = instance.height;
        const float id = instance_id(n);
        const std::int64_t target = y * p.width + start;
        for (int column = columns.first; column < columns.last; ++column)
            stamp_cell(heights[target + column], ids[target + column], stamp[column], base, id);
    });
}

/// Both kernels. The first is done before the second starts, so every base height is that of the terrain as it came.
void populate(sycl::queue& queue, float* heights, float* ids, const float* stamps, Instance* instances,
              const Parameters& parameters) {
    if (parameters.instance_count == 0)
        return;
    queue.parallel_for(sycl::range<1>(static_cast<std::size_t>(parameters.instance_count)),
                       [=, width = parameters.width, height = parameters.height](sycl::id<1> n) {
                           instances[n[0]].height =
                               bilinear(heights, width, height, instances[n[0]].position.x, instances[n[0]].position.y);
                       });
    if (queue.get_device().is_cpu())
        launch_rows(queue, heights, ids, stamps, instances, parameters);
    else
        launch_cells(queue, heights, ids, stamps, instances, parameters);
}

} // namespace

void place(sycl::queue& queue, float* heights, float* ids, const float* stamps, Instance* instances,
           const Parameters& parameters) {
    const Extent<2> extent(static_cast<std::uint32_t>(parameters.width), static_cast<std::uint32_t>(parameters.height));
    const Extent<2> stamps_extent(static_cast<std::uint32_t>(parameters.stamps_width),
                                  static_cast<std::uint32_t>(parameters.stamps_height));
    const auto count = static_cast<std::size_t>(parameters.instance_count);
    const usm_ptr<float, 2> height_grid(extent, queue, heights, true, true);
    const usm_ptr<float, 2> id_grid(extent, queue, ids, true, true);
    const usm_ptr<Instance, 1> instance_list(sycl::range<1>(count), queue, count > 0 ? instances : nullptr, false,
                                             true);
    // The stamps are only ever read: they are wrapped, or uploaded without a way back.
    const usm_ptr<float, 2> stamp_list(stamps_extent, queue, const_cast<float*>(stamps), false, true);
    populate(queue, height_grid.data(), id_grid.data(), stamp_list.data(), instance_list.data(), parameters);
}

} // namespace tarn::stamp_instancer
