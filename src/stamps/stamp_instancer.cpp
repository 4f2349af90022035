#include "stamps/stamp_instancer.hpp"

#include <numeric>
#include <vector>

#include "device/usm_ptr.hpp"
#include "stamps/stamp_instancer_kernels.hpp"

namespace tarn::stamp_instancer {

namespace {

/// The part [first, last) of a stamp's row or column that lies on the grid, with the stamp starting at `start` there.
struct Overlap {
    Overlap(std::int64_t start, int stamp_size, int grid_size)
        : first(static_cast<int>(minimum<std::int64_t>(maximum<std::int64_t>(-start, 0), stamp_size))),
          last(static_cast<int>(maximum<std::int64_t>(minimum<std::int64_t>(grid_size - start, stamp_size), first))) {}

    bool empty() const { return first == last; }

    int first;
    int last;
};

/// The stamps in the shape for GPUs: one work-item to each cell of each instance.
void stamp_by_cell(sycl::queue& queue, float* heights, float* ids, const float* stamps, const Instance* instances,
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
        raise_cell(heights[target], ids[target],
                   stamped_height(stamps[std::size_t{instance.stamp} * stamp_cells + cell], instance.height),
                   instance_id(n));
    });
}

/// For each band of rows the instances that touch it, in their order: those of a band are `instances` from
/// `first[band]` to before `first[band + 1]`.
struct Bands {
    static constexpr int rows = 16;

    Bands(const Instance* list, const Parameters& p) : first(static_cast<std::size_t>((p.height - 1) / rows + 2)) {
        const auto for_bands = [&](auto visit) {
            for (std::int32_t n = 0; n < p.instance_count; ++n) {
                const std::int64_t x = stamp_start(list[n].position.x, p.stamp_width);
                const std::int64_t y = stamp_start(list[n].position.y, p.stamp_height);
                const Overlap touched(y, p.stamp_height, p.height);
                if (touched.empty() || Overlap(x, p.stamp_width, p.width).empty())
                    continue;
                const std::int64_t last = (y + touched.last - 1) / rows;
                for (std::int64_t band = (y + touched.first) / rows; band <= last; ++band)
                    visit(static_cast<std::size_t>(band), static_cast<std::uint32_t>(n));
            }
        };
        // Each band's count behind its place, summed up, is where the next one begins.
        for_bands([&](std::size_t band, std::uint32_t) { ++first[band + 1]; });
        std::partial_sum(first.begin(), first.end(), first.begin());
        instances.resize(first.back());
        std::vector<std::size_t> next = first;
        for_bands([&](std::size_t band, std::uint32_t n) { instances[next[band]++] = n; });
    }

    std::vector<std::size_t> first;
    std::vector<std::uint32_t> instances;
};

/// The shape for CPUs: one work-item to a band of rows, into which nobody else writes.
void stamp_by_band(sycl::queue& queue, float* heights, float* ids, const float* stamps, const Instance* instances,
                   const Parameters& p) {
    const Bands bands(instances, p);
    const auto first = usm_ptr<std::size_t, 1>::input(bands.first.size(), queue, bands.first.data());
    const auto list = usm_ptr<std::uint32_t, 1>::input(bands.instances.size(), queue, bands.instances.data());
    queue.parallel_for(sycl::range<1>(bands.first.size() - 1), [=, first = first.data(),
                                                                list = list.data()](sycl::id<1> band) {
        const std::int64_t top = static_cast<std::int64_t>(band[0]) * Bands::rows;
        const std::int64_t bottom = minimum<std::int64_t>(top + Bands::rows, p.height);
        for (std::size_t k = first[band[0]]; k < first[band[0] + 1]; ++k) {
            const std::uint32_t n = list[k];
            const Instance& instance = instances[n];
            const std::int64_t x = stamp_start(instance.position.x, p.stamp_width);
            const std::int64_t y = stamp_start(instance.position.y, p.stamp_height);
            const Overlap columns(x, p.stamp_width, p.width);
            const float* const stamp = stamps + std::size_t{instance.stamp} * static_cast<std::size_t>(p.stamp_width) *
                                                    static_cast<std::size_t>(p.stamp_height);
            for (std::int64_t row = maximum(y, top); row < minimum<std::int64_t>(y + p.stamp_height, bottom); ++row) {
                const std::ptrdiff_t cell = row * p.width + x + columns.first;
                raise_cells(heights + cell, ids + cell, stamp + (row - y) * p.stamp_width + columns.first,
                            columns.last - columns.first, instance.height, instance_id(n));
            }
        }
    });
}

void find_base_heights(sycl::queue& queue, const float* heights, Instance* instances, const Parameters& parameters) {
    queue.parallel_for(sycl::range<1>(static_cast<std::size_t>(parameters.instance_count)),
                       [=, width = parameters.width, height = parameters.height](sycl::id<1> n) {
                           instances[n[0]].height =
                               bilinear(heights, width, height, instances[n[0]].position.x, instances[n[0]].position.y);
                       });
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
    const auto stamp_list = usm_ptr<float, 2>::input(stamps_extent.shape(), queue, stamps);
    if (count == 0)
        return;
    // The first kernel is done before the second starts, so every base height is that of the terrain as it came.
    find_base_heights(queue, height_grid.data(), instance_list.data(), parameters);
    if (queue.get_device().is_cpu())
        stamp_by_band(queue, height_grid.data(), id_grid.data(), stamp_list.data(), instance_list.data(), parameters);
    else
        stamp_by_cell(queue, height_grid.data(), id_grid.data(), stamp_list.data(), instance_list.data(), parameters);
}

} // namespace tarn::stamp_instancer
