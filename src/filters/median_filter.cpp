#include "filters/median_filter.hpp"

#include <utility>

#include "device/usm_ptr.hpp"
#include "filters/median_filter_kernels.hpp"
#include "grid/access.hpp"
#include "grid/launch_cells.hpp"

namespace tarn::median_filter {

namespace {

using Buffer = sycl::buffer<float, 2>;

/// One pass in the shape for GPUs: a work-group to a tile, whose cells and their surroundings go through local memory,
/// and a private array that each work-item sorts.
template <int capacity>
void launch_tiles(sycl::queue& queue, Buffer& from, Buffer& to, int side, int radius) {
    queue.submit([&](sycl::handler& handler) {
        const int reach = 2 * radius + tile_side;
        const auto cells = static_cast<std::size_t>(side);
        const auto tile_cells = static_cast<std::size_t>(reach);
        const auto input = read(from, handler);
        const auto output = overwrite(to, handler);
        const sycl::local_accessor<float, 2> tile(sycl::range<2>(tile_cells, tile_cells), handler);
        handler.parallel_for(
            sycl::nd_range<2>(sycl::range<2>(cells, cells), sycl::range<2>(tile_side, tile_side)),
            [=](sycl::nd_item<2> item) {
                const int lx = static_cast<int>(item.get_local_id(1));
                const int ly = static_cast<int>(item.get_local_id(0));
                const int x = static_cast<int>(item.get_global_id(1));
                const int y = static_cast<int>(item.get_global_id(0));
                // Each work-item loads all it reads. Where they overlap they write equal values.
                for (int dy = -radius; dy <= radius; ++dy)
                    for (int dx = -radius; dx <= radius; ++dx)
                        tile[ly + radius + dy][lx + radius + dx] =
                            input[clamp_index(y + dy, side)][clamp_index(x + dx, side)];
                sycl::group_barrier(item.get_group());

                float entries[capacity];
                int count = 0;
                for_disc(radius, [&](int dx, int dy) { entries[count++] = tile[ly + radius + dy][lx + radius + dx]; });
                for (int n = count; n < capacity; ++n)
                    entries[n] = padding;
                sort_bitonic<capacity>(entries);
                const int middle = count / 2;
                output[item.get_global_id()] = middle_mean(entries[middle - 1], entries[middle], entries[middle + 1]);
            });
    });
}

/// One pass in the shape for CPUs: the same cells' samples side by side in vectors, and as much of a sort as the middle
/// needs.
template <int capacity>
void launch_lanes(sycl::queue& queue, Buffer& from, Buffer& to, int side, int radius,
                  const usm_ptr<Comparator, 1>& network) {
    queue.submit([&](sycl::handler& handler) {
        const auto cells = static_cast<std::size_t>(side);
        const auto input = read(from, handler);
        const auto output = overwrite(to, handler);
        handler.parallel_for(sycl::range<2>(cells, cells / Lanes::count), [=, comparators = network.data(),
                                                                           count = network.size()](sycl::id<2> index) {
            filter_lanes<capacity>(cells_of(input), cells_of(output), side, static_cast<int>(index[1]) * Lanes::count,
                                   static_cast<int>(index[0]), radius, comparators, count);
        });
    });
}

/// Batcher's odd-even merge sort (1968), for any number of entries.
std::vector<Comparator> sorting_network(int count) {
    std::vector<Comparator> network;
    for (int p = 1; p < count; p *= 2)
        for (int k = p; k >= 1; k /= 2)
            for (int j = k % p; j + k < count; j += 2 * k)
                for (int i = 0; i < k && i + j + k < count; ++i)
                    if ((i + j) / (2 * p) == (i + j + k) / (2 * p))
                        network.push_back({static_cast<std::uint16_t>(i + j), static_cast<std::uint16_t>(i + j + k)});
    return network;
}

int samples_in_disc(int radius) {
    int count = 0;
    for_disc(radius, [&](int, int) { ++count; });
    return count;
}

} // namespace

std::vector<Comparator> selection_network(int count) {
    const int middle = count / 2;
    std::vector<bool> is_needed(static_cast<std::size_t>(count), false);
    for (int n = middle - 1; n <= middle + 1; ++n)
        is_needed[static_cast<std::size_t>(n)] = true;
    // From the last comparator back: those stay that reach a place which is read later.
    const std::vector<Comparator> sorting = sorting_network(count);
    std::vector<Comparator> network;
    for (auto comparator = sorting.rbegin(); comparator != sorting.rend(); ++comparator) {
        if (!is_needed[comparator->low] && !is_needed[comparator->high])
            continue;
        is_needed[comparator->low] = is_needed[comparator->high] = true;
        network.push_back(*comparator);
    }
    return {network.rbegin(), network.rend()};
}

template <int capacity>
void filter(sycl::queue& queue, float* data, const Parameters& parameters) {
    const int side = static_cast<int>(parameters.resolution);
    const int radius = minimum(parameters.radius, largest_radius);
    const bool is_cpu = queue.get_device().is_cpu();

    std::vector<Comparator> network;
    if (is_cpu)
        network = selection_network(samples_in_disc(radius));
    const usm_ptr<Comparator, 1> comparators(sycl::range<1>(network.size()), queue, network.data(), false, true);

    const sycl::range<2> shape(parameters.resolution, parameters.resolution);
    Buffer a = create_buffer(data, shape, queue, true);
    Buffer b(shape);
    for (std::uint32_t pass = 0; pass < parameters.iterations; ++pass) {
        if (is_cpu)
            launch_lanes<capacity>(queue, a, b, side, radius, comparators);
        else
            launch_tiles<capacity>(queue, a, b, side, radius);
        std::swap(a, b);
    }
    if (parameters.iterations % 2 == 1) {
        // The result stands in the scratch buffer, and `b` is the one over the caller's memory.
        queue.submit([&](sycl::handler& handler) {
            const auto result = read(a, handler);
            const auto target = overwrite(b, handler);
            handler.parallel_for(shape, [=](sycl::id<2> index) { target[index] = result[index]; });
        });
    }
}

template void filter<256>(sycl::queue& queue, float* data, const Parameters& parameters);

} // namespace tarn::median_filter
