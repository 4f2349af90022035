#include "thermal/thermal_shaper.hpp"

#include <cmath>
#include <utility>

#include "grid/launch_cells.hpp"
#include "grid/pyramid.hpp"
#include "grid/resampling.hpp"
#include "grid/upsample.hpp"
#include "grid/with_constant.hpp"
#include "thermal/thermal_shaper_kernels.hpp"

namespace tarn::thermal_shaper {

namespace {

/// One iteration over a level, from `source` into `destination`.
template <bool has_mask>
void launch_iteration(sycl::queue& queue, const Extent<2>& extent, float* destination, const float* source,
                      const float* mask, const Iteration& iteration) {
    const int width = static_cast<int>(extent.x());
    const int height = static_cast<int>(extent.y());
    const auto cell = [=](const NeighbourRows& rows, std::ptrdiff_t row, int x) {
        destination[row + x] =
            process_cell<has_mask>(neighbourhood<false>(rows, width, x), iteration, has_mask ? mask[row + x] : 1.0f);
    };
    if (!queue.get_device().is_cpu()) {
        queue.parallel_for(extent.shape(), [=](sycl::id<2> index) {
            const int y = static_cast<int>(index[0]);
            cell(neighbour_rows(source, width, height, y), static_cast<std::ptrdiff_t>(y) * width,
                 static_cast<int>(index[1]));
        });
        return;
    }
    launch_rows(launch_on(queue), extent, 1, [=](int y, int first, int last, auto column_kind) {
        const NeighbourRows rows = neighbour_rows(source, width, height, y);
        const std::ptrdiff_t row = static_cast<std::ptrdiff_t>(y) * width;
        if constexpr (column_kind.value) {
            process_interior<has_mask>(destination + row, rows, width, first, last, iteration,
                                       has_mask ? mask + row : nullptr);
        } else {
            for (int x = first; x < last; ++x)
                cell(rows, row, x);
        }
    });
}

LaplacianLevel make_root(const Parameters& parameters, sycl::queue& queue, float* heights, const float* mask) {
    const Extent<2> extent(static_cast<std::uint32_t>(parameters.width), static_cast<std::uint32_t>(parameters.height));
    Grid mask_grid = Grid::input(extent.shape(), queue, mask);
    Grid height_grid(extent, queue, heights, true, true);
    return {queue, std::move(height_grid), std::move(mask_grid), nullptr};
}

} // namespace

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, Grid level_base, Grid level_mask, LaplacianLevel* finer)
    : queue(&level_queue), extent(level_base.extent()), parent(finer), base(std::move(level_base)),
      detail(extent, level_queue), mask(std::move(level_mask)) {}

std::unique_ptr<LaplacianLevel> LaplacianLevel::create_subsequent_level() {
    Grid next_base = resampling::next_level(base);
    Grid next_mask = resampling::next_level(mask);
    take_detail(*queue, base, next_base, detail);
    auto next = std::make_unique<LaplacianLevel>(*queue, std::move(next_base), std::move(next_mask), this);
    for (LaplacianLevel* finer = this; finer != nullptr; finer = finer->parent)
        ++finer->level;
    return next;
}

void LaplacianLevel::reconstruct_previous_level(const Parameters& parameters) {
    launch_upsampled(launch_on(*queue), parent->extent, static_cast<const float*>(base.data()), extent,
                     [base_cells = parent->base.data(), detail_cells = parent->detail.data(),
                      gain = parameters.detail_gain](std::ptrdiff_t row, int x, float up) {
                         base_cells[row + x] = up + detail_cells[row + x] * gain;
                     });
}

ThermalShaper::ThermalShaper(const Parameters& parameters, sycl::queue& queue, const HostCallbacks& record,
                             float* heights, const float* mask)
    : tracker_(record, queue), parameters_(parameters), queue_(&queue),
      root_(make_root(parameters_, queue, heights, mask)), heights_(root_.base) {}

void ThermalShaper::process() {
    const std::size_t cells = heights_.size();
    const Grid input_copy(root_.extent, *queue_);
    queue_->memcpy(input_copy.data(), heights_.data(), cells * sizeof(float));

    // The rule only ever takes material off. A rate that is not negative works on the mirrored terrain, where that
    // fills.
    const bool mirrored = !(parameters_.rate < 0.0f);
    if (mirrored)
        queue_->parallel_for(sycl::range<1>(cells), [base = heights_.data()](sycl::id<1> i) { base[i] = -base[i]; });
    else
        parameters_.rate = -parameters_.rate;

    const float levels = level_count();
    level_fraction_ = levels - std::floor(levels);
    std::deque<std::unique_ptr<LaplacianLevel>> coarser;
    LaplacianLevel* coarsest = &root_;
    for (int n = 1; n < static_cast<int>(std::ceil(levels)); ++n) {
        coarser.push_back(coarsest->create_subsequent_level());
        coarsest = coarser.back().get();
    }
    iterations_ = iteration_budget(coarser.size() + 1);

    for (; !coarser.empty(); coarser.pop_back()) {
        process_level(*coarser.back());
        coarser.back()->reconstruct_previous_level(parameters_);
    }
    process_level(root_);

    queue_->parallel_for(sycl::range<1>(cells),
                         [base = root_.base.data(), input = input_copy.data(), out = heights_.data(), mirrored,
                          blend = parameters_.blend](sycl::id<1> i) {
                             const float h = mirrored ? -base[i] : base[i];
                             out[i] = (h - input[i]) * blend + input[i];
                         });
}

float ThermalShaper::level_count() const {
    const float levels =
        std::log2(static_cast<float>(parameters_.width) * parameters_.level_multiplier / parameters_.level_divisor);
    return levels < 1.0f ? std::tanh(levels - 1.0f) + 1.0f : levels;
}

float ThermalShaper::iteration_budget(std::size_t levels) const {
    constexpr float full = 64.0f;
    const float ratio = 0.25f * (std::fabs(parameters_.rate) + 1.0f);
    float sum = full;
    float term = full;
    for (std::size_t k = 1; k < levels; ++k) {
        term *= ratio;
        sum += term;
    }
    return full * full / sum;
}

void ThermalShaper::process_level(LaplacianLevel& level) {
    with_constant(static_cast<bool>(level.mask), [&](auto has_mask) { process_level<has_mask.value>(level); });
}

template <bool has_mask>
void ThermalShaper::process_level(LaplacianLevel& level) {
    const float exponent = maximum(static_cast<float>(level.level - 1) + level_fraction_, 0.0f);
    const float weight = level.level > 0 ? 1.0f : level_fraction_;
    const float iterations = std::pow(0.5f, exponent) * weight * iterations_;
    const int count = static_cast<int>(std::ceil(iterations));
    if (count <= 0)
        return;

    const auto width = static_cast<float>(level.extent.x());
    Iteration iteration{};
    iteration.scale = parameters_.scale_numerator / (width * parameters_.level_divisor);
    iteration.inverse_scale = 1.0f / iteration.scale;
    iteration.curvature_weight = std::pow(1.5f, exponent);

    Grid source = level.base;
    Grid destination(level.extent, *queue_);
    for (int n = 0; n < count; ++n) {
        const bool last = n == count - 1;
        iteration.strength = last ? parameters_.rate * (iterations - std::floor(iterations)) : parameters_.rate;
        launch_iteration<has_mask>(*queue_, level.extent, destination.data(), source.data(), level.mask.data(),
                                   iteration);
        std::swap(source, destination);
    }
    level.base = source;
}

} // namespace tarn::thermal_shaper
