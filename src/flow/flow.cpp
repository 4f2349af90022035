#include "flow/flow.hpp"

#include "flow/flow_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"

namespace tarn::flow {

namespace {

constexpr std::uint32_t short_steps = 16;

} // namespace

Flow::Flow(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
           const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue), parameters_(parameters),
      extent_(static_cast<std::size_t>(parameters.height), static_cast<std::size_t>(parameters.width)),
      heights_(create_buffer(const_cast<float*>(grids.heights), extent_, queue_, false)), work_heights_(extent_),
      flow_map_(create_buffer(grids.flow_map, extent_, queue_, true)), hits_(extent_),
      mask_(create_buffer(const_cast<float*>(grids.mask), extent_, queue_, false)) {}

void Flow::process() {
    copy(queue_, heights_, work_heights_);
    fill_pits(work_heights_, queue_);

    std::vector<Point> particles = seed_particles(mask_, extent_, parameters_.seed);
    if (particles.empty())
        return;
    shuffle_particles(particles, parameters_.seed);
    auto particle_buffer = create_particle_buffer(particles, queue_);
    auto directions = create_direction_buffer(parameters_.seed);
    fill(queue_, flow_map_, 0.0f);
    fill(queue_, hits_, 0.0f);

    tracker_.add_total(64.0); // the batches come to 32: the report runs up to 50 %
    const TrailLengths lengths(parameters_.width, parameters_.flow_length);
    const auto long_steps = static_cast<std::uint32_t>(lengths.longest);
    for (const Batch& batch : plan_batches(static_cast<std::uint32_t>(particles.size()), extent_.size(), lengths)) {
        flow(particle_buffer, batch.start, batch.short_count, short_steps, directions);
        flow(particle_buffer, batch.start + batch.short_count, batch.long_count, long_steps, directions);
        fold(batch.norm);
        tracker_.add(1.0);
        if (tracker_.cancelled)
            break;
    }
}

void Flow::flow(sycl::buffer<Point, 1>& particles, std::uint32_t start, std::uint32_t count, std::uint32_t steps,
                sycl::buffer<float, 1>& directions) {
    if (count == 0)
        return;
    queue_.submit([&](sycl::handler& handler) {
        const Reader<Point, 1> points = read(particles, handler);
        const Reader<float, 1> table = read(directions, handler);
        const Reader<float> heights = read(work_heights_, handler);
        const Updater<float> hits = update(hits_, handler);
        launch_particles(handler, queue_, start, count,
                         [=, seed = parameters_.seed, columns = parameters_.width,
                          rows = parameters_.height](std::uint32_t first, std::uint32_t last, auto lanes) {
                             trace<lanes.value>(elements_of(points), first, last, seed, steps,
                                                {cells_of(heights), columns, rows}, elements_of(table), cells_of(hits));
                         });
    });
}

void Flow::fold(float norm) {
    queue_.submit([&](sycl::handler& handler) {
        const Updater<float> map = update(flow_map_, handler), work = update(work_heights_, handler);
        const Updater<float> hits = update(hits_, handler);
        launch_cells(launch_on(handler, queue_), Extent<2>(extent_), 0,
                     [=, columns = static_cast<std::ptrdiff_t>(extent_[1]),
                      feedback = parameters_.spread * 1e-5f](int x, int y, auto) {
                         const std::ptrdiff_t i = y * columns + x;
                         const float visits = cells_of(hits)[i];
                         cells_of(map)[i] += saturated(visits * norm);
                         cells_of(work)[i] += visits * feedback;
                         cells_of(hits)[i] = 0.0f;
                     });
    });
}

} // namespace tarn::flow
