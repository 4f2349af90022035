// Avalanches: sand slides off slopes above a threshold, to all lower neighbours in proportion to the falls. The grid is
// a bounded plane here: nothing slides over its edges.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <limits>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "dunes/arrakis_kernels.hpp"
#include "grid/numeric.hpp"

namespace tarn::arrakis {

/// What one pass of avalanches needs besides the grids. `strength` scales the slides.
struct Pass {
    float threshold;
    float strength;
};

/// How much a fall to a neighbour counts: only above the threshold, which is not negative.
inline float slide_weight(float fall, float threshold) {
    return fall > threshold ? (fall - threshold) * 0.4f + fall * 0.6f : 0.0f;
}

/// The sand that slides off a cell, and the inverse sum of the weights of its neighbours' shares; both 0 where none
/// does.
struct Slide {
    float moved;
    float inverse_sum;
};

inline Slide slide_of(float sum, float top, float sand, float strength) {
    const float moved = minimum(top / ((top / sum) + 1.0f), sand) * strength;
    const float inverse_sum = 1.0f / sum;
    return {sum > 0.0f ? moved : 0.0f, sum > 0.0f ? inverse_sum : 0.0f};
}

/// What a neighbour of the given weight takes of a slide.
inline float share_of(float weight, const Slide& slide) {
    const float share = (weight * slide.moved) * slide.inverse_sum;
    return weight > 0.0f ? share : 0.0f;
}

/// Brings a fall to a straight and to a diagonal neighbour down to unit distance.
inline constexpr float straight = 1.0f;
inline constexpr float diagonal = 0.7071f;

/// Calls visit(offset, nearness) for each of the eight neighbours inside the grid, column by column: where it lies from
/// the cell, and the factor of its distance.
template <class Visit>
inline void for_each_neighbour(int x, int y, const RunConstants& s, Visit visit) {
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy)
            if ((dx != 0 || dy != 0) && x + dx >= 0 && x + dx < s.columns && y + dy >= 0 && y + dy < s.rows)
                visit(static_cast<std::ptrdiff_t>(dy) * s.columns + dx, dx == 0 || dy == 0 ? straight : diagonal);
}

/// What slides off a cell.
inline Slide avalanche(int x, int y, const RunConstants& s, const float* height, const float* sand, const Pass& pass) {
    const std::ptrdiff_t here = s.index(x, y);
    float sum = 0.0f;
    float top = 0.0f;
    for_each_neighbour(x, y, s, [&](std::ptrdiff_t offset, float nearness) {
        const float weight = slide_weight((height[here] - height[here + offset]) * nearness, pass.threshold);
        sum += weight;
        top = maximum(top, weight);
    });
    return slide_of(sum, top, sand[here], pass.strength);
}

/// What a cell gains and loses by the slides of a pass: its neighbours' weights are worked out once more, from where
/// they stand, so that nobody has to add to somebody else's cell.
inline float slid_sand(int x, int y, const RunConstants& s, const float* height, const float* moved,
                       const float* inverse_sum, float threshold) {
    const std::ptrdiff_t here = s.index(x, y);
    float change = 0.0f;
    for_each_neighbour(x, y, s, [&](std::ptrdiff_t offset, float nearness) {
        const std::ptrdiff_t there = here + offset;
        const float weight = slide_weight((height[there] - height[here]) * nearness, threshold);
        change += share_of(weight, {moved[there], inverse_sum[there]});
    });
    return change - moved[here];
}

// ---------------------------------------------------------------------------------------------------------------------
// Several passes in one sweep, for CPUs
//
// A pass reads and writes little and computes little: most of its time would go by waiting for memory. So a tile of the
// grid goes through several passes while it is in the cache. A row enters the first pass, and each pass follows two
// rows behind the one before it: one for the neighbours that a slide looks at, one for those that a cell gains from.
// The tile takes in so many rows and columns around it that what is wrong at its own edges, two cells a pass, never
// reaches it.

/// Passes of a sweep, and the cells around a tile that they spoil.
inline constexpr int passes_per_sweep = 5;
inline constexpr int spoilt_cells = 2 * passes_per_sweep;

inline constexpr int tile_columns = 512 - 2 * spoilt_cells;

/// A row of a tile, with the cells around it and one more on either side, which lies off the grid or counts as such.
using TileRow = float[tile_columns + 2 * spoilt_cells + 2];

/// Where in the columns of neighbours a share goes to, column by column as they are added up.
enum Direction { up_left, left, down_left, up, down, up_right, right, down_right, direction_count };

/// A row is taken in pieces: where nothing slides, which in most passes is nearly everywhere, a look at the falls is
/// all that is done.
inline constexpr int piece_columns = 64;
inline constexpr int pieces_in_row = (tile_columns + 2 * spoilt_cells - 1) / piece_columns + 1;

/// The slides of a row: what leaves each cell and where it goes. All of it is 0 in pieces where nothing slides; one
/// more piece on either side stands for what lies off the row.
struct SlideRow {
    TileRow moved;
    TileRow shares[direction_count];
    bool slides[pieces_in_row + 2];
};

/// The rows between two passes that are in use.
struct StateRows {
    TileRow height[3];
    TileRow sand[3];
};

/// The rows of a tile that its passes have in hand: more than a thread's stack should have to hold.
struct SweepRows {
    StateRows states[passes_per_sweep + 1]; ///< before the first pass, and after each
    SlideRow slides[passes_per_sweep][3];
};

inline void clear(SlideRow& row) {
    std::fill(std::begin(row.moved), std::end(row.moved), 0.0f);
    for (TileRow& shares : row.shares)
        std::fill(std::begin(shares), std::end(shares), 0.0f);
    std::fill(std::begin(row.slides), std::end(row.slides), false);
}

/// A row that is not there: nothing slides to it.
inline void set_off_grid(TileRow& height) {
    std::fill(std::begin(height), std::end(height), std::numeric_limits<float>::infinity());
}

/// Whether any of the cells from `first` to before `last` stands above a neighbour by more than the threshold.
inline bool is_steep(const float* above, const float* here, const float* below, int first, int last, float threshold) {
    int steep = 0;
    TARN_INDEPENDENT_ITERATIONS
    for (int k = first; k < last; ++k) {
        const float lowest_straight = minimum(minimum(here[k - 1], here[k + 1]), minimum(above[k], below[k]));
        const float lowest_diagonal = minimum(minimum(above[k - 1], above[k + 1]), minimum(below[k - 1], below[k + 1]));
        steep |= !((here[k] - lowest_straight) * straight <= threshold); // so that NaN is looked at, too
        steep |= !((here[k] - lowest_diagonal) * diagonal <= threshold);
    }
    return steep != 0;
}

/// The slides of the cells from `first` to before `last` of a row, from the heights in three rows.
inline void find_slides(const float* above, const float* here, const float* below, const float* sand, int first,
                        int last, const Pass& pass, SlideRow& row) {
    float* const moved = row.moved;
    TileRow(&shares)[direction_count] = row.shares;
    TARN_INDEPENDENT_ITERATIONS
    for (int k = first; k < last; ++k) {
        const float h = here[k];
        const auto weight = [&](float neighbour, float nearness) {
            return slide_weight((h - neighbour) * nearness, pass.threshold);
        };
        const float w0 = weight(above[k - 1], diagonal), w1 = weight(here[k - 1], straight);
        const float w2 = weight(below[k - 1], diagonal), w3 = weight(above[k], straight);
        const float w4 = weight(below[k], straight), w5 = weight(above[k + 1], diagonal);
        const float w6 = weight(here[k + 1], straight), w7 = weight(below[k + 1], diagonal);
        const float sum = ((((((w0 + w1) + w2) + w3) + w4) + w5) + w6) + w7;
        const float top = maximum(maximum(maximum(maximum(w0, w1), maximum(w2, w3)), maximum(w4, w5)), maximum(w6, w7));
        const Slide slide = slide_of(sum, top, sand[k], pass.strength);
        moved[k] = slide.moved;
        shares[up_left][k] = share_of(w0, slide);
        shares[left][k] = share_of(w1, slide);
        shares[down_left][k] = share_of(w2, slide);
        shares[up][k] = share_of(w3, slide);
        shares[down][k] = share_of(w4, slide);
        shares[up_right][k] = share_of(w5, slide);
        shares[right][k] = share_of(w6, slide);
        shares[down_right][k] = share_of(w7, slide);
    }
}

/// The slides of a row of `count` cells.
inline void find_slides(const float* above, const float* here, const float* below, const float* sand, int count,
                        const Pass& pass, SlideRow& row) {
    for (int piece = 0, first = 1; first <= count; ++piece, first += piece_columns) {
        const int last = minimum(first + piece_columns, count + 1);
        bool& slides = row.slides[piece + 1];
        const bool slid = slides;
        // Without a threshold there is hardly a cell that does not slide.
        slides = pass.threshold == 0.0f || is_steep(above, here, below, first, last, pass.threshold);
        if (slides) {
            find_slides(above, here, below, sand, first, last, pass, row);
        } else if (slid) {
            std::fill(row.moved + first, row.moved + last, 0.0f);
            for (TileRow& shares : row.shares)
                std::fill(shares + first, shares + last, 0.0f);
        }
    }
}

/// What the cells from `first` to before `last` of a row gain and lose by the slides in three rows.
inline void let_slide(const SlideRow& above, const SlideRow& here, const SlideRow& below, const float* sand, int first,
                      int last, float* next_sand) {
    TARN_INDEPENDENT_ITERATIONS
    for (int k = first; k < last; ++k) {
        float change = 0.0f;
        change += above.shares[down_right][k - 1];
        change += here.shares[right][k - 1];
        change += below.shares[up_right][k - 1];
        change += above.shares[down][k];
        change += below.shares[up][k];
        change += above.shares[down_left][k + 1];
        change += here.shares[left][k + 1];
        change += below.shares[up_left][k + 1];
        next_sand[k] = sand[k] + (change - here.moved[k]);
    }
}

/// The sand of a row of `count` cells after the slides in three rows, and its heights over `ground`, which is a row of
/// the grid.
inline void let_slide(const SlideRow& above, const SlideRow& here, const SlideRow& below, const float* sand,
                      const float* ground, int count, float* next_sand, float* next_height) {
    for (int piece = 0, first = 1; first <= count; ++piece, first += piece_columns) {
        const int last = minimum(first + piece_columns, count + 1);
        const auto slides = [=](const SlideRow& row) {
            return row.slides[piece] || row.slides[piece + 1] || row.slides[piece + 2];
        };
        if (slides(above) || slides(here) || slides(below))
            let_slide(above, here, below, sand, first, last, next_sand);
        else
            for (int k = first; k < last; ++k)
                next_sand[k] = sand[k] + 0.0f; // as if 0 had been added, which makes 0 of -0
    }
    TARN_INDEPENDENT_ITERATIONS
    for (int k = 1; k <= count; ++k)
        next_height[k] = ground[k - 1] + next_sand[k];
}

/// The grids of a sweep: the sand before and after it, which must differ. Sand that is yet to be laid down is added
/// before the first pass, if there is any; heights are written only if somebody asks for them.
struct SweepGrids {
    const float* ground;
    const float* sand;
    const float* sand_change;
    float* next_sand;
    float* next_height;
};

/// Takes the tile that begins at (x0, y0) through the passes. What `in_hand` held before does not matter.
inline void sweep_tile(int x0, int y0, int tile_rows, const SweepGrids& grids, const RunConstants& s,
                       const std::array<Pass, passes_per_sweep>& passes, SweepRows& in_hand) {
    const int x1 = minimum(x0 + tile_columns, s.columns), y1 = minimum(y0 + tile_rows, s.rows);
    const int left_edge = maximum(x0 - spoilt_cells, 0), right_edge = minimum(x1 + spoilt_cells, s.columns);
    const int first = maximum(y0 - spoilt_cells, 0), last = minimum(y1 + spoilt_cells, s.rows);
    const int count = right_edge - left_edge;

    StateRows(&states)[passes_per_sweep + 1] = in_hand.states;
    SlideRow(&slides)[passes_per_sweep][3] = in_hand.slides;
    for (StateRows& state : states)
        for (TileRow& height : state.height)
            set_off_grid(height);
    for (auto& rows : slides)
        for (SlideRow& row : rows)
            clear(row);

    const auto slot = [&](int y) {
        return (y - first + 3) % 3;
    };
    const auto take_in = [&](int y) {
        const std::ptrdiff_t row = s.index(left_edge, y);
        float* const sand = states[0].sand[slot(y)] + 1;
        float* const height = states[0].height[slot(y)] + 1;
        std::copy_n(grids.sand + row, count, sand);
        if (grids.sand_change != nullptr)
            for (int k = 0; k < count; ++k)
                sand[k] += grids.sand_change[row + k];
        for (int k = 0; k < count; ++k)
            height[k] = grids.ground[row + k] + sand[k];
    };
    const auto hand_out = [&](int y) {
        const StateRows& result = states[passes_per_sweep];
        const int from = 1 + x0 - left_edge, columns = x1 - x0;
        std::copy_n(result.sand[slot(y)] + from, columns, grids.next_sand + s.index(x0, y));
        if (grids.next_height != nullptr)
            std::copy_n(result.height[slot(y)] + from, columns, grids.next_height + s.index(x0, y));
    };

    for (int entering = first; entering < last + spoilt_cells; ++entering) {
        if (entering < last)
            take_in(entering);
        for (int pass = 0; pass < passes_per_sweep; ++pass) {
            const int newest = entering - 2 * pass; // of the rows that this pass starts from
            if (newest < first)
                break;
            StateRows &before = states[pass], &after = states[pass + 1];
            SlideRow(&rows)[3] = slides[pass];
            if (newest == last)
                set_off_grid(before.height[slot(newest)]);

            const int sliding = newest - 1;
            if (sliding >= first && sliding < last)
                find_slides(before.height[slot(sliding - 1)], before.height[slot(sliding)],
                            before.height[slot(sliding + 1)], before.sand[slot(sliding)], count,
                            passes[static_cast<std::size_t>(pass)], rows[slot(sliding)]);
            else
                clear(rows[slot(sliding)]);

            const int moving = newest - 2;
            if (moving >= first && moving < last)
                let_slide(rows[slot(moving - 1)], rows[slot(moving)], rows[slot(moving + 1)], before.sand[slot(moving)],
                          grids.ground + s.index(left_edge, moving), count, after.sand[slot(moving)],
                          after.height[slot(moving)]);
        }
        const int done = entering - spoilt_cells;
        if (done >= y0 && done < y1)
            hand_out(done);
    }
}

} // namespace tarn::arrakis
