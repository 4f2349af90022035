#include "thermal/thermal.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <optional>
#include <utility>

#include "grid/access.hpp"
#include "grid/launch_cells.hpp"
#include "grid/resampling.hpp"
#include "grid/upsample.hpp"
#include "thermal/thermal_kernels.hpp"

namespace tarn::thermal {

namespace {

bool is_given(bool flag, const Grid& mask) {
    return flag && mask.size() != 1;
}

/// Width of a cell in units of height.
float cell_width(const Parameters& p, std::size_t columns) {
    return p.terrain_size / (static_cast<float>(columns) * p.terrain_height);
}

Setting make_setting(const Parameters& p, const sycl::range<2>& extent) {
    Setting s{};
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

/// The direction fields of a directional phase.
struct Direction {
    explicit Direction(const sycl::range<2>& extent) : x(extent), y(extent) {}
    Grid x;
    Grid y;
};

/// Where a kernel finds the grids of a level.
struct LevelCells {
    const float* heights;
    float* depth;
    float* wear;
    float* drop_sum;
    float* direction_x;
    float* direction_y;
    const float* mask;
};

/// What loosening finds out about a cell.
struct Loosened {
    float loose;
    float drop_sum;
    Bias bias;
};

template <bool directional, bool masked, bool interior>
inline Loosened loosen_cell(const LevelCells& cells, int x, int y, const Setting& s) {
    const std::ptrdiff_t i = s.index(x, y);
    const Neighbourhood n = neighbourhood<interior>(cells.heights, x, y, s);
    const Slope slope = find_slope_and_curvature(n);
    Loosened result{};
    result.loose = loosened(slope, cells.depth[i], directional ? directional_loosening : plain_loosening,
                            masked ? cells.mask[i] : 1.0f, s);
    if constexpr (directional) {
        result.bias = direction_of(slope, s);
        result.drop_sum = kept_if(interior || !s.is_border(x, y), sum_of_biased_falls(n, result.bias));
    } else {
        result.drop_sum = kept_if(slope.slope > s.talus_step, sum_of_falls(n, sides_of<interior>(x, y, s)));
    }
    return result;
}

/// Loosens ground and works out what every cell sheds. Shedding looks at no cell's cover but its own, so one kernel
/// does both. Directional iterations leave the field that biases the move in `direction`.
template <bool directional, bool masked>
void launch_loosen(LaplacianLevel& level, Direction* direction, const Setting& s) {
    level.queue->submit([&](sycl::handler& handler) {
        const auto heights = read(level.heights, handler), mask = read(level.erosion_mask, handler);
        const auto depth = update(level.depth, handler), wear = update(level.wear, handler);
        const auto drop_sum = overwrite(level.drop_sum, handler);
        const auto direction_x = overwrite(directional ? direction->x : level.drop_sum, handler);
        const auto direction_y = overwrite(directional ? direction->y : level.drop_sum, handler);
        launch_pieces_with_neighbours(
            launch_on(handler, *level.queue), Extent<2>(level.extent), [=](int first, int last, int y, auto interior) {
                const LevelCells grids{cells_of(heights),     cells_of(depth),       cells_of(wear), cells_of(drop_sum),
                                       cells_of(direction_x), cells_of(direction_y), cells_of(mask)};
                const Setting setting = s; // nothing else can refer to it, so its fields stay in registers
                constexpr int piece = interior.value ? 256 : 1;
                float loose[piece], sum[piece];
                for (int start = first; start < last; start += piece) {
                    const int count = minimum(piece, last - start);
                    const std::ptrdiff_t row = setting.index(start, y);
                    for_overlapping(count, [&](int k) {
                        const Loosened cell =
                            loosen_cell<directional, masked, interior.value>(grids, start + k, y, setting);
                        loose[k] = cell.loose;
                        sum[k] = cell.drop_sum;
                        if constexpr (directional) {
                            grids.direction_x[row + k] = cell.bias.x;
                            grids.direction_y[row + k] = cell.bias.y;
                        }
                    });
                    TARN_INDEPENDENT_ITERATIONS
                    for (int k = 0; k < count; ++k) {
                        grids.depth[row + k] += loose[k];
                        grids.wear[row + k] += loose[k];
                        grids.drop_sum[row + k] = sum[k];
                    }
                }
            });
    });
}

/// Moves what the cells shed. `direction` is given in directional iterations alone.
template <bool directional, bool masked>
void launch_move(LaplacianLevel& level, Direction* direction, const Setting& s) {
    level.queue->submit([&](sycl::handler& handler) {
        const auto heights = read(level.heights, handler), depth = read(level.depth, handler);
        const auto drop_sum = read(level.drop_sum, handler), mask = read(level.absorption_mask, handler);
        const auto direction_x = read(directional ? direction->x : level.drop_sum, handler);
        const auto direction_y = read(directional ? direction->y : level.drop_sum, handler);
        const auto next_heights = overwrite(level.next_heights, handler);
        const auto next_depth = overwrite(level.next_depth, handler);
        launch_pieces_with_neighbours(
            launch_on(handler, *level.queue), Extent<2>(level.extent), [=](int first, int last, int y, auto interior) {
                const Shed shed{cells_of(heights), cells_of(depth), cells_of(drop_sum), cells_of(direction_x),
                                cells_of(direction_y)};
                const Setting setting = s;
                float* const surface = cells_of(next_heights);
                float* const cover = cells_of(next_depth);
                const float* const absorption_mask = cells_of(mask);
                for_overlapping(last - first, [&](int k) {
                    const int x = first + k;
                    const std::ptrdiff_t i = setting.index(x, y);
                    float arriving = 0.0f;
                    if (interior.value || !setting.is_border(x, y))
                        arriving = inflow<directional>(shed, x, y, setting);
                    const float outflow = -minimum(shed.depth[i], shed.drop_sum[i]);
                    const float v = change(arriving, outflow, masked ? absorption_mask[i] : 1.0f,
                                           directional ? directional_move : plain_move, setting);
                    surface[i] = shed.heights[i] + v;
                    cover[i] = shed.depth[i] + v;
                });
            });
    });
}

/// Calls `launch` with whether the flag is set as a constant.
template <class Launch>
void with_constant(bool flag, Launch launch) {
    if (flag)
        launch(std::true_type{});
    else
        launch(std::false_type{});
}

LaplacianLevel make_root(const Parameters& p, sycl::queue& queue, const CallerGrids& grids) {
    const sycl::range<2> shape(static_cast<std::size_t>(p.height), static_cast<std::size_t>(p.width));
    // The masks are only ever read, and only with their flags: a device of its own memory would take them in otherwise.
    const auto mask = [&](const float* cells, bool flag) {
        return create_buffer(flag ? const_cast<float*>(cells) : nullptr, shape, queue, false);
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

/// Makes `target`, which is bound to the caller's memory, hold what `current` holds.
void bring_back(sycl::queue& queue, Grid& current, Grid& target) {
    if (current == target)
        return;
    queue.submit([&](sycl::handler& handler) {
        const auto from = read(current, handler);
        const auto to = overwrite(target, handler);
        launch_cells(launch_on(handler, queue), Extent<2>(target.get_range()), 0,
                     [=, columns = static_cast<std::ptrdiff_t>(target.get_range()[1])](int x, int y, auto) {
                         cells_of(to)[y * columns + x] = cells_of(from)[y * columns + x];
                     });
    });
}

} // namespace

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
    queue->submit([&](sycl::handler& handler) {
        const auto fine = read(heights, handler), coarse = read(next, handler);
        const auto out = overwrite(detail, handler);
        launch_upsampled(
            launch_on(handler, *queue), Extent<2>(extent), coarse, Extent<2>(next.get_range()),
            [=](std::ptrdiff_t row, int x, float up) { cells_of(out)[row + x] = cells_of(fine)[row + x] - up; });
    });
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
            const auto fine_detail = read(fine.detail, handler), coarse_mask = read(absorption_mask, handler);
            const auto fine_mask = read(fine.absorption_mask, handler);
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

void LaplacianLevel::clear_cover() {
    queue->submit([&](sycl::handler& handler) {
        const auto cover = overwrite(depth, handler), worn = overwrite(wear, handler);
        launch_cells(launch_on(handler, *queue), Extent<2>(extent), 0,
                     [=, columns = static_cast<std::ptrdiff_t>(extent[1])](int x, int y, auto) {
                         cells_of(cover)[y * columns + x] = 0.0f;
                         cells_of(worn)[y * columns + x] = 0.0f;
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
    coarsest->clear_cover();

    int level_index = 0;
    for (; !coarser.empty(); coarser.pop_back(), ++level_index) {
        if (!tracker_.cancelled)
            simulation(schedule.iterations(level_index), *coarser.back(), level_index);
        coarser.back()->reconstruct_previous_level(parameters_);
    }
    if (!tracker_.cancelled)
        simulation(schedule.iterations(level_index), root_, level_index);

    bring_back(queue_, root_.heights, caller_heights_);
    bring_back(queue_, root_.depth, caller_depth_);
}

void Thermal::simulation(float iterations, LaplacianLevel& level, int level_index) {
    Setting setting = make_setting(parameters_, level.extent);
    const bool erosion_masked = is_given(parameters_.use_erosion_mask != 0, level.erosion_mask);
    const bool absorption_masked = is_given(parameters_.use_absorption_mask != 0, level.absorption_mask);
    std::optional<Direction> direction;
    for (float t = 0.0f; t < iterations; t += 1.0f) {
        const Phase phase = phase_of(t, iterations, level_index, level.parent == nullptr);
        if (phase == Phase::settling)
            setting.talus = setting.talus_step = 0.0f;
        if (phase == Phase::directional && !direction)
            direction.emplace(level.extent);
        with_constant(phase == Phase::directional, [&](auto directional) {
            Direction* const field = directional.value ? &*direction : nullptr;
            with_constant(erosion_masked,
                          [&](auto masked) { launch_loosen<directional.value, masked.value>(level, field, setting); });
            with_constant(absorption_masked,
                          [&](auto masked) { launch_move<directional.value, masked.value>(level, field, setting); });
        });
        std::swap(level.heights, level.next_heights);
        std::swap(level.depth, level.next_depth);
        tracker_.add(static_cast<double>(level.extent.size()));
        if (tracker_.cancelled)
            return;
    }
}

} // namespace tarn::thermal
