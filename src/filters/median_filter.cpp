#include "filters/median_filter.hpp"

#include <array>
#include <bit>
#include <utility>
#include <vector>

#include "device/usm_ptr.hpp"
#include "filters/median_filter_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"

namespace tarn::median_filter {

namespace {

using Buffer = sycl::buffer<float, 2>;

/// One pass in the shape for GPUs: a work-group to a tile, whose cells and their surroundings go through local memory,
/// and a private array that each work-item sorts.
template <int capacity>
void filter_by_tile(sycl::queue& queue, Buffer& from, Buffer& to, int side, int radius) {
    queue.submit([&](sycl::handler& handler) {
        const auto cells = static_cast<std::size_t>(side);
        const int reach = 2 * radius + tile_side;
        const auto input = read(from, handler);
        const auto output = overwrite(to, handler);
        const sycl::local_accessor<float, 1> local(sycl::range<1>(static_cast<std::size_t>(reach * reach)), handler);
        handler.parallel_for(sycl::nd_range<2>(sycl::range<2>(cells, cells), sycl::range<2>(tile_side, tile_side)),
                             [=](sycl::nd_item<2> item) {
                                 const auto index = [&](int axis) {
                                     return static_cast<int>(item.get_global_id(axis));
                                 };
                                 const int x = index(1), y = index(0);
                                 const int lx = x % tile_side, ly = y % tile_side;
                                 float* const tile = &local[sycl::id<1>(0)];
                                 for (int n = ly * tile_side + lx; n < reach * reach; n += tile_side * tile_side) {
                                     const int column = clamp_index(x - lx - radius + n % reach, side);
                                     const int row = clamp_index(y - ly - radius + n / reach, side);
                                     tile[n] = cells_of(input)[static_cast<std::ptrdiff_t>(row) * side + column];
                                 }
                                 sycl::group_barrier(item.get_group());

                                 float entries[capacity];
                                 int count = 0;
                                 for_disc(radius, [&](int dx, int dy) {
                                     entries[count++] = tile[(ly + radius + dy) * reach + lx + radius + dx];
                                 });
                                 for (int n = count; n < capacity; ++n)
                                     entries[n] = padding;
                                 sort_bitonic<capacity>(entries);
                                 const int middle = count / 2;
                                 cells_of(output)[static_cast<std::ptrdiff_t>(y) * side + x] =
                                     middle_mean(entries[middle - 1], entries[middle], entries[middle + 1]);
                             });
    });
}

/// One pass in the shape for CPUs: a work-item to a block of cells, whose samples stand side by side in vectors.
template <int capacity>
void filter_by_block(sycl::queue& queue, Buffer& from, Buffer& to, int side, const Selection& selection) {
    queue.submit([&](sycl::handler& handler) {
        const auto cells = static_cast<std::size_t>(side);
        const auto input = read(from, handler);
        const auto output = overwrite(to, handler);
        handler.parallel_for(sycl::range<2>(cells / Selection::rows, cells / Lanes::count), [=](sycl::id<2> index) {
            filter_block<capacity>(cells_of(input), cells_of(output), side, static_cast<int>(index[1]) * Lanes::count,
                                   static_cast<int>(index[0]) * Selection::rows, selection);
        });
    });
}

/// Comparators that sort `count` entries, of which the first `sorted` are in order already, as far as those from number
/// `first` to `last`, both included: Batcher's odd-even merge sort (1968), without what nobody asks for.
std::vector<Comparator> partial_sort(int sorted, int count, int first, int last) {
    // The last merge is that of the sorted entries with the others: it has to lie between them. Smaller entries may be
    // thought of before them all, and larger ones behind, which no comparator moves.
    const auto half = static_cast<int>(std::bit_ceil(static_cast<unsigned>(maximum(sorted, count - sorted))));
    const int begin = half - sorted, end = begin + count;
    std::vector<std::array<int, 2>> network;
    for (int p = 1; p <= half; p *= 2)
        for (int k = p; k >= 1; k /= 2)
            for (int j = k % p; j + k < 2 * half; j += 2 * k)
                for (int i = j; i < minimum(j + k, 2 * half - k); ++i)
                    if (i / (2 * p) == (i + k) / (2 * p) && i >= begin && i + k < end && (p == half || i >= half))
                        network.push_back({i - begin, i + k - begin});
    // From the last comparator back: those stay that reach a place which is read later.
    std::vector<bool> is_needed(static_cast<std::size_t>(count), false);
    for (int n = first; n <= last; ++n)
        is_needed[static_cast<std::size_t>(n)] = true;
    std::vector<Comparator> needed;
    for (auto comparator = network.rbegin(); comparator != network.rend(); ++comparator) {
        const auto low = static_cast<std::size_t>((*comparator)[0]), high = static_cast<std::size_t>((*comparator)[1]);
        if (!is_needed[low] && !is_needed[high])
            continue;
        is_needed[low] = is_needed[high] = true;
        needed.push_back({static_cast<std::uint16_t>(low), static_cast<std::uint16_t>(high)});
    }
    return {needed.rbegin(), needed.rend()};
}

/// A selection and the lists that it points to once they are on the device.
struct SelectionPlan {
    Selection selection{};
    std::vector<Comparator> comparators;
    std::vector<Offset> offsets;
};

SelectionPlan plan_selection(int radius) {
    SelectionPlan plan;
    Selection& selection = plan.selection;
    int disc = 0;
    for_disc(radius, [&](int, int) { ++disc; });
    const int middle = disc / 2;
    // Whether the discs around all of `rows` cells of a column hold what is at an offset from the first cell.
    const auto is_common = [=](int dx, int dy, int rows) {
        return is_in_disc(dx, dy, radius) && is_in_disc(dx, dy - (rows - 1), radius);
    };

    selection.radius = radius;
    int common = 0, first_entry = 0;
    // Ranks among the common samples: of the first entry, and of those that the next stage takes over.
    int first_rank = 0, kept_from = 0, kept_to = -1;
    for (int n = 0; n < Selection::stage_count; ++n) {
        Stage& stage = selection.stages[n];
        stage.rows = Selection::rows >> n;
        stage.inherited = kept_to - kept_from + 1;
        stage.inherited_from = first_entry + kept_from - first_rank;
        for (int half = 0; half < 2; ++half) {
            stage.first_sample[half] = static_cast<int>(plan.offsets.size());
            for_disc(radius, [&](int dx, int dy) {
                if (is_common(dx, dy, stage.rows) && (n == 0 || !is_common(dx, dy + half * stage.rows, 2 * stage.rows)))
                    plan.offsets.push_back({static_cast<std::int16_t>(dx), static_cast<std::int16_t>(dy)});
            });
            stage.samples = static_cast<int>(plan.offsets.size()) - stage.first_sample[half];
        }
        common += stage.samples;
        first_entry = stage.first_entry = n == 0 ? 0 : first_entry + entries_of(selection.stages[n - 1]);
        first_rank = kept_from;
        // The samples still to come may all be larger, or all smaller.
        kept_from = maximum(middle - 1 - (disc - common), 0);
        kept_to = minimum(middle + 1, common - 1);
        const std::vector<Comparator> network =
            partial_sort(stage.inherited, entries_of(stage), kept_from - first_rank, kept_to - first_rank);
        stage.first_comparator = static_cast<int>(plan.comparators.size());
        stage.comparators = static_cast<int>(network.size());
        plan.comparators.insert(plan.comparators.end(), network.begin(), network.end());
    }
    selection.middle = first_entry + middle - first_rank;
    return plan;
}

} // namespace

template <int capacity>
void filter(sycl::queue& queue, float* data, const Parameters& parameters) {
    const int side = static_cast<int>(parameters.resolution);
    const int radius = minimum(parameters.radius, largest_radius);
    const bool is_cpu = queue.get_device().is_cpu();

    SelectionPlan plan;
    if (is_cpu)
        plan = plan_selection(radius);
    const auto comparators = usm_ptr<Comparator, 1>::input(plan.comparators.size(), queue, plan.comparators.data());
    const auto offsets = usm_ptr<Offset, 1>::input(plan.offsets.size(), queue, plan.offsets.data());
    plan.selection.comparators = comparators.data();
    plan.selection.offsets = offsets.data();

    const sycl::range<2> shape(parameters.resolution, parameters.resolution);
    Buffer a = create_buffer(data, shape, queue, true);
    Buffer b(shape);
    const std::uint32_t iterations = minimum(parameters.iterations, most_iterations);
    for (std::uint32_t pass = 0; pass < iterations; ++pass) {
        if (is_cpu)
            filter_by_block<capacity>(queue, a, b, side, plan.selection);
        else
            filter_by_tile<capacity>(queue, a, b, side, radius);
        std::swap(a, b);
    }
    // The result stands in the scratch buffer, and `b` is the one over the caller's memory.
    if (iterations % 2 == 1)
        copy(queue, a, b);
}

template void filter<256>(sycl::queue& queue, float* data, const Parameters& parameters);

} // namespace tarn::median_filter
