#include "flow/pit_filling.hpp"

#include <cmath>
#include <utility>
#include <vector>

#include "flow/pit_filling_kernels.hpp"
#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "grid/pyramid.hpp"
#include "grid/resampling.hpp"
#include "grid/upsample.hpp"

namespace tarn::flow {

namespace {

constexpr int passes = 20;

/// Raises each cell of `heights` that fewer than two neighbours lie below to the second lowest of them, into `next`.
void launch_pass(sycl::queue& queue, Grid& heights, Grid& next, Grid& raised) {
    queue.submit([&](sycl::handler& handler) {
        const Reader<float> from = read(heights, handler);
        const Writer<float> to = overwrite(next, handler);
        const Updater<float> marks = update(raised, handler);
        const Extent<2> extent(heights.get_range());
        const int columns = static_cast<int>(extent.x()), rows = static_cast<int>(extent.y());
        launch_with_neighbours(launch_on(handler, queue), extent, [=](int x, int y, auto interior) {
            const std::ptrdiff_t i = static_cast<std::ptrdiff_t>(y) * columns + x;
            const float level = fill_level<interior.value>(cells_of(from), x, y, columns, rows);
            const float height = cells_of(from)[i];
            const bool rises = height <= level; // a NaN stays
            cells_of(to)[i] = rises ? level : height;
            cells_of(marks)[i] = rises ? 1.0f : cells_of(marks)[i];
        });
    });
}

} // namespace

int coarser_levels(int width) {
    const int levels = static_cast<int>(std::log2(static_cast<float>(width) * 0.0078125f));
    return levels > 1 ? levels - 1 : 0;
}

int least_height(int width) {
    return 1 << coarser_levels(width);
}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, Grid level_heights)
    : queue(level_queue), extent(level_heights.get_range()), heights(std::move(level_heights)), detail(extent),
      raised(extent) {}

std::unique_ptr<LaplacianLevel> LaplacianLevel::create_subsequent_level() {
    Grid coarse = resampling::downsample_magic(heights, queue);
    take_detail(queue, heights, coarse, detail);
    auto level = std::make_unique<LaplacianLevel>(queue, coarse);
    level->parent = this;
    fill(queue, level->raised, 0.0f);
    return level;
}

void LaplacianLevel::fill_pits() {
    Grid next(extent);
    for (int pass = 0; pass < passes; ++pass) {
        launch_pass(queue, heights, next, raised);
        std::swap(heights, next);
    }
}

void LaplacianLevel::reconstruct() {
    queue.submit([&](sycl::handler& handler) {
        const Reader<float> coarse = read(heights, handler), marks = read(raised, handler);
        const Reader<float> fine_detail = read(parent->detail, handler);
        const Writer<float> fine = overwrite(parent->heights, handler);
        launch_fine_cells(launch_on(handler, queue), Extent<2>(parent->extent), Extent<2>(extent),
                          [=](std::ptrdiff_t row, int x, const CoarseTaps& taps) {
                              const bool untouched = sample_9331(cells_of(marks), taps) < 0.001f;
                              cells_of(fine)[row + x] = sample_9331(cells_of(coarse), taps) +
                                                        kept_if(untouched, cells_of(fine_detail)[row + x]);
                          });
    });
}

void fill_pits(Grid& heights, sycl::queue& queue) {
    const int coarser = coarser_levels(static_cast<int>(heights.get_range()[1]));
    LaplacianLevel finest(queue, heights);
    std::vector<std::unique_ptr<LaplacianLevel>> levels;
    LaplacianLevel* coarsest = &finest;
    for (int n = 0; n < coarser; ++n) {
        levels.push_back(coarsest->create_subsequent_level());
        coarsest = levels.back().get();
    }
    for (; !levels.empty(); levels.pop_back()) {
        levels.back()->fill_pits();
        levels.back()->reconstruct();
    }
}

} // namespace tarn::flow
