// What the median filter does in one cell (GPUs) and in a run of cells side by side (CPUs).
#pragma once

#include <cstdint>
#include <vector>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "filters/median_filter.hpp"
#include "grid/numeric.hpp"

namespace tarn::median_filter {

/// Fills the entries behind the samples. Samples must be smaller to take part in the median.
inline constexpr float padding = 1e8f;

/// Calls `visit(dx, dy)` for every offset of the disc, row after row.
template <class Visit>
inline void for_disc(int radius, Visit visit) {
    const auto limit = static_cast<std::uint32_t>(radius * radius + 2);
    for (int dy = -radius; dy <= radius; ++dy)
        for (int dx = -radius; dx <= radius; ++dx)
            if (static_cast<std::uint32_t>(dx * dx + dy * dy) <= limit)
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

/// As many neighbouring cells as a CPU filters side by side: the keys, or the bits, of their n-th samples.
struct alignas(64) Lanes {
    static constexpr int count = 32;
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

/// A network that brings the three middle ones of `count` entries to their places, and leaves the others anywhere.
std::vector<Comparator> selection_network(int count);

/// The cells within reach of one run of lanes, with the grid's edge cells repeated outwards.
class Neighbourhood {
  public:
    Neighbourhood(const float* cells, int side, int x, int y, int radius) : radius_(radius) {
        const int first = x - radius;
        const int width = Lanes::count + 2 * radius;
        const bool inside = first >= 0 && first + width <= side;
        for (int dy = -radius; dy <= radius; ++dy) {
            const float* row = cells + static_cast<std::ptrdiff_t>(clamp_index(y + dy, side)) * side;
            float* copy = rows_[dy + radius];
            if (inside) {
                TARN_INDEPENDENT_ITERATIONS
                for (int i = 0; i < width; ++i)
                    copy[i] = row[first + i];
            } else {
                for (int i = 0; i < width; ++i)
                    copy[i] = row[clamp_index(first + i, side)];
            }
        }
    }

    /// The sample at an offset from each lane's cell.
    template <bool as_keys>
    void read(int dx, int dy, Lanes& samples) const {
        const float* row = rows_[dy + radius_] + radius_ + dx;
        TARN_INDEPENDENT_ITERATIONS
        for (int lane = 0; lane < Lanes::count; ++lane)
            samples.value[lane] = as_keys ? flipped(sycl::bit_cast<Key>(row[lane])) : sycl::bit_cast<Key>(row[lane]);
    }

    /// Whether every network that sorts gives the same bits. It does not where entries are NaN, where they fall behind
    /// the padding, and where both zeros occur, which compare equal.
    bool sorts_in_one_way() const {
        int odd = 0, positive_zeros = 0, negative_zeros = 0;
        const int width = Lanes::count + 2 * radius_;
        for (int y = 0; y <= 2 * radius_; ++y) {
            const float* row = rows_[y];
            for (int x = 0; x < width; ++x) {
                const auto bits = sycl::bit_cast<std::uint32_t>(row[x]);
                odd |= row[x] < padding ? 0 : 1;
                positive_zeros |= bits == 0u ? 1 : 0;
                negative_zeros |= bits == 0x80000000u ? 1 : 0;
            }
        }
        return odd == 0 && (positive_zeros & negative_zeros) == 0;
    }

  private:
    int radius_;
    float rows_[2 * largest_radius + 1][Lanes::count + 2 * largest_radius];
};

/// Filters the cells (x, y) to (x + Lanes::count - 1, y). `network` sorts the disc's samples as far as it is needed.
template <int capacity>
inline void filter_lanes(const float* cells, float* filtered, int side, int x, int y, int radius,
                         const Comparator* network, std::size_t network_size) {
    const Neighbourhood neighbourhood(cells, side, x, y, radius);
    Lanes entries[capacity];
    int count = 0;
    const bool keys = neighbourhood.sorts_in_one_way();
    if (keys) {
        for_disc(radius, [&](int dx, int dy) { neighbourhood.read<true>(dx, dy, entries[count++]); });
        for (std::size_t n = 0; n < network_size; ++n)
            order_keys(entries[network[n].low], entries[network[n].high]);
    } else {
        for_disc(radius, [&](int dx, int dy) { neighbourhood.read<false>(dx, dy, entries[count++]); });
        for (int n = count; n < capacity; ++n)
            for (Key& value : entries[n].value)
                value = sycl::bit_cast<Key>(padding);
        sort_bitonic<capacity>(entries);
    }
    const int middle = count / 2;
    float* out = filtered + static_cast<std::ptrdiff_t>(y) * side + x;
    for (int lane = 0; lane < Lanes::count; ++lane) {
        const auto sample = [&](int n) {
            const Key value = entries[n].value[lane];
            return sycl::bit_cast<float>(keys ? flipped(value) : value);
        };
        out[lane] = middle_mean(sample(middle - 1), sample(middle), sample(middle + 1));
    }
}

} // namespace tarn::median_filter
