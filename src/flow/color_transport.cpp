#include "flow/color_transport.hpp"

#include <algorithm>
#include <cmath>

#include "flow/color_transport_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "grid/launch_lanes.hpp"

namespace tarn::color_transport {

namespace {

/// How many trails a CPU's work-item walks.
constexpr std::uint32_t trail_block = 128;
/// How many steps a launch may take at most, since the host is not asked whether to cancel before it ends.
constexpr std::uint32_t most_steps_at_once = 1u << 23;
/// With them a run takes the memory that it tells its host.
constexpr std::uint32_t most_planes = 2;

} // namespace

float prior_weight(float persistence) {
    return maximum(16.0f / (persistence + 0.1f) - 14.0f, 0.0f);
}

float pick_distance(float transport, std::size_t rows) {
    const auto height = static_cast<float>(rows);
    float distance = (std::exp(transport * 5.0f) - 1.0f) * height / (std::exp(5.0f) - 1.0f);
    if (transport >= 0.95f)
        distance += (transport - 0.95f) * (transport - 0.95f) * 400.0f * height;
    return distance;
}

ColorTransport::ColorTransport(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
                               const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue), parameters_(parameters),
      extent_(static_cast<std::size_t>(parameters.height), static_cast<std::size_t>(parameters.width)),
      heights_(create_input(grids.heights, extent_, queue_)), work_heights_(extent_),
      red_(create_buffer(grids.red, extent_, queue_, true)), green_(create_buffer(grids.green, extent_, queue_, true)),
      blue_(create_buffer(grids.blue, extent_, queue_, true)), loads_(extent_),
      mask_(create_input(grids.mask, extent_, queue_)), length_map_(create_input(grids.length_map, extent_, queue_)),
      planes_(queue_.get_device(), extent_, most_planes) {}

void ColorTransport::process() {
    copy(queue_, heights_, work_heights_);
    flow::fill_pits(work_heights_, queue_);
    if (tracker_.ask())
        return;

    std::vector<Point> particles = flow::seed_particles(mask_, extent_, parameters_.seed);
    if (particles.empty() || tracker_.ask())
        return;
    flow::shuffle_particles(particles, parameters_.seed);
    if (tracker_.ask())
        return;
    auto particle_buffer = flow::create_list_buffer(particles, queue_);
    auto directions = flow::create_direction_buffer(parameters_.seed, parameters_.straight_trails != 0);
    fill(queue_, loads_, Load{});
    planes_.clear(queue_);

    tracker_.add_total(32.0);
    const flow::TrailLengths lengths(parameters_.width, parameters_.flow_length);
    for (const flow::Batch& batch :
         flow::plan_batches(static_cast<std::uint32_t>(particles.size()), extent_.size(), lengths)) {
        color_transport_full(particle_buffer, batch.start, batch.short_count, lengths.shortest, directions);
        color_transport_full(particle_buffer, batch.start + batch.short_count, batch.long_count, lengths.longest,
                             directions);
        if (tracker_.cancelled)
            break;
        fold(batch.norm);
        tracker_.add(1.0);
        if (tracker_.cancelled)
            break;
    }
}

void ColorTransport::color_transport_full(sycl::buffer<Point, 1>& particles, std::uint32_t start, std::uint32_t count,
                                          float steps, sycl::buffer<float, 1>& directions) {
    const Walk walk{steps, pick_distance(parameters_.transport, extent_[0]), parameters_.seed};
    const auto at_once = std::max(most_steps_at_once / static_cast<std::uint32_t>(steps), trail_block);
    const std::uint32_t end = start + count;
    for (; start < end && !tracker_.ask(); start += at_once) {
        queue_.submit([&](sycl::handler& handler) {
            const Reader<Point, 1> points = read(particles, handler);
            const Reader<float, 1> table = read(directions, handler);
            const Reader<float> heights = read(work_heights_, handler), length_map = read(length_map_, handler);
            const Reader<float> red = read(red_, handler), green = read(green_, handler), blue = read(blue_, handler);
            const Updater<Load> loads = update(loads_, handler), planes = update(planes_.cells, handler);
            const Updater<std::uint32_t> taken = update(planes_.taken, handler);
            launch_lanes(
                launch_on(handler, queue_), std::min(at_once, end - start), trail_block,
                [=, has_length_map = length_map_.size() != 1, columns = parameters_.width, rows = parameters_.height,
                 plane_count = planes_.count,
                 plane_size = planes_.size](std::uint32_t first, std::uint32_t last, auto lanes) {
                    const auto carry = [&](const auto& into) {
                        carry_colors<lanes.value>(elements_of(points), start + first, start + last, walk,
                                                  {cells_of(heights), columns, rows},
                                                  {cells_of(red), cells_of(green), cells_of(blue)}, elements_of(table),
                                                  has_length_map ? cells_of(length_map) : nullptr, into);
                    };
                    const SharedLoads<(lanes.value > 1)> shared{cells_of(loads)};
                    if constexpr (lanes.value > 1)
                        flow::Planes<Load>{cells_of(planes), cells_of(taken), plane_count, plane_size}.with_one(
                            [&](Load* plane) { plane != nullptr ? carry(PlaneLoads{plane}) : carry(shared); });
                    else
                        carry(shared);
                });
        });
    }
}

void ColorTransport::fold(float norm) {
    const Mix mix{norm, prior_weight(parameters_.persistence), parameters_.blend};
    planes_.with_count([&](auto plane_count) {
        queue_.submit([&](sycl::handler& handler) {
            const Updater<float> red = update(red_, handler), green = update(green_, handler);
            const Updater<float> blue = update(blue_, handler), work = update(work_heights_, handler);
            const Updater<Load> loads = update(loads_, handler), planes = update(planes_.cells, handler);
            launch_cells(launch_on(handler, queue_), Extent<2>(extent_), 0,
                         [=, columns = static_cast<std::ptrdiff_t>(extent_[1]),
                          plane_size = static_cast<std::ptrdiff_t>(planes_.size),
                          feedback = parameters_.spread * 1e-5f](int x, int y, auto) {
                             const std::ptrdiff_t i = y * columns + x;
                             Load load = cells_of(loads)[i];
                             cells_of(loads)[i] = Load{};
                             for (int plane = 0; plane < plane_count.value; ++plane) {
                                 add_load(load, cells_of(planes)[plane * plane_size + i]);
                                 cells_of(planes)[plane * plane_size + i] = Load{};
                             }
                             const float visits = flow::counted(load.hits);
                             if (visits > 0.0f) {
                                 const float share = 1.0f / (visits * mix.norm + mix.prior);
                                 float& r = cells_of(red)[i];
                                 float& g = cells_of(green)[i];
                                 float& b = cells_of(blue)[i];
                                 r = mixed(r, load.sum.red, share, mix);
                                 g = mixed(g, load.sum.green, share, mix);
                                 b = mixed(b, load.sum.blue, share, mix);
                             }
                             cells_of(work)[i] += visits * feedback;
                         });
        });
    });
}

} // namespace tarn::color_transport
