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
/// Particles that walk side by side; on CPUs two vectors of them, one of which goes on while the other one waits for
/// its heights.
template <int lanes>
constexpr int walker_lanes = lanes > 1 ? 2 * lanes : 1;
/// How many steps a launch may take at most, since the host is not asked whether to cancel before it ends.
constexpr std::uint32_t most_steps_at_once = 1u << 24;
constexpr std::uint32_t most_planes = 8;
/// How many trails a CPU's work-item walks. At the end of a block lanes run empty: it is as long as there are blocks
/// for all threads.
constexpr std::uint32_t trail_block(int planes) {
    return 1024u / static_cast<std::uint32_t>(std::max(planes, 1));
}

} // namespace

Flow::Flow(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
           const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue), parameters_(parameters),
      extent_(static_cast<std::size_t>(parameters.height), static_cast<std::size_t>(parameters.width)),
      heights_(create_input(grids.heights, extent_, queue_)), work_heights_(extent_),
      flow_map_(create_buffer(grids.flow_map, extent_, queue_, true)), hits_(extent_),
      mask_(create_input(grids.mask, extent_, queue_)),
      planes_(queue_.get_device(), sycl::range<2>(extent_[0] + 1, extent_[1]), most_planes) {}

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
    planes_.clear(queue_);

    tracker_.add_total(64.0); // the batches come to 32: the report runs up to 50 %
    const TrailLengths lengths(parameters_.width, parameters_.flow_length);
    const auto long_steps = static_cast<std::uint32_t>(lengths.longest);
    for (const Batch& batch : plan_batches(static_cast<std::uint32_t>(particles.size()), extent_.size(), lengths)) {
        trace_trails(particles, batch.start, batch.short_count, short_steps, directions);
        trace_trails(particles, batch.start + batch.short_count, batch.long_count, long_steps, directions);
        if (tracker_.cancelled)
            break;
        fold(batch.norm);
        tracker_.add(1.0);
        if (tracker_.cancelled)
            break;
    }
}

void Flow::trace_trails(const std::vector<Point>& particles, std::uint32_t first_particle, std::uint32_t count,
                        std::uint32_t steps, sycl::buffer<float, 1>& directions) {
    if (count == 0)
        return;
    const std::vector<Start> list = tiled_starts(extent_, particles, first_particle, count);
    auto starts = create_list_buffer(list, queue_);
    const std::uint32_t block = trail_block(planes_.count);
    const std::uint32_t at_once = std::max(most_steps_at_once / steps, block);
    for (std::uint32_t start = 0; start < count && !tracker_.ask(); start += at_once) {
        queue_.submit([&](sycl::handler& handler) {
            const Reader<Start, 1> points = read(starts, handler);
            const Reader<float, 1> table = read(directions, handler);
            const Reader<float> heights = read(work_heights_, handler);
            const Updater<std::uint32_t> hits = update(hits_, handler), taken = update(planes_.taken, handler);
            const Updater<std::uint8_t> planes = update(planes_.cells, handler);
            launch_lanes(
                launch_on(handler, queue_), std::min(at_once, count - start), block,
                [=, seed = parameters_.seed, columns = parameters_.width, rows = parameters_.height,
                 plane_count = planes_.count,
                 plane_size = planes_.size](std::uint32_t first, std::uint32_t last, auto lanes) {
                    const auto walk = [&](const auto& counter) {
                        trace<walker_lanes<lanes.value>>(elements_of(points), start + first, start + last, seed, steps,
                                                         {cells_of(heights), columns, rows}, elements_of(table),
                                                         counter);
                    };
                    const SharedCounter shared{cells_of(hits), columns * rows};
                    if constexpr (lanes.value > 1)
                        Planes<std::uint8_t>{cells_of(planes), cells_of(taken), plane_count, plane_size}.with_one(
                            [&](std::uint8_t* plane) {
                                plane != nullptr ? walk(PlaneCounter{plane, shared}) : walk(shared);
                            });
                    else
                        walk(shared);
                });
        });
    }
}

void Flow::fold(float norm) {
    planes_.with_count([&](auto plane_count) {
        queue_.submit([&](sycl::handler& handler) {
            const Updater<float> map = update(flow_map_, handler), work = update(work_heights_, handler);
            const Updater<std::uint32_t> hits = update(hits_, handler);
            const Updater<std::uint8_t> planes = update(planes_.cells, handler);
            launch_cells(launch_on(handler, queue_), Extent<2>(extent_), 0,
                         [=, columns = static_cast<std::ptrdiff_t>(extent_[1]),
                          plane_size = static_cast<std::ptrdiff_t>(planes_.size),
                          feedback = parameters_.spread * 1e-5f](int x, int y, auto) {
                             const std::ptrdiff_t i = y * columns + x;
                             std::uint32_t sum = cells_of(hits)[i];
                             for (int plane = 0; plane < plane_count.value; ++plane) {
                                 sum += cells_of(planes)[plane * plane_size + i];
                                 cells_of(planes)[plane * plane_size + i] = 0;
                             }
                             const float visits = counted(sum);
                             cells_of(map)[i] += saturated(visits * norm);
                             cells_of(work)[i] += visits * feedback;
                             cells_of(hits)[i] = 0;
                         });
        });
    });
}

} // namespace tarn::flow
