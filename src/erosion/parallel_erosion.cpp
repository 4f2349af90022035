#include "erosion/parallel_erosion.hpp"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "erosion/parallel_erosion_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "grid/resampling.hpp"
#include "grid/shuffle.hpp"
#include "grid/upsample.hpp"

namespace tarn::parallel_erosion {

namespace {

/// An absent grid has one element, so that kernels can take an accessor to it.
sycl::range<2> one_if_absent(const sycl::range<2>& shape, bool is_given) {
    return is_given ? shape : sycl::range<2>(1, 1);
}

/// One particle for each 256 cells.
std::uint32_t particle_count(const LaplacianLevel& level) {
    return static_cast<std::uint32_t>(std::max<std::size_t>(level.size() >> 8, 1));
}

/// Particles that a CPU's work-item takes at a time.
constexpr int cpu_lanes = 16;

/// Calls `particles(first, count, lanes)` for all of `total` particles: one at a time on GPUs, whole vectors on CPUs.
/// `lanes`, a constant, bounds the count.
template <class Target, class Particles>
void launch_lanes(LaunchTarget<Target> on, std::uint32_t total, Particles particles) {
    if (!on.is_cpu) {
        on.target.parallel_for(sycl::range<1>(total), [=](sycl::id<1> index) {
            particles(static_cast<std::uint32_t>(index[0]), 1, std::integral_constant<int, 1>{});
        });
        return;
    }
    on.target.parallel_for(sycl::range<1>((total + cpu_lanes - 1) / cpu_lanes), [=](sycl::id<1> index) {
        const auto first = static_cast<std::uint32_t>(index[0]) * cpu_lanes;
        particles(first, static_cast<int>(minimum(total - first, std::uint32_t{cpu_lanes})),
                  std::integral_constant<int, cpu_lanes>{});
    });
}

/// A path of eleven cells a pass and many times as long as the sides of the level: nothing that runs downhill gets
/// there, but heights may change under a particle that goes around in circles.
int most_passes(const LaplacianLevel& level) {
    return 1024 + 8 * static_cast<int>(level.rows + level.cols);
}

Setting make_setting(const LaplacianLevel& level, const Parameters& p, const Context& context) {
    Setting s{};
    s.columns = static_cast<int>(level.cols);
    s.rows = static_cast<int>(level.rows);
    const float cell = level.cell_width(p);
    s.half_inverse_cell = 1.0f / cell * 0.5f;
    s.drop_capacity = context.capacity_scale * (1.0f - p.constant_capacity);
    s.constant_capacity = ((p.constant_capacity * p.erosion_strength) * cell) * 0.15f;
    s.fill_slope_scale = p.fill_slope_scale;
    s.fill_tangent = context.fill_tangent;
    s.plain_tangent = context.plain_tangent;
    s.plain_share = p.plain_deposition * 0.15f;
    s.terrace_tangent = context.terrace_tangent;
    s.terrace_share = p.terrace_deposition * 0.25f;
    s.largest_change = 0x1p39f / static_cast<float>(particle_count(level) * std::uint64_t{longest_path});
    return s;
}

ShapeSetting make_shape_setting(const LaplacianLevel& level, const Parameters& p, const Context& context) {
    ShapeSetting s{};
    s.columns = static_cast<int>(level.cols);
    s.rows = static_cast<int>(level.rows);
    s.cell = level.cell_width(p);
    s.sharpness = p.shaping_sharpness;
    s.pull_share = p.shaping_sharpness * p.shaping_sharpness * 0.9f;
    s.smoothing = (0.02f - p.shaping_sharpness * 0.02f) * context.smoothing_amount;
    s.amount = context.shaping_amount;
    return s;
}

/// The share of a level's weight that its distance from the coarsest leaves: 1 up to x = 0, then a smooth bend into a
/// fall by the factor r a level.
struct Falloff {
    float a;
    float inverse_a;
    float ln_r;
    float ln_r_by_a;

    float operator()(float x) const { return std::exp((-inverse_a * std::exp(-a * x) - x) * ln_r + ln_r_by_a); }
};
constexpr Falloff rounds_falloff{0.75f, 1.33333337f, 0.693147182f, 0.924196243f};
constexpr Falloff capacity_falloff{1.2f, 0.833333313f, 0.510825574f, 0.425687969f};
constexpr Falloff shaping_falloff{10.0f, 0.100000001f, 0.9162907f, 0.091629073f};

/// The fraction of the level count, which the coarsest level stands for; a whole count stands for one whole level.
float top_fraction(const Context& context) {
    const float count = context.level_float >= 1.0f ? context.level_float : std::exp(context.level_float - 1.0f);
    const float fraction = count - std::floor(count);
    return fraction == 0.0f ? 1.0f : fraction;
}

} // namespace

struct Swarm {
    explicit Swarm(const LaplacianLevel& level)
        : size(particle_count(level)), particles(size), active(size), active_next(size), alive_count(1),
          changed(size * std::size_t{longest_path}) {
        sycl::host_accessor(alive_count, sycl::write_only, sycl::no_init)[0] = 0;
    }

    /// Reads the counter, which waits for the kernels before, and sets it back to 0.
    std::uint32_t take_alive_count() {
        const sycl::host_accessor count(alive_count, sycl::read_write);
        return std::exchange(count[0], 0u);
    }

    std::uint32_t size;
    sycl::buffer<Particle, 1> particles;
    /// The particles of this pass and of the next one.
    sycl::buffer<std::uint32_t, 1> active;
    sycl::buffer<std::uint32_t, 1> active_next;
    /// 0 but between a kernel that counts and the host's look at it.
    sycl::buffer<std::uint32_t, 1> alive_count;
    /// The cells that a pass has changed, each once.
    sycl::buffer<std::uint32_t, 1> changed;
};

float softened_feature_size(float feature_size, float terrain_size) {
    float t = feature_size / terrain_size;
    if (t > 0.2f)
        t = 0.366666675f - 0.166666672f / (6.0f * t - 0.200000048f);
    return t * terrain_size;
}

Context plan(Parameters& p, bool has_spawn_map) {
    constexpr float radians = 0.0174532942f;
    p.feature_size = softened_feature_size(p.feature_size, p.terrain_size);
    Context context{};
    context.fill_tangent = std::tan(p.fill_angle * radians);
    context.plain_tangent = std::tan(p.plain_angle * radians);
    context.terrace_tangent = std::tan(p.terrace_angle * radians);
    context.has_spawn_map = has_spawn_map;
    context.level_float = std::log2(static_cast<float>(static_cast<std::int32_t>(p.Resolution.width)) *
                                    (1.0f / p.terrain_size) * (p.feature_size * 0.5f));
    context.shaping_level = p.shaping_detail == 0.0f ? 100.0f : std::log2(1.0f / p.shaping_detail);
    // Features below the size of a cell leave a single level.
    context.level_count = std::max(static_cast<std::int32_t>(std::ceil(context.level_float)), 1);
    return context;
}

int rounds(const Parameters& p, const Context& context, int levels_done) {
    const float top = top_fraction(context);
    const float x = maximum(0.0f, static_cast<float>(levels_done) - 3.5f + top);
    const float weight = levels_done > 0 ? 1.0f : top;
    return static_cast<int>(std::ceil(weight * p.iterations * rounds_falloff(x)));
}

float capacity_scale(const Parameters& p, const Context& context, int levels_done) {
    const float x = maximum(0.0f, static_cast<float>(levels_done) - 1.0f + (top_fraction(context) - 1.0f));
    return p.erosion_strength * capacity_falloff(x);
}

float shaping_amount(const Parameters& p, const Context& context, int levels_done) {
    const float x =
        maximum(0.0f, static_cast<float>(levels_done) - context.shaping_level + (top_fraction(context) - 1.0f));
    return p.shaping_strength * shaping_falloff(x);
}

float smoothing_amount(const Context& context, int levels_done) {
    const float x = maximum(0.0f, static_cast<float>(levels_done) + (top_fraction(context) - 1.0f));
    return maximum(1.0f, std::exp((0.100000001f * std::exp(-10.0f * x) + x) * 0.693147182f - 0.0693147182f));
}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, Grid level_height, Grid level_flow, Grid level_sediment,
                               Grid level_wear, Grid level_spawn_map)
    : queue(&level_queue), rows(level_height.get_range()[0]), cols(level_height.get_range()[1]), parent(nullptr),
      height(std::move(level_height)), flow(std::move(level_flow)), delta(sycl::range<2>(rows, cols)),
      sediment(std::move(level_sediment)), wear(std::move(level_wear)), detail(sycl::range<2>(rows, cols)),
      delta_sum(sycl::range<2>(rows, cols)), spawn_map(std::move(level_spawn_map)),
      reach(one_if_absent(sycl::range<2>(rows, cols), spawn_map.size() != 1)), reach_next(reach.get_range()) {}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, LaplacianLevel* finer)
    : queue(&level_queue), rows(std::max<std::size_t>(finer->rows / 2, 1)),
      cols(std::max<std::size_t>(finer->cols / 2, 1)), parent(finer),
      height(resampling::next_level(finer->height, level_queue)), flow(sycl::range<2>(rows, cols)),
      delta(sycl::range<2>(rows, cols)), sediment(sycl::range<2>(rows, cols)), wear(sycl::range<2>(rows, cols)),
      detail(sycl::range<2>(rows, cols)), delta_sum(sycl::range<2>(rows, cols)),
      spawn_map(resampling::next_level(finer->spawn_map, level_queue)),
      reach(one_if_absent(sycl::range<2>(rows, cols), finer->reach.size() != 1)), reach_next(reach.get_range()) {
    queue->submit([&](sycl::handler& handler) {
        const Reader<float> fine = read(finer->height, handler), coarse = read(height, handler);
        const Writer<float> out = overwrite(finer->detail, handler);
        launch_upsampled(
            launch_on(handler, *queue), finer->extent(), coarse, extent(),
            [=](std::ptrdiff_t row, int x, float up) { cells_of(out)[row + x] = cells_of(fine)[row + x] - up; });
    });
}

template <bool with_reach>
void LaplacianLevel::init() {
    // Each pass leaves the sums cleared, and the shaping overwrites `delta` and `reach_next`.
    fill(*queue, flow, 0.0f);
    fill(*queue, sediment, 0.0f);
    fill(*queue, wear, 0.0f);
    if constexpr (with_reach)
        fill(*queue, reach, 0.0f);
}

float LaplacianLevel::cell_width(const Parameters& parameters) const {
    return parameters.terrain_size / (static_cast<float>(cols) * parameters.terrain_height);
}

void LaplacianLevel::reconstruct_previous_level(const Parameters& parameters) {
    queue->submit([&](sycl::handler& handler) {
        const Reader<float> coarse_height = read(height, handler), coarse_sediment = read(sediment, handler);
        const Reader<float> coarse_wear = read(wear, handler), fine_detail = read(parent->detail, handler);
        const Writer<float> fine_height = overwrite(parent->height, handler);
        const Writer<float> fine_sediment = overwrite(parent->sediment, handler);
        const Writer<float> fine_wear = overwrite(parent->wear, handler);
        launch_fine_cells(launch_on(handler, *queue), parent->extent(), extent(),
                          [=, cell = cell_width(parameters)](std::ptrdiff_t row, int x, const CoarseTaps& taps) {
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

void init_level(LaplacianLevel& level, bool with_reach) {
    if (with_reach)
        level.init<true>();
    else
        level.init<false>();
}

LaplacianLevel make_root(const Parameters& p, sycl::queue& queue, const CallerGrids& grids) {
    const sycl::range<2> shape(p.Resolution.height, p.Resolution.width);
    // The map is only ever read.
    Grid spawn_map = create_buffer(const_cast<float*>(grids.spawn_map), shape, queue, false);
    Grid wear = create_buffer(grids.wear, shape, queue, true);
    Grid sediment = create_buffer(grids.sediment, shape, queue, true);
    Grid flow = create_buffer(grids.flow, shape, queue, true);
    Grid height = create_buffer(grids.height, shape, queue, true);
    return {queue, height, flow, sediment, wear, spawn_map};
}

sycl::buffer<float, 1> create_random_directions(std::uint32_t seed) {
    std::vector<float> coordinates;
    for (const auto& direction : random_directions(seed)) {
        coordinates.push_back(direction.x());
        coordinates.push_back(direction.y());
    }
    return sycl::buffer<float, 1>(coordinates.begin(), coordinates.end());
}

} // namespace

ParallelErosion::ParallelErosion(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
                                 const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue), parameters_(parameters),
      root_(make_root(parameters, queue_, grids)), directions_(create_random_directions(parameters.seed)), context_{} {
    init_level(root_, root_.spawn_map.size() != 1);
}

bool ParallelErosion::erode() {
    context_ = plan(parameters_, root_.spawn_map.size() != 1);
    const auto add_work = [&](const LaplacianLevel& level, int levels_done) {
        const int level_rounds = std::max(rounds(parameters_, context_, levels_done), 0);
        tracker_.add_total(static_cast<double>(level.size()) * static_cast<double>(level_rounds));
    };
    const int coarsest = context_.level_count - 1;
    add_work(root_, coarsest);
    std::deque<LaplacianLevel> levels;
    LaplacianLevel* current = &root_;
    for (int i = 1; i <= coarsest; ++i) {
        current = &levels.emplace_back(queue_, current);
        init_level(*current, context_.has_spawn_map);
        add_work(*current, coarsest - i);
    }

    context_.level = coarsest;
    context_.levels_done = 0;
    while (!levels.empty() && !tracker_.cancelled) {
        erode_level(*current);
        current->reconstruct_previous_level(parameters_);
        current = current->parent;
        levels.pop_back();
        --context_.level;
        ++context_.levels_done;
    }
    erode_level(*current);
    if (tracker_.cancelled)
        return false;

    queue_.submit([&](sycl::handler& handler) {
        const Updater<float> visits = update(root_.flow, handler);
        launch_cells(launch_on(handler, queue_), root_.extent(), 0,
                     [=, columns = static_cast<std::ptrdiff_t>(root_.cols)](int x, int y, auto) {
                         float& cell = cells_of(visits)[y * columns + x];
                         cell = minimum(cell * 0.001f, 1.0f);
                     });
    });
    return true;
}

void ParallelErosion::erode_level(LaplacianLevel& level) {
    context_.rounds = rounds(parameters_, context_, context_.levels_done);
    context_.capacity_scale = capacity_scale(parameters_, context_, context_.levels_done);
    context_.shaping_amount = shaping_amount(parameters_, context_, context_.levels_done);
    context_.smoothing_amount = smoothing_amount(context_, context_.levels_done);
    if (context_.rounds <= 0 || tracker_.cancelled)
        return;

    Swarm swarm(level);
    fill(queue_, level.delta_sum, DeltaSum{});
    // On fewer rows or columns all places lie in the margins, where a particle ends at its birth.
    const bool has_inside = level.rows > 2 && level.cols > 2;
    std::uint32_t batch_offset = 0;
    for (int round = 0; round < context_.rounds && !tracker_.cancelled; ++round) {
        std::uint32_t count = has_inside ? give_birth(level, swarm, batch_offset) : 0;
        for (int pass = 0; count != 0 && pass < most_passes(level); ++pass) {
            flow(level, swarm, count);
            render_flow(level, swarm, count);
            std::swap(swarm.active, swarm.active_next);
            count = swarm.take_alive_count();
        }
        if (parameters_.shaping_strength > 0.0f) {
            if (context_.has_spawn_map)
                shape<true>(level);
            else
                shape<false>(level);
        }
        batch_offset += swarm.size;
        tracker_.add(static_cast<double>(level.size()));
    }
}

std::uint32_t ParallelErosion::give_birth(LaplacianLevel& level, Swarm& swarm, std::uint32_t batch_offset) {
    const Setting setting = make_setting(level, parameters_, context_);
    const std::uint32_t seed = parameters_.seed;
    if (!context_.has_spawn_map) {
        queue_.submit([&](sycl::handler& handler) {
            const auto particles = overwrite(swarm.particles, handler);
            const auto active = overwrite(swarm.active, handler);
            handler.parallel_for(sycl::range<1>(swarm.size), [=](sycl::id<1> index) {
                const auto g = static_cast<std::uint32_t>(index[0]);
                particles[g] = newborn(seed, g + batch_offset, setting);
                active[g] = g;
            });
        });
        return swarm.size;
    }
    queue_.submit([&](sycl::handler& handler) {
        const auto particles = overwrite(swarm.particles, handler);
        const auto active = overwrite(swarm.active, handler);
        const auto alive_count = update(swarm.alive_count, handler);
        const auto spawn_map = read(level.spawn_map, handler);
        handler.parallel_for(sycl::range<1>(swarm.size), [=](sycl::id<1> index) {
            const Particle particle = newborn(seed, static_cast<std::uint32_t>(index[0]) + batch_offset, setting);
            if (is_born(particle, seed, cells_of(spawn_map), setting)) {
                const std::uint32_t k = atomic_add(alive_count[0], 1u);
                particles[k] = particle;
                active[k] = k;
            }
        });
    });
    return swarm.take_alive_count();
}

void ParallelErosion::flow(LaplacianLevel& level, Swarm& swarm, std::uint32_t count) {
    queue_.submit([&](sycl::handler& handler) {
        const auto particles = update(swarm.particles, handler);
        const auto active = read(swarm.active, handler);
        const auto active_next = overwrite(swarm.active_next, handler);
        const auto alive_count = update(swarm.alive_count, handler);
        const auto height = read(level.height, handler);
        const auto directions = read(directions_, handler);
        const Setting setting = make_setting(level, parameters_, context_);
        launch_lanes(launch_on(handler, queue_), count, [=](std::uint32_t first, int lane_count, auto lanes) {
            bool goes_on[lanes.value];
            const std::uint32_t* const walkers = elements_of(active) + first;
            walk<lanes.value>(elements_of(particles), walkers, lane_count, cells_of(height), elements_of(directions),
                              setting, goes_on);
            std::uint32_t survivors = 0;
            for (int k = 0; k < lane_count; ++k)
                survivors += goes_on[k] ? 1u : 0u;
            if (survivors == 0)
                return;
            std::uint32_t place = atomic_add(alive_count[0], survivors);
            for (int k = 0; k < lane_count; ++k)
                if (goes_on[k])
                    active_next[place++] = walkers[k];
        });
    });
}

void ParallelErosion::render_flow(LaplacianLevel& level, Swarm& swarm, std::uint32_t count) {
    queue_.submit([&](sycl::handler& handler) {
        const auto particles = update(swarm.particles, handler);
        const auto active = read(swarm.active, handler);
        const auto changed = overwrite(swarm.changed, handler);
        const auto delta_sum = update(level.delta_sum, handler);
        const Setting setting = make_setting(level, parameters_, context_);
        launch_lanes(launch_on(handler, queue_), count, [=](std::uint32_t first, int lane_count, auto lanes) {
            carve<lanes.value>(elements_of(particles), elements_of(active) + first, lane_count, setting,
                               cells_of(delta_sum), elements_of(changed) + std::size_t{first} * longest_path);
        });
    });
    queue_.submit([&](sycl::handler& handler) {
        const auto changed = read(swarm.changed, handler);
        const auto delta_sum = update(level.delta_sum, handler);
        const auto height = update(level.height, handler), visits = update(level.flow, handler);
        const auto sediment = update(level.sediment, handler), wear = update(level.wear, handler);
        handler.parallel_for(sycl::range<1>(count * std::size_t{longest_path}), [=](sycl::id<1> index) {
            if (const std::uint32_t cell = changed[index]; cell != no_cell)
                settle(cell, cells_of(delta_sum)[cell],
                       {cells_of(height), cells_of(visits), cells_of(sediment), cells_of(wear)});
        });
    });
}

template <bool with_reach>
void ParallelErosion::shape(LaplacianLevel& level) {
    const auto on = [&](sycl::handler& handler) {
        return launch_on(handler, queue_);
    };
    const auto columns = static_cast<std::ptrdiff_t>(level.cols);
    if constexpr (with_reach) {
        queue_.submit([&](sycl::handler& handler) {
            const auto reach = update(level.reach, handler);
            const auto visits = read(level.flow, handler);
            launch_cells(on(handler), level.extent(), 0, [=](int x, int y, auto) {
                float& cell = cells_of(reach)[y * columns + x];
                cell = reached(cell, cells_of(visits)[y * columns + x]);
            });
        });
    }
    queue_.submit([&](sycl::handler& handler) {
        const auto height = read(level.height, handler), reach = read(level.reach, handler);
        const auto delta = overwrite(level.delta, handler), reach_next = overwrite(level.reach_next, handler);
        const auto wear = update(level.wear, handler);
        launch_cells(on(handler), level.extent(), 1,
                     [=, setting = make_shape_setting(level, parameters_, context_)](int x, int y, auto interior) {
                         const std::ptrdiff_t i = setting.index(x, y);
                         float spread = 1.0f;
                         const float change = shaped<with_reach, interior.value>(cells_of(height), cells_of(reach), x,
                                                                                 y, setting, spread);
                         if constexpr (with_reach)
                             cells_of(reach_next)[i] = spread;
                         cells_of(delta)[i] = change;
                         cells_of(wear)[i] += change;
                     });
    });
    queue_.submit([&](sycl::handler& handler) {
        const auto height = update(level.height, handler);
        const auto delta = read(level.delta, handler);
        launch_cells(on(handler), level.extent(), 0, [=](int x, int y, auto) {
            cells_of(height)[y * columns + x] += cells_of(delta)[y * columns + x];
        });
    });
    if constexpr (with_reach)
        std::swap(level.reach, level.reach_next);
}

} // namespace tarn::parallel_erosion
