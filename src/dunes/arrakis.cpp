#include "dunes/arrakis.hpp"

#include <array>
#include <cmath>
#include <utility>

#include "dunes/arrakis_kernels.hpp"
#include "dunes/avalanche_kernels.hpp"
#include "grid/blur.hpp"
#include "grid/launch_cells.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/with_constant.hpp"

namespace tarn::arrakis {

namespace {

/// Radius of the blur that leaves the large shapes of the terrain, which the wind bends around, in cells.
constexpr float blur_radius = 12.0f;

/// Passes of avalanches in a round: first on slopes above repose, then a slight smoothing of all sand.
constexpr int repose_passes = 8;
constexpr int smoothing_passes = 2;

/// The grids that only a run of rounds needs. Once the wind is known the blurred heights are not needed before the next
/// round, and after saltation neither is the shelter: saltation and avalanches work in their place.
/// Rows that a CPU's work-item takes of what costs extra at both ends of its rows.
constexpr int rows_at_a_time = 128;

/// Work-items of a sweep at most; each has rows of its own.
constexpr int sweep_items = 128;

int tile_count(const Extent<2>& extent) {
    return static_cast<int>(((extent.x() - 1) / tile_columns + 1) * ((extent.y() - 1) / rows_at_a_time + 1));
}

/// Sweeps are for CPUs alone.
usm_ptr<SweepRows, 1> make_sweep_rows(const LaplacianLevel& level) {
    const int items = level.queue->get_device().is_cpu() ? minimum(tile_count(level.extent), sweep_items) : 0;
    return {sycl::range<1>(static_cast<std::size_t>(items)), *level.queue};
}

struct Scratch {
    explicit Scratch(const LaplacianLevel& level)
        : blurred(level.extent, *level.queue), blur_scratch(level.extent, *level.queue),
          shelter(level.extent, *level.queue), wind_x(level.extent, *level.queue), wind_y(level.extent, *level.queue),
          sweep_rows(make_sweep_rows(level)) {}

    Wind wind() const { return {wind_x.data(), wind_y.data()}; }

    Grid blurred;
    Grid blur_scratch;
    /// 1 in the open wind, 0 in full wind shadow.
    Grid shelter;
    /// Unit wind.
    Grid wind_x;
    Grid wind_y;
    usm_ptr<SweepRows, 1> sweep_rows;
};

RunConstants constants_of(const Parameters& parameters, const Extent<2>& extent) {
    const float cell = cell_width(parameters);
    return {static_cast<int>(extent.x()),
            static_cast<int>(extent.y()),
            static_cast<float>(extent.x()),
            static_cast<float>(extent.y()),
            cell,
            1.0f / cell};
}

/// The wind of this round, everywhere, before anyone searches upwind.
void launch_wind(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants) {
    launch_cells(launch_on(*level.queue), level.extent, 1,
                 [=, blurred = std::as_const(scratch.blurred).data(), wind_x = scratch.wind_x.data(),
                  wind_y = scratch.wind_y.data()](int x, int y, auto interior) {
                     const std::ptrdiff_t i = constants.index(x, y);
                     wind_at<interior.value>(blurred, x, y, constants, wind_x[i], wind_y[i]);
                 });
}

/// Calls `part(x, y, count, capacity)` for all cells of a grid by parts of rows.
template <class Part>
void launch_row_parts(sycl::queue& queue, const RunConstants& constants, Part part) {
    const auto cells = static_cast<std::uint32_t>(constants.columns * constants.rows);
    launch_lanes(launch_on(queue), cells, std::uint32_t{cells_at_a_time},
                 [=](std::uint32_t first, std::uint32_t last, auto lanes) {
                     const auto begin = static_cast<int>(first), end = static_cast<int>(last);
                     if constexpr (lanes.value == 1)
                         part(begin % constants.columns, begin / constants.columns, 1, lanes);
                     else
                         for_row_parts(begin, end, constants, [&](int x, int y, int count) {
                             part(x, y, count, std::integral_constant<int, cells_at_a_time>{});
                         });
                 });
}

template <bool wide>
void launch_find_shelter(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants) {
    launch_row_parts(*level.queue, constants,
                     [=, wind = scratch.wind(), height = level.height.data(), sand = level.sand.data(),
                      shelter = scratch.shelter.data(),
                      sand_change = level.sand_change.data()](int x, int y, int count, auto capacity) {
                         find_shelter<wide, capacity.value>(x, y, count, constants, wind, height, sand, shelter,
                                                            sand_change);
                     });
}

/// On a GPU each grain adds its sand where it lands. On a CPU the grains leave a note of where they have landed, and
/// rows collect what is theirs: without atomic adds, which take most of the time there, and in the same order for any
/// number of threads.
template <bool wide>
void launch_saltation(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants, int round) {
    sycl::queue& queue = *level.queue;
    const Wind wind = scratch.wind();
    const float* const sand = level.sand.data();
    const float* const shelter = scratch.shelter.data();
    float* const sand_change = level.sand_change.data();
    float* const landed_x = scratch.blurred.data();
    float* const landed_y = scratch.blur_scratch.data();
    launch_row_parts(queue, constants, [=](int x, int y, int count, auto capacity) {
        saltation<wide, capacity.value>(x, y, count, round, constants, wind, shelter, sand,
                                        [=](int from, float to_x, float to_y, float amount) {
                                            if constexpr (capacity.value == 1) {
                                                atomic_add_bilinear(sand_change, constants, to_x, to_y, amount);
                                            } else {
                                                landed_x[from] = to_x;
                                                landed_y[from] = to_y;
                                            }
                                        });
    });
    if (!queue.get_device().is_cpu())
        return;
    queue.parallel_for(sycl::range<1>(static_cast<std::size_t>((constants.rows - 1) / rows_at_a_time + 1)),
                       [=](sycl::id<1> item) {
                           const int first = static_cast<int>(item[0]) * rows_at_a_time;
                           lay_down(first, minimum(first + rows_at_a_time, constants.rows), constants,
                                    {landed_x, landed_y}, shelter, sand, sand_change);
                       });
}

/// Lays down what the saltation carried.
void launch_apply(const LaplacianLevel& level) {
    launch_cells(launch_on(*level.queue), level.extent, 0,
                 [width = static_cast<std::ptrdiff_t>(level.extent.x()), sand = level.sand.data(),
                  sand_change = level.sand_change.data(), ground = level.ground.data(),
                  height = level.height.data()](int x, int y, auto) {
                     const std::ptrdiff_t i = y * width + x;
                     const float depth = sand[i] + sand_change[i];
                     sand[i] = depth;
                     height[i] = ground[i] + depth;
                 });
}

/// One pass of avalanches: what slides off each cell, then what that makes of the sand and of the heights, which go
/// from `height` into `next_height`.
void launch_avalanche(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants,
                      const Pass& pass, const float* height, float* next_height) {
    float* sand = level.sand.data();
    float* moved = scratch.blurred.data();
    float* inverse_sum = scratch.blur_scratch.data();
    level.queue->parallel_for(level.extent.shape(), [=](sycl::id<2> index) {
        const int x = static_cast<int>(index[1]), y = static_cast<int>(index[0]);
        const std::ptrdiff_t i = constants.index(x, y);
        const Slide slide = avalanche(x, y, constants, height, sand, pass);
        moved[i] = slide.moved;
        inverse_sum[i] = slide.inverse_sum;
    });
    level.queue->parallel_for(level.extent.shape(), [=, ground = level.ground.data()](sycl::id<2> index) {
        const int x = static_cast<int>(index[1]), y = static_cast<int>(index[0]);
        const std::ptrdiff_t i = constants.index(x, y);
        const float depth = sand[i] + slid_sand(x, y, constants, height, moved, inverse_sum, pass.threshold);
        sand[i] = depth;
        next_height[i] = ground[i] + depth;
    });
}

Pass pass_at(int pass, float repose) {
    return pass < repose_passes ? Pass{repose, 1.0f} : Pass{0.0f, 0.5f};
}

/// The avalanches of a round pass by pass.
void launch_passes(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants, float repose) {
    launch_apply(level);
    float* height = level.height.data();
    float* next_height = scratch.shelter.data();
    static_assert((repose_passes + smoothing_passes) % 2 == 0, "the last pass writes the level's own heights");
    for (int pass = 0; pass < repose_passes + smoothing_passes; ++pass) {
        launch_avalanche(level, scratch, constants, pass_at(pass, repose), height, next_height);
        std::swap(height, next_height);
    }
}

/// The avalanches of a round, several passes at a time.
void launch_sweeps(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants, float repose) {
    sycl::queue& queue = *level.queue;
    const int tiles = tile_count(level.extent), tiles_in_row = (constants.columns - 1) / tile_columns + 1;
    const int items = static_cast<int>(scratch.sweep_rows.size());
    const auto sweep = [&](int first_pass, const SweepGrids& grids) {
        std::array<Pass, passes_per_sweep> passes;
        for (std::size_t pass = 0; pass < passes.size(); ++pass)
            passes[pass] = pass_at(first_pass + static_cast<int>(pass), repose);
        queue.parallel_for(scratch.sweep_rows.shape(), [=, in_hand = scratch.sweep_rows.data()](sycl::id<1> item) {
            for (int tile = static_cast<int>(item[0]); tile < tiles; tile += items)
                sweep_tile(tile % tiles_in_row * tile_columns, tile / tiles_in_row * rows_at_a_time, rows_at_a_time,
                           grids, constants, passes, in_hand[item[0]]);
        });
    };
    static_assert(repose_passes + smoothing_passes == 2 * passes_per_sweep);
    const float* const ground = level.ground.data();
    float* const sand = level.sand.data();
    float* const between = scratch.blurred.data();
    sweep(0, {ground, sand, level.sand_change.data(), between, nullptr});
    sweep(passes_per_sweep, {ground, between, nullptr, sand, level.height.data()});
}

template <bool wide>
void launch_round(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants, float repose,
                  int round) {
    blur::blur(*level.queue, level.height.data(), scratch.blur_scratch.data(), scratch.blurred.data(), level.extent,
               blur_radius);
    launch_wind(level, scratch, constants);
    launch_find_shelter<wide>(level, scratch, constants);
    launch_saltation<wide>(level, scratch, constants, round);
    if (level.queue->get_device().is_cpu())
        launch_sweeps(level, scratch, constants, repose);
    else
        launch_passes(level, scratch, constants, repose);
}

template <bool wide>
void launch_streamlines(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& constants) {
    const std::size_t lines = level.extent.shape().size() >> 8;
    if (lines == 0 || constants.columns < 16)
        return;
    level.queue->parallel_for(
        sycl::range<1>(lines), [=, wind = scratch.wind(), wind_trace = level.wind_trace.data()](sycl::id<1> line) {
            draw_streamline<wide>(static_cast<std::uint32_t>(line[0]), constants, wind, wind_trace);
        });
}

LaplacianLevel make_level(const Extent<2>& extent, sycl::queue& queue, float* height, float* sand, float* wind_trace) {
    Grid wind_trace_grid(extent, queue, wind_trace, true, true);
    Grid sand_grid(extent, queue, sand, true, true);
    Grid height_grid(extent, queue, height, true, true);
    return {queue, std::move(height_grid), std::move(sand_grid), std::move(wind_trace_grid)};
}

} // namespace

float round_count(float duration) {
    return std::ceil(duration * 2560.0f);
}

float cell_width(const Parameters& parameters) {
    return parameters.terrain_size / (parameters.terrain_height * static_cast<float>(parameters.width));
}

float repose_step(const Parameters& parameters) {
    const double angle = static_cast<double>(parameters.repose_angle) * 0.00555555569 * 3.14159265358979;
    return static_cast<float>(std::atan(angle)) * cell_width(parameters);
}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, Grid level_height, Grid level_sand, Grid level_wind_trace)
    : queue(&level_queue), extent(level_height.extent()), height(std::move(level_height)), sand(std::move(level_sand)),
      ground(extent, level_queue), wind_trace(std::move(level_wind_trace)), sand_change(extent, level_queue) {
    launch_cells(launch_on(level_queue), extent, 0,
                 [width = static_cast<std::ptrdiff_t>(extent.x()), height_cells = height.data(),
                  sand_cells = sand.data(), ground_cells = ground.data(),
                  trace_cells = wind_trace.data()](int x, int y, auto) {
                     const std::ptrdiff_t i = y * width + x;
                     trace_cells[i] = 0.0f;
                     ground_cells[i] = height_cells[i];
                     height_cells[i] = sand_cells[i] + height_cells[i];
                 });
}

Arrakis::Arrakis(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record, float* height,
                 float* sand, float* wind_trace)
    : tracker_(record, caller_queue), queue_(caller_queue),
      resolution_(static_cast<std::uint32_t>(parameters.width), static_cast<std::uint32_t>(parameters.height)),
      level_(make_level(resolution_, queue_, height, sand, wind_trace)), parameters_(parameters) {}

void Arrakis::run() {
    const float rounds = round_count(parameters_.duration);
    tracker_.add_total(static_cast<double>(level_.height.size()) * static_cast<double>(rounds));
    simulation(rounds, level_);
}

void Arrakis::simulation(float rounds, LaplacianLevel& level) {
    const int count = static_cast<int>(rounds);
    if (count == 0)
        return; // no round, no wind to draw

    const Scratch scratch(level);
    const RunConstants constants = constants_of(parameters_, level.extent);
    const float repose = repose_step(parameters_);
    const bool is_wide = constants.columns >= longer_than_hops && constants.rows >= longer_than_hops;
    for (int round = 0; round < count; ++round) {
        with_constant(is_wide, [&](auto wide) { launch_round<wide.value>(level, scratch, constants, repose, round); });
        tracker_.add(static_cast<double>(level.height.size()));
        if (tracker_.cancelled)
            return;
    }

    level.queue->memset(level.wind_trace.data(), 0, level.wind_trace.size() * sizeof(float)).wait();
    with_constant(is_wide, [&](auto wide) { launch_streamlines<wide.value>(level, scratch, constants); });
}

} // namespace tarn::arrakis
