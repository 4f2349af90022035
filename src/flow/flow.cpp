#include "flow/flow.hpp"

#include <algorithm>

#include "flow/flow_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "grid/launch_lanes.hpp"

namespace tarn::flow {

namespace {

constexpr std::uint32_t short_steps = 16;
static_assert(short_steps <= TiledStarts::reach);

} // namespace

Flow::Flow(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
           const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue), parameters_(parameters),
      extent_(static_cast<std::size_t>(parameters.height), static_cast<std::size_t>(parameters.width)),
      heights_(create_input(grids.heights, extent_, queue_)), work_heights_(extent_),
      flow_map_(create_buffer(grids.flow_map, extent_, queue_, true)), hits_(extent_),
      mask_(create_input(grids.mask, extent_, queue_)) {}

void Flow::process() {
    copy(queue_, heights_, work_heights_);
    fill_pits(work_heights_, queue_);
    if (tracker_.ask())
        return;

    std::vector<Point> particles = seed_particles(mask_, extent_, parameters_.seed);
    if (particles.empty() || tracker_.ask())
        return;
    shuffle_particles(particles, parameters_.seed);
    if (tracker_.ask())
        return;
    auto directions = create_direction_buffer(parameters_.seed);
    fill(queue_, flow_map_, 0.0f);
    fill(queue_, hits_, 0u);

    tracker_.add_total(64.0); // the batches come to 32: the report runs up to 50 %
    const TrailLengths lengths(parameters_.width, parameters_.flow_length);
    const auto long_steps = static_cast<std::uint32_t>(lengths.longest);
    const bool is_cpu = queue_.get_device().is_cpu();
    for (const Batch& batch : plan_batches(static_cast<std::uint32_t>(particles.size()), extent_.size(), lengths)) {
        const TiledStarts short_trails(extent_, particles, batch.start, batch.short_count);
        const TiledStarts long_trails(extent_, particles, batch.start + batch.short_count, batch.long_count);
        if (is_cpu)
            trace_in_tiles(short_trails, short_steps, directions);
        else
            trace_together(short_trails, short_steps, directions);
        trace_together(long_trails, long_steps, directions);
        if (tracker_.cancelled)
            break;
        fold(batch.norm);
        tracker_.add(1.0);
        if (tracker_.cancelled)
            break;
    }
}

void Flow::trace_together(const TiledStarts& tiles, std::uint32_t steps, sycl::buffer<float, 1>& directions) {
    const auto count = static_cast<std::uint32_t>(tiles.starts.size());
    if (count == 0)
        return;
    auto starts = create_list_buffer(tiles.starts, queue_);
    const std::uint32_t at_once = std::max(most_steps_at_once / steps, trail_block);
    for (std::uint32_t start = 0; start < count && !tracker_.ask(); start += at_once) {
        queue_.submit([&](sycl::handler& handler) {
            const Reader<Start, 1> points = read(starts, handler);
            const Reader<float, 1> table = read(directions, handler);
            const Reader<float> heights = read(work_heights_, handler);
            const Updater<std::uint32_t> hits = update(hits_, handler);
            launch_lanes(launch_on(handler, queue_), std::min(at_once, count - start), trail_block,
                         [=, seed = parameters_.seed, columns = parameters_.width,
                          rows = parameters_.height](std::uint32_t first, std::uint32_t last, auto lanes) {
                             trace<lanes.value, true>(elements_of(points), start + first, start + last, seed, steps,
                                                      {cells_of(heights), columns, rows}, elements_of(table),
                                                      cells_of(hits));
                         });
        });
    }
}

void Flow::trace_in_tiles(const TiledStarts& tiles, std::uint32_t steps, sycl::buffer<float, 1>& directions) {
    if (tiles.starts.empty())
        return;
    auto starts = create_list_buffer(tiles.starts, queue_);
    auto begins = create_list_buffer(tiles.begins, queue_);
    // Every second tile of every second row at once: their trails keep apart.
    for (std::uint32_t corner = 0; corner < 4 && !tracker_.ask(); ++corner) {
        const std::uint32_t left = corner % 2, top = corner / 2;
        const std::uint32_t across = (tiles.columns - left + 1) / 2, down = (tiles.rows - top + 1) / 2;
        if (across * down == 0)
            continue;
        queue_.submit([&](sycl::handler& handler) {
            const Reader<Start, 1> points = read(starts, handler);
            const Reader<std::uint32_t, 1> ends = read(begins, handler);
            const Reader<float, 1> table = read(directions, handler);
            const Reader<float> heights = read(work_heights_, handler);
            const Updater<std::uint32_t> hits = update(hits_, handler);
            handler.parallel_for(sycl::range<1>(across * down), [=, tile_columns = tiles.columns,
                                                                 seed = parameters_.seed, columns = parameters_.width,
                                                                 rows = parameters_.height](sycl::id<1> item) {
                const auto i = static_cast<std::uint32_t>(item[0]);
                const std::uint32_t tile = (2 * (i / across) + top) * tile_columns + 2 * (i % across) + left;
                trace<cpu_lanes, false>(elements_of(points), ends[tile], ends[tile + 1], seed, steps,
                                        {cells_of(heights), columns, rows}, elements_of(table), cells_of(hits));
            });
        });
    }
}

void Flow::fold(float norm) {
    queue_.submit([&](sycl::handler& handler) {
        const Updater<float> map = update(flow_map_, handler), work = update(work_heights_, handler);
        const Updater<std::uint32_t> hits = update(hits_, handler);
        launch_cells(launch_on(handler, queue_), Extent<2>(extent_), 0,
                     [=, columns = static_cast<std::ptrdiff_t>(extent_[1]),
                      feedback = parameters_.spread * 1e-5f](int x, int y, auto) {
                         const std::ptrdiff_t i = y * columns + x;
                         const float visits = counted(cells_of(hits)[i]);
                         cells_of(map)[i] += saturated(visits * norm);
                         cells_of(work)[i] += visits * feedback;
                         cells_of(hits)[i] = 0;
                     });
    });
}

} // namespace tarn::flow
