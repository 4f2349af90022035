// What the median filter does in one cell (GPUs) and in a block of cells side by side (CPUs).
#pragma once

#include <cstdint>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "filters/median_filter.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"

namespace tarn::median_filter {

/// Fills the entries behind the samples. Samples must be smaller to take part in the median.
inline constexpr float padding = 1e8f;

inline bool is_in_disc(int dx, int dy, int radius) {
    return static_cast<std::uint32_t>(dx * dx + dy * dy) <= static_cast<std::uint32_t>(radius * radius + 2);
}

/// Calls `visit(dx, dy)` for every offset of the disc, row after row.
template <class Visit>
inline void for_disc(int radius, Visit visit) {
    for (int dy = -radius; dy <= radius; ++dy)
        for (int dx = -radius; dx <= radius; ++dx)
            if (is_in_disc(dx, dy, radius))
                visit(dx, dy);
}

/// The mean of the three middle samples.
inline float middle_mean(float below, float middle, float above) {
    return (middle + above + below) * 0.333333f;
}

/// The bits of a sample as a whole number. Numbers of samples that compare are in the same order as the samples.
using Key = std::int32_t;

/// Turns a sample's bits into its key, and a key into the bits.
inline Key flipped(Key bits) {
    return bits ^ ((bits >> 31) & 0x7FFFFFFF);
}

/// As many neighbouring cells of a row as a CPU filters side by side: the keys, or the bits, of their n-th samples.
struct alignas(64) Lanes {
    static constexpr int count = 2 * cpu_lanes;
    Key value[count];
};

/// Puts the smaller entry into `low`. Entries that do not compare, and equal ones, stay where they are.
inline void order(float& low, float& high) {
    const float a = low, b = high;
    low = a > b ? b : a;
    high = a > b ? a : b;
}

/// The same for the bits of samples, without a branch.
inline void order(Lanes& low, Lanes& high) {
    TARN_INDEPENDENT_ITERATIONS
    for (int lane = 0; lane < Lanes::count; ++lane) {
        const Key a = low.value[lane], b = high.value[lane];
        const Key swapped = sycl::bit_cast<float>(a) > sycl::bit_cast<float>(b) ? a ^ b : 0;
        low.value[lane] = a ^ swapped;
        high.value[lane] = b ^ swapped;
    }
}

/// The same for keys, which all compare.
inline void order_keys(Lanes& low, Lanes& high) {
    TARN_INDEPENDENT_ITERATIONS
    for (int lane = 0; lane < Lanes::count; ++lane) {
        const Key a = low.value[lane], b = high.value[lane];
        low.value[lane] = minimum(a, b);
        high.value[lane] = maximum(a, b);
    }
}

/// Sorts by K. E. Batcher's bitonic network (1968).
template <int capacity, class Entry>
inline void sort_bitonic(Entry* entries) {
    for (int k = 2; k <= capacity; k *= 2)
        for (int j = k / 2; j > 0; j /= 2)
            for (int i = 0; i < capacity; ++i) {
                const int l = i ^ j;
                if (l <= i)
                    continue;
                if ((i & k) == 0)
                    order(entries[i], entries[l]);
                else
                    order(entries[l], entries[i]);
            }
}

/// Two entries that a network puts in order.
struct Comparator {
    std::uint16_t low;
    std::uint16_t high;
};

/// The offset of a sample from the first cell of those that share it.
struct Offset {
    std::int16_t x;
    std::int16_t y;
};

/// One stage of a selection: samples that the discs around `rows` cells of a column have in common, those that the
/// stage before left over and those that come in, sorted as far as the next stage needs it.
struct Stage {
    int rows;
    /// Where the stage's entries begin, and how many it takes over from which entry on.
    int first_entry, inherited, inherited_from;
    int samples;
    /// Where its samples begin among the offsets: for the upper and for the lower half of the rows of the stage before.
    int first_sample[2];
    int first_comparator, comparators;
};

inline int entries_of(const Stage& stage) {
    return stage.inherited + stage.samples;
}

/// The whole selection for a block of cells. Neighbouring discs have most of their samples in common (A. Adams, Fast
/// Median Filters Using Separable Sorting Networks, 2021): these are sorted once for all cells of a column, and what
/// can be in the middle of none is dropped, before the column is halved and each half gets the samples that its own
/// cells have in common besides.
struct Selection {
    static constexpr int stage_count = 4;
    /// Rows of a block.
    static constexpr int rows = 1 << (stage_count - 1);
    /// Room for the entries of all stages at the largest radius.
    static constexpr int most_entries = 400;

    int radius;
    int middle; ///< the entry in the middle, at last
    Stage stages[stage_count];
    const Comparator* comparators;
    const Offset* offsets;
};

/// The cells within reach of a block, with the grid's edge cells repeated outwards.
class SampleRows {
  public:
    SampleRows(const float* cells, int side, int x, int y, int radius)
        : radius_(radius), height_(Selection::rows + 2 * radius) {
        const int first = x - radius;
        const bool inside = first >= 0 && first + width <= side;
        for (int n = 0; n < height_; ++n) {
            const float* row = cells + static_cast<std::ptrdiff_t>(clamp_index(y - radius + n, side)) * side;
            if (inside) {
                TARN_INDEPENDENT_ITERATIONS
                for (int i = 0; i < width; ++i)
                    rows_[n][i] = sycl::bit_cast<Key>(row[first + i]);
            } else {
                for (int i = 0; i < width; ++i)
                    rows_[n][i] = sycl::bit_cast<Key>(row[clamp_index(first + i, side)]);
            }
        }
    }

    /// Whether every network that sorts gives the same bits. It does not where entries are NaN, where they fall behind
    /// the padding, and where both zeros occur, which compare equal.
    bool sorts_in_one_way() const {
        int odd = 0, positive_zeros = 0, negative_zeros = 0;
        for (int y = 0; y < height_; ++y)
            for (int x = 0; x < width; ++x) {
                const Key bits = rows_[y][x];
                odd |= sycl::bit_cast<float>(bits) < padding ? 0 : 1;
                positive_zeros |= bits == 0 ? 1 : 0;
                negative_zeros |= bits == INT32_MIN ? 1 : 0;
            }
        return odd == 0 && (positive_zeros & negative_zeros) == 0;
    }

    void turn_into_keys() {
        for (int y = 0; y < height_; ++y) {
            TARN_INDEPENDENT_ITERATIONS
            for (int x = 0; x < width; ++x)
                rows_[y][x] = flipped(rows_[y][x]);
        }
    }

    /// The samples at an offset from each lane's cell in a row of the block.
    void read(int row, int dx, int dy, Lanes& samples) const {
        const Key* from = rows_[row + dy + radius_] + radius_ + dx;
        TARN_INDEPENDENT_ITERATIONS
        for (int lane = 0; lane < Lanes::count; ++lane)
            samples.value[lane] = from[lane];
    }

  private:
    /// As for the largest radius: a whole number of vectors.
    static constexpr int width = Lanes::count + 2 * largest_radius;

    int radius_, height_;
    alignas(64) Key rows_[Selection::rows + 2 * largest_radius][width];
};

/// Brings the entries of a stage into order, for the rows of a block from `row` on.
inline void run_stage(const Selection& selection, const Stage& stage, const SampleRows& rows, int row, Lanes* all) {
    Lanes* const entries = all + stage.first_entry;
    for (int n = 0; n < stage.inherited; ++n)
        entries[n] = all[stage.inherited_from + n];
    const Offset* const offsets = selection.offsets + stage.first_sample[row / stage.rows % 2];
    for (int n = 0; n < stage.samples; ++n)
        rows.read(row, offsets[n].x, offsets[n].y, entries[stage.inherited + n]);
    const Comparator* next = selection.comparators + stage.first_comparator;
    const Comparator* const end = next + stage.comparators;
    while (next != end) {
        const Comparator comparator = *next++;
        order_keys(entries[comparator.low], entries[comparator.high]);
    }
}

/// Filters the block of Lanes::count by Selection::rows cells from (x, y) on.
template <int capacity>
inline void filter_block(const float* cells, float* filtered, int side, int x, int y, const Selection& selection) {
    SampleRows rows(cells, side, x, y, selection.radius);
    const auto write = [&](int row, const Lanes* middle, auto bits_of) {
        float* const out = filtered + static_cast<std::ptrdiff_t>(y + row) * side + x;
        for (int lane = 0; lane < Lanes::count; ++lane) {
            const auto sample = [&](int n) {
                return sycl::bit_cast<float>(bits_of(middle[n].value[lane]));
            };
            out[lane] = middle_mean(sample(-1), sample(0), sample(1));
        }
    };
    if (rows.sorts_in_one_way()) {
        rows.turn_into_keys();
        Lanes entries[Selection::most_entries];
        for (int row = 0; row < Selection::rows; ++row) {
            for (const Stage& stage : selection.stages)
                if (row % stage.rows == 0)
                    run_stage(selection, stage, rows, row, entries);
            write(row, entries + selection.middle, [](Key key) { return flipped(key); });
        }
        return;
    }
    for (int row = 0; row < Selection::rows; ++row) {
        Lanes entries[capacity];
        int count = 0;
        for_disc(selection.radius, [&](int dx, int dy) { rows.read(row, dx, dy, entries[count++]); });
        for (int n = count; n < capacity; ++n)
            for (Key& value : entries[n].value)
                value = sycl::bit_cast<Key>(padding);
        sort_bitonic<capacity>(entries);
        write(row, entries + count / 2, [](Key bits) { return bits; });
    }
}

} // namespace tarn::median_filter
