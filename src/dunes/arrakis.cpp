#include "dunes/arrakis.hpp"

#include <cmath>
#include <utility>

#include "dunes/arrakis_kernels.hpp"
#include "grid/blur.hpp"
#include "grid/launch_cells.hpp"

namespace tarn::arrakis {

namespace {

/// Radius of the blur that leaves the large shapes of the terrain, which the wind bends around, in cells.
constexpr float blur_radius = 12.0f;

/// Passes of avalanches in a round: first on slopes above repose, then a slight smoothing of all sand.
constexpr int repose_passes = 8;
constexpr int smoothing_passes = 2;

/// Cells of a row that a CPU's work-item takes at a time.
constexpr int piece = 256;

/// Calls `cells(first, y, count, capacity)` for the cells of the grid: one at a time on GPUs, pieces of rows on CPUs.
/// The capacity, a constant, bounds the count.
template <class Cells>
void launch_pieces(sycl::queue& queue, const Extent<2>& extent, Cells cells) {
    if (!queue.get_device().is_cpu()) {
        queue.parallel_for(extent.shape(), [=](sycl::id<2> index) {
            cells(static_cast<int>(index[1]), static_cast<int>(index[0]), 1, std::integral_constant<int, 1>{});
        });
        return;
    }
    launch_rows(launch_on(queue), extent, 0, [=](int y, int begin, int end, auto) {
        for (int first = begin; first < end; first += piece)
            cells(first, y, minimum(piece, end - first), std::integral_constant<int, piece>{});
    });
}

/// The grids that only a run of rounds needs. Between saltation and the next round's blur the blurred heights and the
/// shelter are not needed; the avalanches work in their place.
struct Scratch {
    explicit Scratch(const LaplacianLevel& level)
        : blurred(level.extent, *level.queue), blur_scratch(level.extent, *level.queue),
          shelter(level.extent, *level.queue), wind_x(level.extent, *level.queue), wind_y(level.extent, *level.queue) {}

    Wind wind() const { return {wind_x.data(), wind_y.data()}; }

    Grid blurred;
    Grid blur_scratch;
    /// 1 in the open wind, 0 in full wind shadow.
    Grid shelter;
    /// Unit wind.
    Grid wind_x;
    Grid wind_y;
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
void launch_wind(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& setting) {
    launch_cells(launch_on(*level.queue), level.extent, 1,
                 [=, blurred = std::as_const(scratch.blurred).data(), wind_x = scratch.wind_x.data(),
                  wind_y = scratch.wind_y.data()](int x, int y, auto interior) {
                     const std::ptrdiff_t i = setting.index(x, y);
                     wind_at<interior.value>(blurred, x, y, setting, wind_x[i], wind_y[i]);
                 });
}

template <bool wide>
void launch_find_shelter(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& setting) {
    launch_pieces(*level.queue, level.extent,
                  [=, wind = scratch.wind(), height = level.height.data(), sand = level.sand.data(),
                   shelter = scratch.shelter.data(),
                   sand_change = level.sand_change.data()](int first, int y, int count, auto capacity) {
                      find_shelter<wide, capacity.value>(first, y, count, setting, wind, height, sand, shelter,
                                                         sand_change);
                  });
}

template <bool wide>
void launch_saltation(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& setting, int round) {
    launch_pieces(*level.queue, level.extent,
                  [=, wind = scratch.wind(), sand = level.sand.data(), shelter = scratch.shelter.data(),
                   sand_change = level.sand_change.data()](int first, int y, int count, auto capacity) {
                      saltation<wide, capacity.value>(first, y, count, round, setting, wind, shelter, sand,
                                                      sand_change);
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
                     sand_change[i] = 0.0f;
                 });
}

/// One pass of avalanches: what slides off each cell, then what that makes of the sand and of the heights, which go
/// from `height` into `next_height`.
void launch_avalanche(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& setting, const Pass& pass,
                      const float* height, float* next_height) {
    float* sand = level.sand.data();
    float* moved = scratch.blurred.data();
    float* inverse_sum = scratch.blur_scratch.data();
    launch_with_neighbours(launch_on(*level.queue), level.extent, [=](int x, int y, auto interior) {
        const std::ptrdiff_t i = setting.index(x, y);
        const Slide slide = avalanche<interior.value>(x, y, setting, height, sand, pass);
        moved[i] = slide.moved;
        inverse_sum[i] = slide.inverse_sum;
    });
    launch_with_neighbours(
        launch_on(*level.queue), level.extent, [=, ground = level.ground.data()](int x, int y, auto interior) {
            const std::ptrdiff_t i = setting.index(x, y);
            const float depth =
                sand[i] + slid_sand<interior.value>(x, y, setting, height, moved, inverse_sum, pass.threshold);
            sand[i] = depth;
            next_height[i] = ground[i] + depth;
        });
}

void launch_avalanches(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& setting, float repose) {
    float* height = level.height.data();
    float* next_height = scratch.shelter.data();
    static_assert((repose_passes + smoothing_passes) % 2 == 0, "the last pass writes the level's own heights");
    for (int pass = 0; pass < repose_passes + smoothing_passes; ++pass) {
        const bool smoothing = pass >= repose_passes;
        launch_avalanche(level, scratch, setting, smoothing ? Pass{0.0f, 0.5f} : Pass{repose, 1.0f}, height,
                         next_height);
        std::swap(height, next_height);
    }
}

template <bool wide>
void launch_round(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& setting, float repose,
                  int round) {
    blur::blur(*level.queue, level.height.data(), scratch.blur_scratch.data(), scratch.blurred.data(), level.extent,
               blur_radius);
    launch_wind(level, scratch, setting);
    launch_find_shelter<wide>(level, scratch, setting);
    launch_saltation<wide>(level, scratch, setting, round);
    launch_apply(level);
    launch_avalanches(level, scratch, setting, repose);
}

template <bool wide>
void launch_streamlines(const LaplacianLevel& level, const Scratch& scratch, const RunConstants& setting) {
    const std::size_t lines = level.extent.shape().size() >> 8;
    if (lines == 0 || setting.columns < 16)
        return;
    level.queue->parallel_for(sycl::range<1>(lines),
                              [=, wind = scratch.wind(), wind_trace = level.wind_trace.data()](sycl::id<1> line) {
                                  draw_streamline<wide>(static_cast<std::uint32_t>(line[0]), setting, wind, wind_trace);
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
      ground(extent, level_queue), wind_trace(std::move(level_wind_trace)), detail(extent, level_queue),
      sand_change(extent, level_queue) {
    launch_cells(launch_on(level_queue), extent, 0,
                 [width = static_cast<std::ptrdiff_t>(extent.x()), height_cells = height.data(),
                  sand_cells = sand.data(), ground_cells = ground.data(), trace_cells = wind_trace.data(),
                  detail_cells = detail.data(), change_cells = sand_change.data()](int x, int y, auto) {
                     const std::ptrdiff_t i = y * width + x;
                     trace_cells[i] = 0.0f;
                     change_cells[i] = 0.0f;
                     detail_cells[i] = 0.0f;
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
    const RunConstants setting = constants_of(parameters_, level.extent);
    const float repose = repose_step(parameters_);
    const bool wide = setting.columns >= longer_than_hops && setting.rows >= longer_than_hops;
    for (int round = 0; round < count; ++round) {
        if (wide)
            launch_round<true>(level, scratch, setting, repose, round);
        else
            launch_round<false>(level, scratch, setting, repose, round);
        tracker_.add(static_cast<double>(level.height.size()));
        if (tracker_.cancelled)
            return;
    }

    level.queue->memset(level.wind_trace.data(), 0, level.wind_trace.size() * sizeof(float)).wait();
    if (wide)
        launch_streamlines<true>(level, scratch, setting);
    else
        launch_streamlines<false>(level, scratch, setting);
}

} // namespace tarn::arrakis
