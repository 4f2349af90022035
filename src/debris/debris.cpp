#include "debris/debris.hpp"

#include <algorithm>
#include <vector>

#include "debris/debris_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "grid/launch_lanes.hpp"

namespace tarn::debris {

namespace {

/// Most work-items of one launch: implementations may number them with an int.
constexpr std::uint64_t most_items = 0x7FFFFFFF;

/// All elements 0.
template <class T>
sycl::buffer<T, 1> cleared(std::size_t count) {
    sycl::buffer<T, 1> buffer{sycl::range<1>(count)};
    const sycl::host_accessor elements(buffer, sycl::write_only, sycl::no_init);
    for (std::size_t i = 0; i < count; ++i)
        elements[i] = T{};
    return buffer;
}

Extent<2> extent_of(const Debris::Grid& grid) {
    return Extent<2>(grid.get_range());
}

} // namespace

GlobalContext::GlobalContext(const Parameters& p)
    : parameters(p), resolution(static_cast<int>(p.resolution)),
      cells_per_unit(static_cast<float>(p.resolution) / p.terrain_size),
      units_per_cell(p.terrain_size / static_cast<float>(p.resolution)),
      slope_scale(0.5f * static_cast<float>(p.resolution) * p.terrain_height / p.terrain_size),
      cell(p.terrain_size / (static_cast<float>(p.resolution) * p.terrain_height)) {}

Debris::Debris(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
               const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(&caller_queue), context_(parameters),
      height_(create_buffer(grids.height, sycl::range<2>(parameters.resolution, parameters.resolution), caller_queue,
                            true)),
      rock_id_(create_buffer(grids.rock_id, height_.get_range(), caller_queue, true)),
      coverage_(create_buffer(grids.coverage, height_.get_range(), caller_queue, true)),
      speed_(create_buffer(grids.speed, height_.get_range(), caller_queue, true)),
      sim_(cleared<ParticleSim>(batch_size)), pos_(sycl::range<1>(batch_size)), ren_(sycl::range<1>(batch_size)),
      bodies_(sycl::range<1>(batch_size)), prefix_(sycl::range<1>(batch_size)),
      warp_a_(sycl::range<2>(warp_rows, warp_columns)), warp_b_(warp_a_.get_range()) {
    constexpr std::uint32_t prime = 16777619u;
    generate_warpnoise(warp_a_, ((0x50C5D1Fu ^ parameters.seed) * prime) % 431u);
    generate_warpnoise(warp_b_, ((0x40C5B8Cu ^ parameters.seed) * prime) % 479u);
}

void Debris::run() {
    const auto columns = static_cast<std::ptrdiff_t>(context_.resolution);
    fill(*queue_, rock_id_, 0.0f);
    const std::uint32_t count = context_.parameters.count;
    std::uint32_t state = nonzero_state(context_.parameters.seed);
    for (std::uint64_t first = 0; first < count; first += batch_size) {
        const auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(count - first, batch_size));
        state = xorshift(state);
        place_particles(n, (state * 0x2545F381u - 1u) & 0x7FFFFFFFu);
        simulation_async(n);
        render(n);
    }
    queue_->submit([&](sycl::handler& handler) {
        const auto rock_id = read(rock_id_, handler);
        const auto coverage = overwrite(coverage_, handler);
        launch_cells(launch_on(handler, *queue_), extent_of(rock_id_), 0, [=](int x, int y, auto) {
            cells_of(coverage)[y * columns + x] = cells_of(rock_id)[y * columns + x] > 0.0f ? 1.0f : 0.0f;
        });
    });
    // There is no status that could tell of a device error later: it has to be reported now, and not by the next call.
    queue_->wait_and_throw();
}

void Debris::generate_warpnoise(Grid& grid, std::uint32_t seed) {
    queue_->submit([&](sycl::handler& handler) {
        const auto noise = overwrite(grid, handler);
        launch_cells(launch_on(handler, *queue_), extent_of(grid), 0, [=](int x, int y, auto) {
            cells_of(noise)[y * static_cast<std::ptrdiff_t>(warp_columns) + x] =
                warp_noise(static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y), seed);
        });
    });
}

void Debris::place_particles(std::uint32_t n, std::uint32_t seed) {
    queue_->submit([&](sycl::handler& handler) {
        const auto pos = update(pos_, handler);
        const auto ren = update(ren_, handler);
        const auto sim = update(sim_, handler);
        handler.parallel_for(sycl::range<1>(n), [=, context = context_](sycl::id<1> i) {
            place_particle(static_cast<std::uint32_t>(i[0]), seed, context, pos[i], ren[i], sim[i]);
        });
    });
}

void Debris::simulation_async(std::uint32_t n) {
    queue_->submit([&](sycl::handler& handler) {
        const auto height = read(height_, handler);
        const auto speed = update(speed_, handler);
        const auto pos = update(pos_, handler);
        const auto sim = update(sim_, handler);
        handler.parallel_for(sycl::range<1>(n), [=, context = context_](sycl::id<1> i) {
            // On the work-item's own copies, so that they can stay in registers.
            ParticlePos where = pos[i];
            ParticleSim motion = sim[i];
            simulate(context, cells_of(height), cells_of(speed), where, motion);
            pos[i] = where;
            sim[i] = motion;
        });
    });
}

void Debris::prepare(std::uint32_t n) {
    queue_->submit([&](sycl::handler& handler) {
        const auto height = read(height_, handler);
        const auto pos = read(pos_, handler);
        const auto ren = update(ren_, handler);
        const auto bodies = update(bodies_, handler);
        handler.parallel_for(sycl::range<1>(n), [=, context = context_](sycl::id<1> i) {
            lay_down(context, cells_of(height), pos[i], ren[i]);
            bodies[i].first.init(ren[i].rock_seed, 0.0f);
            bodies[i].second.init(ren[i].rock_seed + 1234u, 0.1f);
        });
    });
}

void Debris::render(std::uint32_t n) {
    prepare(n);
    // Ranges of rocks whose work-items a launch can number; nearly always there is one.
    std::vector<std::uint32_t> starts{0};
    {
        const sycl::host_accessor rocks(ren_, sycl::read_only);
        const sycl::host_accessor prefix(prefix_, sycl::write_only);
        std::uint64_t sum = 0, base = 0;
        for (std::uint32_t i = 0; i < n; ++i) {
            if (sum + rocks[i].pixel_count - base > most_items) {
                starts.push_back(i);
                base = sum;
            }
            sum += rocks[i].pixel_count;
            prefix[i] = sum;
        }
    }
    starts.push_back(n);
    for (std::size_t range = 0; range + 1 < starts.size(); ++range)
        render_sharp(warp_a_, warp_b_, starts[range + 1] - starts[range], starts[range]);
}

void Debris::calculate_work_amount(std::uint64_t& work, std::uint64_t& base, std::uint32_t count, std::uint32_t start) {
    const sycl::host_accessor prefix(prefix_, sycl::read_only);
    base = start == 0 ? 0 : prefix[start - 1];
    work = prefix[start + count - 1] - base;
}

template <class Body>
void Debris::render_bodies(Grid& warp_a, Grid& warp_b, std::uint32_t count, std::uint32_t start) {
    std::uint64_t work, base;
    calculate_work_amount(work, base, count, start);
    if (work == 0)
        return;
    queue_->submit([&](sycl::handler& handler) {
        const auto ren = read(ren_, handler);
        const auto bodies = read(bodies_, handler);
        const auto prefix = read(prefix_, handler);
        const auto noise_a = read(warp_a, handler), noise_b = read(warp_b, handler);
        const auto height = update(height_, handler), rock_id = update(rock_id_, handler);
        constexpr std::uint64_t block = 4096;
        launch_lanes(launch_on(handler, *queue_), work, block,
                     [=, resolution = context_.resolution, cell = context_.cell](std::uint64_t item, std::uint64_t end,
                                                                                 auto lanes) {
                         const RockList rocks{elements_of(ren), elements_of(bodies), elements_of(prefix), start,
                                              start + count - 1};
                         const Warp warp{cells_of(noise_a), cells_of(noise_b)};
                         const Ground ground{cells_of(height), cells_of(rock_id), resolution};
                         draw_items<lanes.value, Body>(rocks, item + base, end + base, cell, warp, ground);
                     });
    });
}

void Debris::render_sharp(Grid& warp_a, Grid& warp_b, std::uint32_t count, std::uint32_t start) {
    render_bodies<SharpBody>(warp_a, warp_b, count, start);
}

void Debris::render_rounded(Grid& warp_a, Grid& warp_b, std::uint32_t count, std::uint32_t start) {
    render_bodies<RoundedBody>(warp_a, warp_b, count, start);
}

} // namespace tarn::debris
