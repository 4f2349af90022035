#include "erosion/parallel_erosion.hpp"

#include <algorithm>
#include <deque>
#include <utility>
#include <vector>

#include "erosion/parallel_erosion_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/pyramid.hpp"
#include "grid/resampling.hpp"
#include "grid/shuffle.hpp"
#include "grid/upsample.hpp"
#include "grid/with_constant.hpp"

namespace tarn::parallel_erosion {

namespace {

/// Particles that walk side by side; on CPUs two vectors of them, one of which goes on while the other one waits for
/// its heights.
template <int lanes>
constexpr int walker_lanes = lanes > 1 ? 2 * lanes : 1;
constexpr std::uint32_t particle_block = walker_lanes<cpu_lanes>;

/// An absent grid has one element, so that kernels can take an accessor to it.
sycl::range<2> one_if_absent(const LaplacianLevel& level, bool is_given) {
    return is_given ? sycl::range<2>(level.rows, level.cols) : sycl::range<2>(1, 1);
}

} // namespace

struct LevelRun {
    LevelRun(LaplacianLevel& run_level, const LevelPlan& level_plan, bool has_spawn_map, bool has_shaping)
        : level(run_level), plan(level_plan), is_on_cpu(level.queue->get_device().is_cpu()),
          most_blocks((plan.particle_count - 1) / particle_block + 1), bands(plan.path, most_blocks),
          cells(sycl::range<2>(level.rows, level.cols)), particles(plan.particle_count),
          particles_next(plan.particle_count), alive_count(1),
          changed(is_on_cpu ? 1 : plan.particle_count * std::size_t{longest_path}),
          wishes(is_on_cpu ? plan.particle_count * std::size_t{longest_path} : 1), band_of_row(level.rows),
          band_starts(is_on_cpu ? most_blocks * bands.starts() : 1), survivors(is_on_cpu ? most_blocks + 1 : 1),
          delta(one_if_absent(level, has_shaping)), reach(one_if_absent(level, has_spawn_map)),
          reach_next(one_if_absent(level, has_spawn_map)) {
        sycl::host_accessor(alive_count, sycl::write_only, sycl::no_init)[0] = 0;
        const sycl::host_accessor first_bands(band_of_row, sycl::write_only, sycl::no_init);
        std::fill_n(&first_bands[0], level.rows, 0u);
        fill(*level.queue, cells, CellState{});
        fill(*level.queue, reach, 0.0f);
    }

    /// Turns the numbers of survivors of `blocks` blocks into their places. The number of all.
    std::uint32_t place_survivors(std::size_t blocks) {
        const sycl::host_accessor list(survivors, sycl::read_write);
        std::uint32_t sum = 0;
        for (std::size_t block = 0; block < blocks; ++block)
            sum += std::exchange(list[block], sum);
        list[blocks] = sum;
        return sum;
    }

    /// Reads the counter, which waits for the kernels before, and sets it back to 0.
    std::uint32_t take_alive_count() {
        const sycl::host_accessor count(alive_count, sycl::read_write);
        return std::exchange(count[0], 0u);
    }

    LaplacianLevel& level;
    LevelPlan plan;
    bool is_on_cpu;
    std::size_t most_blocks;
    Bands bands;
    sycl::buffer<CellState, 2> cells;
    /// The particles of this pass and of the next one.
    sycl::buffer<Particle, 1> particles;
    sycl::buffer<Particle, 1> particles_next;
    /// 0 but between a kernel that counts and the host's look at it.
    sycl::buffer<std::uint32_t, 1> alive_count;
    /// On GPUs: the cells that a pass changes, each once.
    sycl::buffer<std::uint32_t, 1> changed;
    /// On CPUs: the wishes of a pass, `longest_path` a particle, those of each block sorted by bands.
    sycl::buffer<Wish, 1> wishes;
    /// On CPUs: bands have about as many particles each.
    sycl::buffer<std::uint32_t, 1> band_of_row;
    /// On CPUs: where the wishes of each band begin among those of each block.
    sycl::buffer<std::uint16_t, 1> band_starts;
    /// On CPUs: how many particles of each block go on; then the place of the first of them in the next pass, and at
    /// the end the number of all.
    sycl::buffer<std::uint32_t, 1> survivors;
    /// The change that the shaping makes of a cell.
    Grid delta;
    /// How far the flow has reached, from 0 to 1.
    Grid reach;
    Grid reach_next;
};

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, Grid level_height, Grid level_sediment, Grid level_wear,
                               Grid level_spawn_map)
    : queue(&level_queue), rows(level_height.get_range()[0]), cols(level_height.get_range()[1]), parent(nullptr),
      height(std::move(level_height)), sediment(std::move(level_sediment)), wear(std::move(level_wear)),
      detail(sycl::range<2>(rows, cols)), spawn_map(std::move(level_spawn_map)) {
    fill(*queue, sediment, 0.0f);
    fill(*queue, wear, 0.0f);
}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, LaplacianLevel* finer)
    : queue(&level_queue), rows(std::max<std::size_t>(finer->rows / 2, 1)),
      cols(std::max<std::size_t>(finer->cols / 2, 1)), parent(finer),
      height(resampling::next_level(finer->height, level_queue)), sediment(sycl::range<2>(rows, cols)),
      wear(sycl::range<2>(rows, cols)), detail(sycl::range<2>(rows, cols)),
      spawn_map(resampling::next_level(finer->spawn_map, level_queue)) {
    fill(*queue, sediment, 0.0f);
    fill(*queue, wear, 0.0f);
    take_detail(*queue, finer->height, height, finer->detail);
}

void LaplacianLevel::reconstruct_previous_level(const Parameters& parameters) {
    queue->submit([&](sycl::handler& handler) {
        const Reader<float> coarse_height = read(height, handler), coarse_sediment = read(sediment, handler);
        const Reader<float> coarse_wear = read(wear, handler), fine_detail = read(parent->detail, handler);
        const Writer<float> fine_height = overwrite(parent->height, handler);
        const Writer<float> fine_sediment = overwrite(parent->sediment, handler);
        const Writer<float> fine_wear = overwrite(parent->wear, handler);
        launch_fine_cells(launch_on(handler, *queue), parent->extent(), extent(),
                          [=, cell = cell_width(parameters, cols)](std::ptrdiff_t row, int x, const CoarseTaps& taps) {
                              const FoldedCell folded = fold_back(sample_9331(cells_of(coarse_height), taps),
                                                                  sample_9331(cells_of(coarse_sediment), taps),
                                                                  sample_9331(cells_of(coarse_wear), taps),
                                                                  cells_of(fine_detail)[row + x], cell);
                              cells_of(fine_height)[row + x] = folded.height;
                              cells_of(fine_sediment)[row + x] = folded.sediment;
                              cells_of(fine_wear)[row + x] = folded.wear;
                          });
    });
}

namespace {

LaplacianLevel make_root(const Parameters& p, sycl::queue& queue, const CallerGrids& grids) {
    const sycl::range<2> shape(p.Resolution.height, p.Resolution.width);
    Grid spawn_map = create_input(grids.spawn_map, shape, queue);
    Grid wear = create_buffer(grids.wear, shape, queue, true);
    Grid sediment = create_buffer(grids.sediment, shape, queue, true);
    Grid height = create_buffer(grids.height, shape, queue, true);
    return {queue, height, sediment, wear, spawn_map};
}

sycl::buffer<float, 1> create_random_directions(std::uint32_t seed) {
    std::vector<float> coordinates;
    for (const auto& direction : random_directions(seed)) {
        coordinates.push_back(direction.x());
        coordinates.push_back(direction.y());
    }
    return sycl::buffer<float, 1>(coordinates.begin(), coordinates.end());
}

/// After so many passes particles have left the tiles in which they were: they walk up to twelve cells in one.
constexpr int passes_in_a_tile = 5;

/// On CPUs, puts particles that lie in the same tile side by side, so that those of a block find one another's cells in
/// the cache, and cuts the grid into bands. No result depends on either.
void sort_by_place(LevelRun& run, std::uint32_t count) {
    if (count <= cpu_lanes || !run.level.queue->get_device().is_cpu())
        return;
    constexpr float per_tile = 1.0f / 64.0f; // a tile has about as many particles as a CPU has lanes
    const std::uint32_t columns = static_cast<std::uint32_t>(run.level.cols) / 64u + 1u;
    const std::uint32_t rows = static_cast<std::uint32_t>(run.level.rows) / 64u + 1u;
    const auto tile_of = [=](const Particle& p) {
        return static_cast<std::uint32_t>(p.y * per_tile) * columns + static_cast<std::uint32_t>(p.x * per_tile);
    };
    std::vector<std::uint32_t> places(std::size_t{columns} * rows + 1);
    {
        const sycl::host_accessor unsorted(run.particles, sycl::read_only);
        const sycl::host_accessor sorted(run.particles_next, sycl::write_only, sycl::no_init);
        for (std::uint32_t i = 0; i < count; ++i)
            ++places[tile_of(unsorted[i]) + 1];
        for (std::size_t tile = 1; tile < places.size(); ++tile)
            places[tile] += places[tile - 1];
        for (std::uint32_t i = 0; i < count; ++i)
            sorted[places[tile_of(unsorted[i])]++] = unsorted[i];

        std::vector<std::uint32_t> in_row(run.level.rows + 1);
        for (std::uint32_t i = 0; i < count; ++i)
            ++in_row[static_cast<std::size_t>(unsorted[i].y)];
        const sycl::host_accessor band_of_row(run.band_of_row, sycl::write_only, sycl::no_init);
        std::uint64_t before = 0;
        for (std::size_t row = 0; row < run.level.rows; ++row) {
            band_of_row[row] =
                static_cast<std::uint32_t>(before * static_cast<std::uint64_t>(run.bands.count) / (count + 1u));
            before += in_row[row];
        }
    }
    std::swap(run.particles, run.particles_next);
}

} // namespace

ParallelErosion::ParallelErosion(const Parameters& parameters, const Plan& plan, sycl::queue& caller_queue,
                                 const HostCallbacks& record, const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue), parameters_(parameters), plan_(plan),
      flow_(create_buffer(grids.flow, sycl::range<2>(parameters.Resolution.height, parameters.Resolution.width), queue_,
                          true)),
      root_(make_root(parameters, queue_, grids)), directions_(create_random_directions(parameters.seed)) {
    fill(queue_, flow_, 0.0f);
}

bool ParallelErosion::erode() {
    const int coarsest = plan_.level_count - 1;
    const auto add_work = [&](const LaplacianLevel& level, int levels_done) {
        tracker_.add_total(static_cast<double>(level.size()) * rounds(parameters_, plan_, levels_done));
    };
    add_work(root_, coarsest);
    std::deque<LaplacianLevel> levels;
    LaplacianLevel* current = &root_;
    for (int i = 1; i <= coarsest; ++i) {
        current = &levels.emplace_back(queue_, current);
        add_work(*current, coarsest - i);
    }

    int levels_done = 0;
    for (; !levels.empty() && !tracker_.cancelled; ++levels_done) {
        erode_level(*current, levels_done);
        current->reconstruct_previous_level(parameters_);
        current = current->parent;
        levels.pop_back();
    }
    erode_level(*current, levels_done);
    return !tracker_.cancelled;
}

void ParallelErosion::erode_level(LaplacianLevel& level, int levels_done) {
    const LevelPlan plan = plan_level(parameters_, plan_, levels_done, level.cols, level.rows);
    if (plan.rounds == 0 || tracker_.cancelled)
        return;

    const bool has_shaping = parameters_.shaping_strength > 0.0f;
    LevelRun run(level, plan, plan_.has_spawn_map, has_shaping);
    // On fewer rows or columns all places lie in the margins, where a particle ends at its birth.
    const bool has_inside = level.rows > 2 && level.cols > 2;
    std::uint32_t batch_offset = 0;
    for (int round = 0; round < plan.rounds && !tracker_.cancelled; ++round) {
        std::uint32_t count = has_inside ? give_birth(run, batch_offset) : 0;
        for (int pass = 1; count != 0 && pass <= plan.most_passes && !tracker_.ask(); ++pass) {
            count = flow(run, count);
            if (pass % passes_in_a_tile == 0)
                sort_by_place(run, count);
        }
        if (has_shaping && !tracker_.cancelled)
            with_constant(plan_.has_spawn_map, [&](auto with_reach) { shape<with_reach.value>(run); });
        batch_offset += plan.particle_count;
        tracker_.add(static_cast<double>(level.size()));
    }
    if (level.parent == nullptr)
        write_flow(run);
}

std::uint32_t ParallelErosion::give_birth(LevelRun& run, std::uint32_t batch_offset) {
    std::uint32_t count = run.plan.particle_count;
    queue_.submit([&](sycl::handler& handler) {
        const auto particles = overwrite(run.particles, handler);
        const auto alive_count = update(run.alive_count, handler);
        const auto spawn_map = read(run.level.spawn_map, handler);
        handler.parallel_for(sycl::range<1>(count), [=, rule = run.plan.path, seed = parameters_.seed,
                                                     has_map = plan_.has_spawn_map](sycl::id<1> index) {
            const std::uint32_t id = static_cast<std::uint32_t>(index[0]) + batch_offset;
            const Particle particle = newborn(seed, id, rule);
            if (!has_map)
                particles[index] = particle;
            else if (is_born(particle, seed, id, cells_of(spawn_map), rule))
                particles[atomic_add(alive_count[0], 1u)] = particle;
        });
    });
    if (plan_.has_spawn_map)
        count = run.take_alive_count();
    sort_by_place(run, count);
    return count;
}

std::uint32_t ParallelErosion::flow(LevelRun& run, std::uint32_t count) {
    queue_.submit([&](sycl::handler& handler) {
        const auto particles = read(run.particles, handler);
        const auto next = overwrite(run.particles_next, handler);
        const auto alive_count = update(run.alive_count, handler);
        const auto survivors = overwrite(run.survivors, handler);
        const auto changed = overwrite(run.changed, handler);
        const auto wishes = overwrite(run.wishes, handler);
        const auto band_of_row = read(run.band_of_row, handler);
        const auto band_starts = overwrite(run.band_starts, handler);
        const auto cells = update(run.cells, handler);
        const auto height = read(run.level.height, handler);
        const auto directions = read(directions_, handler);
        launch_lanes(launch_on(handler, queue_), count, particle_block,
                     [=, rule = run.plan.path, bands = run.bands](std::uint32_t first, std::uint32_t last, auto lanes) {
                         const int taken = static_cast<int>(last - first);
                         Walkers<walker_lanes<lanes.value>> walkers;
                         walkers.walk_and_carve(elements_of(particles) + first, taken, cells_of(height),
                                                elements_of(directions), rule);
                         const std::uint32_t going_on = walkers.count_survivors();
                         if constexpr (lanes.value > 1) {
                             const std::uint32_t block = first / particle_block;
                             walkers.sort_wishes(taken, bands, elements_of(band_of_row),
                                                 elements_of(wishes) + first * longest_path,
                                                 elements_of(band_starts) + block * bands.starts());
                             elements_of(survivors)[block] = going_on;
                             walkers.store(elements_of(next) + first);
                         } else {
                             walkers.put_down(cells_of(cells), elements_of(changed) + first * longest_path);
                             if (going_on != 0)
                                 walkers.store(elements_of(next) + atomic_add(alive_count[0], going_on));
                         }
                     });
    });
    if (run.is_on_cpu)
        return settle_bands(run, (count - 1) / particle_block + 1);
    queue_.submit([&](sycl::handler& handler) {
        const auto changed = read(run.changed, handler);
        const auto cells = update(run.cells, handler);
        const auto height = update(run.level.height, handler);
        const auto sediment = update(run.level.sediment, handler), wear = update(run.level.wear, handler);
        handler.parallel_for(sycl::range<1>(count), [=](sycl::id<1> particle) {
            settle_listed(elements_of(changed) + particle[0] * longest_path, longest_path, cells_of(cells),
                          {cells_of(height), cells_of(sediment), cells_of(wear)});
        });
    });
    std::swap(run.particles, run.particles_next);
    return run.take_alive_count();
}

std::uint32_t ParallelErosion::settle_bands(LevelRun& run, std::size_t blocks) {
    const std::uint32_t alive = run.place_survivors(blocks);
    queue_.submit([&](sycl::handler& handler) {
        const auto wishes = read(run.wishes, handler);
        const auto band_starts = read(run.band_starts, handler);
        const auto next = read(run.particles_next, handler);
        const auto survivors = read(run.survivors, handler);
        const auto particles = update(run.particles, handler);
        const auto cells = update(run.cells, handler);
        const auto height = update(run.level.height, handler);
        const auto sediment = update(run.level.sediment, handler), wear = update(run.level.wear, handler);
        handler.parallel_for(
            sycl::range<1>(static_cast<std::size_t>(run.bands.count)), [=, bands = run.bands](sycl::id<1> item) {
                settle_band<4 * cpu_lanes>(static_cast<int>(item[0]), bands, blocks, particle_block * longest_path,
                                           elements_of(wishes), elements_of(band_starts), cells_of(cells),
                                           {cells_of(height), cells_of(sediment), cells_of(wear)});
                // Survivors keep their order, and with it the neighbourhood that they have been sorted into.
                const auto band_count = static_cast<std::size_t>(bands.count);
                for (std::size_t block = blocks * item[0] / band_count; block < blocks * (item[0] + 1) / band_count;
                     ++block) {
                    const std::uint32_t* const places = elements_of(survivors) + block;
                    for (std::uint32_t n = 0; places[0] + n < places[1]; ++n)
                        elements_of(particles)[places[0] + n] = elements_of(next)[block * particle_block + n];
                }
            });
    });
    return alive;
}

template <bool with_reach>
void ParallelErosion::shape(LevelRun& run) {
    LaplacianLevel& level = run.level;
    const auto columns = static_cast<std::ptrdiff_t>(level.cols);
    if constexpr (with_reach) {
        queue_.submit([&](sycl::handler& handler) {
            const auto reach = update(run.reach, handler);
            const auto cells = read(run.cells, handler);
            launch_cells(launch_on(handler, queue_), level.extent(), 0, [=](int x, int y, auto) {
                const std::ptrdiff_t i = y * columns + x;
                cells_of(reach)[i] = reached(cells_of(reach)[i], static_cast<float>(cells_of(cells)[i].visits));
            });
        });
    }
    queue_.submit([&](sycl::handler& handler) {
        const auto height = read(level.height, handler), reach = read(run.reach, handler);
        const auto delta = overwrite(run.delta, handler), reach_next = overwrite(run.reach_next, handler);
        const auto wear = update(level.wear, handler);
        launch_cells(launch_on(handler, queue_), level.extent(), 1,
                     [=, rule = run.plan.shaping](int x, int y, auto interior) {
                         const std::ptrdiff_t i = y * columns + x;
                         float spread = 1.0f;
                         const float change =
                             shaped<with_reach, interior.value>(cells_of(height), cells_of(reach), x, y, rule, spread);
                         if constexpr (with_reach)
                             cells_of(reach_next)[i] = spread;
                         cells_of(delta)[i] = change;
                         cells_of(wear)[i] += change;
                     });
    });
    queue_.submit([&](sycl::handler& handler) {
        const auto height = update(level.height, handler);
        const auto delta = read(run.delta, handler);
        launch_cells(launch_on(handler, queue_), level.extent(), 0, [=](int x, int y, auto) {
            cells_of(height)[y * columns + x] += cells_of(delta)[y * columns + x];
        });
    });
    if constexpr (with_reach)
        std::swap(run.reach, run.reach_next);
}

void ParallelErosion::write_flow(LevelRun& run) {
    queue_.submit([&](sycl::handler& handler) {
        const auto cells = read(run.cells, handler);
        const auto flow = overwrite(flow_, handler);
        launch_cells(launch_on(handler, queue_), run.level.extent(), 0,
                     [=, is_whole = !tracker_.cancelled,
                      columns = static_cast<std::ptrdiff_t>(run.level.cols)](int x, int y, auto) {
                         const std::ptrdiff_t i = y * columns + x;
                         const float visits = static_cast<float>(cells_of(cells)[i].visits);
                         cells_of(flow)[i] = is_whole ? minimum(visits * 0.001f, 1.0f) : visits;
                     });
    });
}

} // namespace tarn::parallel_erosion
