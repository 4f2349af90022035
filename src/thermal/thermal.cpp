#include "thermal/thermal.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <utility>

#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "grid/pyramid.hpp"
#include "grid/resampling.hpp"
#include "grid/upsample.hpp"
#include "grid/with_constant.hpp"
#include "thermal/thermal_kernels.hpp"

namespace tarn::thermal {

namespace {

bool is_given(bool flag, const Grid& mask) {
    return flag && mask.size() != 1;
}

LevelConstants constants_of(const Parameters& p, const sycl::range<2>& extent) {
    LevelConstants s{};
    s.columns = static_cast<int>(extent[1]);
    s.rows = static_cast<int>(extent[0]);
    s.scale = cell_width(p, extent[1]);
    s.inverse_scale = 1.0f / s.scale;
    // The arc tangent of the angle in radians.
    s.talus = static_cast<float>(std::atan(static_cast<double>(p.repose_angle * 0.0055555557f) * 3.141592653589793));
    s.talus_step = s.talus * s.scale;
    s.bias_a = maximum(1.3333334f * p.curvature_bias - 0.33333334f, 0.0f);
    s.bias_b = minimum(p.curvature_bias * 4.0f, 1.0f);
    s.erosion_rate = p.erosion_rate;
    s.absorption = p.absorption;
    return s;
}

/// The direction fields of a directional phase. No kernel of another phase touches them, so they take no memory there.
struct Direction {
    explicit Direction(const sycl::range<2>& extent) : x(extent), y(extent) {}
    Grid x;
    Grid y;
};

/// Loosens ground and works out what every cell sheds. Directional iterations leave the field that biases the move in
/// `direction`.
template <bool directional, bool masked>
void launch_loosen(LaplacianLevel& level, Direction& direction, const LevelConstants& constants) {
    level.queue->submit([&](sycl::handler& handler) {
        const auto heights = read(level.heights, handler);
        const auto mask = read_if<masked>(level.erosion_mask, handler);
        const auto depth = update(level.depth, handler), wear = update(level.wear, handler);
        const auto drop_sum = overwrite(level.drop_sum, handler);
        const auto direction_x = overwrite_if<directional>(direction.x, handler);
        const auto direction_y = overwrite_if<directional>(direction.y, handler);
        launch_pieces_with_neighbours(
            launch_on(handler, *level.queue), Extent<2>(level.extent), [=](int first, int last, int y, auto interior) {
                const LoosenGrids grids{cells_of(heights),  cells_of(depth),       cells_of(wear),
                                        cells_of(drop_sum), cells_of(direction_x), cells_of(direction_y),
                                        cells_of(mask)};
                const LevelConstants s = constants; // nothing else can refer to it, so its fields stay in registers
                loosen_row<directional, masked, interior.value>(grids, first, last, y, s);
            });
    });
}

/// Moves what the cells shed.
template <bool directional, bool masked>
void launch_move(LaplacianLevel& level, Direction& direction, const LevelConstants& constants) {
    level.queue->submit([&](sycl::handler& handler) {
        const auto heights = read(level.heights, handler), depth = read(level.depth, handler);
        const auto drop_sum = read(level.drop_sum, handler);
        const auto direction_x = read_if<directional>(direction.x, handler);
        const auto direction_y = read_if<directional>(direction.y, handler);
        const auto mask = read_if<masked>(level.absorption_mask, handler);
        const auto next_heights = overwrite(level.next_heights, handler);
        const auto next_depth = overwrite(level.next_depth, handler);
        launch_pieces_with_neighbours(
            launch_on(handler, *level.queue), Extent<2>(level.extent), [=](int first, int last, int y, auto interior) {
                const MoveGrids grids{cells_of(heights),      cells_of(depth),       cells_of(drop_sum),
                                      cells_of(direction_x),  cells_of(direction_y), cells_of(mask),
                                      cells_of(next_heights), cells_of(next_depth)};
                const LevelConstants s = constants;
                move_row<directional, masked, interior.value>(grids, first, last, y, s);
            });
    });
}

LaplacianLevel make_root(const Parameters& p, sycl::queue& queue, const CallerGrids& grids) {
    const sycl::range<2> shape(static_cast<std::size_t>(p.height), static_cast<std::size_t>(p.width));
    // A mask without its flag is not read: a device of its own memory would take it in otherwise.
    const auto mask = [&](const float* cells, bool flag) {
        return create_input(flag ? cells : nullptr, shape, queue);
    };
    Grid heights = create_buffer(grids.heights, shape, queue, true);
    Grid depth = create_buffer(grids.depth, shape, queue, true);
    Grid wear = create_buffer(grids.wear, shape, queue, true);
    return {queue,
            heights,
            depth,
            wear,
            mask(grids.erosion_mask, p.use_erosion_mask != 0),
            mask(grids.absorption_mask, p.use_absorption_mask != 0),
            nullptr};
}

} // namespace

float cell_width(const Parameters& p, std::size_t columns) {
    return p.terrain_size / (static_cast<float>(columns) * p.terrain_height);
}

Schedule::Schedule(const Parameters& p) {
    const float count = level_count(p);
    const float smooth = count >= 1.0f ? count : std::exp(count - 1.0f);
    fraction_ = smooth - std::floor(smooth);
    if (fraction_ == 0.0f)
        fraction_ = 1.0f;
    full_iterations_ = p.duration * 2560.0f;

    levels_ = std::max(static_cast<int>(std::ceil(count)), 1);
}

float Schedule::iterations(int level_index) const {
    const float x = maximum(static_cast<float>(level_index) - 2.5f + fraction_, 0.0f);
    const float exponent = std::exp(-6.0f * x) * 0.16666667f + (x - 0.16666667f);
    const float share = std::exp(exponent * -0.6931472f);
    const float weight = level_index == 0 ? fraction_ : 1.0f;
    return std::ceil((weight * full_iterations_) * share);
}

float Schedule::level_count(const Parameters& p) {
    return std::log2(static_cast<float>(p.width) * p.feature_size / p.terrain_size);
}

Phase phase_of(float t, float iterations, int level_index, bool is_root) {
    const float settle_start = level_index != 0 ? iterations - 8.0f : 0.0f;
    const float directional_start = iterations - minimum(20.0f, 0.5f * iterations);
    if (t >= settle_start)
        return Phase::settling;
    return t >= directional_start && is_root ? Phase::directional : Phase::plain;
}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, Grid level_heights, Grid level_depth, Grid level_wear,
                               Grid level_erosion_mask, Grid level_absorption_mask, LaplacianLevel* finer)
    : queue(&level_queue), extent(level_heights.get_range()), parent(finer), heights(std::move(level_heights)),
      depth(std::move(level_depth)), wear(std::move(level_wear)), next_heights(extent), next_depth(extent),
      drop_sum(extent), detail(extent), erosion_mask(std::move(level_erosion_mask)),
      absorption_mask(std::move(level_absorption_mask)) {}

std::unique_ptr<LaplacianLevel> LaplacianLevel::create_subsequent_level(const Parameters& parameters) {
    Grid next = resampling::next_level(heights, *queue);
    Grid next_erosion_mask =
        parameters.use_erosion_mask != 0 ? resampling::next_level(erosion_mask, *queue) : erosion_mask;
    Grid next_absorption_mask =
        parameters.use_absorption_mask != 0 ? resampling::next_level(absorption_mask, *queue) : absorption_mask;
    take_detail(*queue, heights, next, detail);
    const sycl::range<2> next_extent = next.get_range();
    return std::make_unique<LaplacianLevel>(*queue, next, Grid(next_extent), Grid(next_extent), next_erosion_mask,
                                            next_absorption_mask, this);
}

void LaplacianLevel::reconstruct_previous_level(const Parameters& parameters) {
    const FoldBack rule{cell_width(parameters, extent[1]), parameters.absorption};
    LaplacianLevel& fine = *parent;
    with_constant(is_given(parameters.use_absorption_mask != 0, fine.absorption_mask), [&](auto masked) {
        queue->submit([&](sycl::handler& handler) {
            const auto surface = read(heights, handler), cover = read(depth, handler), worn = read(wear, handler);
            const auto fine_detail = read(fine.detail, handler);
            const auto coarse_mask = read_if<masked.value>(absorption_mask, handler);
            const auto fine_mask = read_if<masked.value>(fine.absorption_mask, handler);
            const auto fine_heights = overwrite(fine.heights, handler), fine_depth = overwrite(fine.depth, handler);
            const auto fine_wear = overwrite(fine.wear, handler);
            launch_fine_cells(launch_on(handler, *queue), Extent<2>(fine.extent), Extent<2>(extent),
                              [=](std::ptrdiff_t row, int x, const CoarseTaps& taps) {
                                  const std::ptrdiff_t i = row + x;
                                  const float wear_sum = sum_9331(cells_of(worn), taps);
                                  float h, d;
                                  fold_back(sample_9331(cells_of(surface), taps), sample_9331(cells_of(cover), taps),
                                            wear_sum, cells_of(fine_detail)[i], rule, h, d);
                                  float excess = 0.0f;
                                  if constexpr (masked.value)
                                      excess = cells_of(fine_mask)[i] - sample_9331(cells_of(coarse_mask), taps);
                                  const float gone = absorbed(d, excess, rule);
                                  cells_of(fine_depth)[i] = d - gone;
                                  cells_of(fine_heights)[i] = h - gone;
                                  cells_of(fine_wear)[i] = wear_sum * 0.0625f;
                              });
        });
    });
}

Thermal::Thermal(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
                 const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue),
      resolution_(static_cast<std::size_t>(parameters.height), static_cast<std::size_t>(parameters.width)),
      root_(make_root(parameters, queue_, grids)), caller_heights_(root_.heights), caller_depth_(root_.depth),
      parameters_(parameters) {}

void Thermal::run() {
    const Schedule schedule(parameters_);
    const int levels = schedule.levels();
    const auto plan = [&](const LaplacianLevel& level, int level_index) {
        tracker_.add_total(static_cast<double>(level.extent.size()) *
                           static_cast<double>(schedule.iterations(level_index)));
    };
    plan(root_, levels - 1);
    std::deque<std::unique_ptr<LaplacianLevel>> coarser;
    LaplacianLevel* coarsest = &root_;
    for (int n = 1; n < levels; ++n) {
        coarser.push_back(coarsest->create_subsequent_level(parameters_));
        coarsest = coarser.back().get();
        plan(*coarsest, levels - 1 - n);
    }
    // Finer levels take their cover and wear from the fold-back.
    fill(queue_, coarsest->depth, 0.0f);
    fill(queue_, coarsest->wear, 0.0f);

    int level_index = 0;
    for (; !coarser.empty(); coarser.pop_back(), ++level_index) {
        if (!tracker_.cancelled)
            simulation(schedule.iterations(level_index), *coarser.back(), level_index);
        coarser.back()->reconstruct_previous_level(parameters_);
    }
    if (!tracker_.cancelled)
        simulation(schedule.iterations(level_index), root_, level_index);

    if (root_.heights != caller_heights_) {
        copy(queue_, root_.heights, caller_heights_);
        copy(queue_, root_.depth, caller_depth_);
    }
}

void Thermal::simulation(float iterations, LaplacianLevel& level, int level_index) {
    LevelConstants constants = constants_of(parameters_, level.extent);
    const bool erosion_masked = is_given(parameters_.use_erosion_mask != 0, level.erosion_mask);
    const bool absorption_masked = is_given(parameters_.use_absorption_mask != 0, level.absorption_mask);
    Direction direction(level.extent);
    for (float t = 0.0f; t < iterations; t += 1.0f) {
        const Phase phase = phase_of(t, iterations, level_index, level.parent == nullptr);
        if (phase == Phase::settling)
            constants.talus = constants.talus_step = 0.0f;
        with_constant(phase == Phase::directional, [&](auto directional) {
            with_constant(erosion_masked, [&](auto masked) {
                launch_loosen<directional.value, masked.value>(level, direction, constants);
            });
            with_constant(absorption_masked, [&](auto masked) {
                launch_move<directional.value, masked.value>(level, direction, constants);
            });
        });
        std::swap(level.heights, level.next_heights);
        std::swap(level.depth, level.next_depth);
        tracker_.add(static_cast<double>(level.extent.size()));
        if (tracker_.cancelled)
            return;
    }
}

} // namespace tarn::thermal
