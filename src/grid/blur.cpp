#include "grid/blur.hpp"

#include <cstddef>
#include <cstring>

#include "device/backend.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"

namespace tarn::blur {

namespace {

/// The window of the running sum: whole cells to each side, and the weights of the cells at its two edges.
struct Window {
    explicit Window(float window_radius)
        : radius(window_radius), reach(static_cast<int>(window_radius)),
          edge(window_radius - static_cast<float>(reach)), inside(1.0f - edge),
          scale(1.0f / (window_radius + window_radius + 1.0f)) {}

    float radius;
    int reach;
    /// What a cell counts when the window has just touched it, and what is then left to count in full.
    float edge;
    float inside;
    float scale;
};

/// The sum of the window when its centre stands one cell left of the row. The window may be wider than the row.
inline float first_sum(const float* row, int size, const Window& window) {
    float sum = (window.radius + 1.0f) * row[0];
    for (int k = 1; k <= window.reach; ++k)
        sum += row[minimum(k, size - 1)];
    return sum + row[minimum(window.reach, size - 1)] * window.edge;
}

/// What the window gives up on its left, past the first cells of a row, where it is the edge cell itself.
inline float leaving(float previous_left, float left, const Window& window) {
    return previous_left * window.edge + left * window.inside;
}

/// The window's sum one cell further on.
inline float slid(float sum, float left, float previous_right, float right, const Window& window) {
    return ((sum - left) + previous_right * window.inside) + right * window.edge;
}

/// One row, its results `stride` apart.
inline void blur_row(const float* row, int size, float* out, std::ptrdiff_t stride, const Window& window) {
    const float first = row[0];
    float sum = first_sum(row, size, window);
    float previous_left = first;
    float previous_right = row[minimum(window.reach, size - 1)];
    for (int x = 0; x < size; ++x) {
        const float right = row[minimum(x + window.reach + 1, size - 1)];
        float left = first;
        if (x > window.reach) {
            const float next_left = row[x - window.reach - 1];
            left = leaving(previous_left, next_left, window);
            previous_left = next_left;
        }
        sum = slid(sum, left, previous_right, right, window);
        previous_right = right;
        out[x * stride] = sum * window.scale;
    }
}

/// As many rows as a CPU blurs side by side, one in each lane of its vectors, and as many columns as it takes at a
/// time.
constexpr int lanes = cpu_lanes;
using Tile = float[lanes * lanes];

/// Transposes a tile. A perfect shuffle of its cells turns their index bits by one place, so four of them swap row and
/// column; each is a pair of plain vector interleaves.
inline void transpose(Tile& tile) {
    Tile other;
    const auto shuffle = [](const Tile& from, Tile& to) {
        constexpr int half = lanes * lanes / 2;
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < half; ++k) {
            to[2 * k] = from[k];
            to[2 * k + 1] = from[k + half];
        }
    };
    shuffle(tile, other);
    shuffle(other, tile);
    shuffle(tile, other);
    shuffle(other, tile);
}

/// Writes the first `count` cells of a line of a tile.
inline void write_line(float* out, const float* line, int count) {
    if (count == lanes) {
        std::memcpy(out, line, lanes * sizeof(float)); // of a constant size: a few vector moves
        return;
    }
    for (int k = 0; k < count; ++k)
        out[k] = line[k];
}

/// The columns `first` to `first` + lanes of the rows, column by column. Columns off the row repeat its edge cells.
inline void read_columns(const float* const (&rows)[lanes], int size, int first, Tile& tile) {
    if (first >= 0 && first + lanes <= size) {
        for (int lane = 0; lane < lanes; ++lane)
            std::memcpy(tile + lane * lanes, rows[lane] + first, lanes * sizeof(float));
    } else {
        for (int lane = 0; lane < lanes; ++lane)
            for (int k = 0; k < lanes; ++k)
                tile[lane * lanes + k] = rows[lane][clamp_index(first + k, size)];
    }
    transpose(tile);
}

/// Up to `lanes` rows side by side, each by the operations of `blur_row`. A sum is a chain of adds that no compiler may
/// reorder; the speed comes from running a chain in each lane.
template <bool straight>
inline void blur_rows(const float* source, float* destination, int width, int height, int first_row,
                      const Window& window) {
    const int count = minimum(lanes, height - first_row);
    const float* rows[lanes];
    float first[lanes], sum[lanes], previous_left[lanes], previous_right[lanes];
    for (int lane = 0; lane < lanes; ++lane) {
        rows[lane] = source + static_cast<std::ptrdiff_t>(first_row + minimum(lane, count - 1)) * width;
        first[lane] = rows[lane][0];
        sum[lane] = first_sum(rows[lane], width, window);
        previous_left[lane] = first[lane];
        previous_right[lane] = rows[lane][minimum(window.reach, width - 1)];
    }
    Tile right, left, result;
    for (int start = 0; start < width; start += lanes) {
        const int columns = minimum(lanes, width - start);
        read_columns(rows, width, minimum(start + window.reach + 1, width), right);
        if (start + lanes > window.reach + 1)
            read_columns(rows, width, start - window.reach - 1, left);
        for (int k = 0; k < columns; ++k) {
            const float* next_right = right + k * lanes;
            const float* next_left = left + k * lanes;
            if (start + k > window.reach) {
                for (int lane = 0; lane < lanes; ++lane) {
                    sum[lane] = slid(sum[lane], leaving(previous_left[lane], next_left[lane], window),
                                     previous_right[lane], next_right[lane], window);
                    previous_left[lane] = next_left[lane];
                    previous_right[lane] = next_right[lane];
                    result[k * lanes + lane] = sum[lane] * window.scale;
                }
            } else {
                for (int lane = 0; lane < lanes; ++lane) {
                    sum[lane] = slid(sum[lane], first[lane], previous_right[lane], next_right[lane], window);
                    previous_right[lane] = next_right[lane];
                    result[k * lanes + lane] = sum[lane] * window.scale;
                }
            }
        }
        if constexpr (straight) {
            transpose(result);
            for (int lane = 0; lane < count; ++lane)
                write_line(destination + static_cast<std::ptrdiff_t>(first_row + lane) * width + start,
                           result + lane * lanes, columns);
        } else {
            for (int k = 0; k < columns; ++k)
                write_line(destination + static_cast<std::ptrdiff_t>(start + k) * height + first_row,
                           result + k * lanes, count);
        }
    }
}

} // namespace

namespace detail {

template <bool, bool straight>
void fastblur_half_pass(sycl::queue& queue, const float* source, float* destination, const Extent<2>& extent,
                        float radius) {
    if (extent.x() == 0 || extent.y() == 0)
        return;
    const Window window(radius);
    const int width = static_cast<int>(extent.x());
    const int height = static_cast<int>(extent.y());
    if (queue.get_device().is_cpu()) {
        const auto blocks = static_cast<std::size_t>(height - 1) / lanes + 1;
        queue.parallel_for(sycl::range<1>(blocks), [=](sycl::id<1> block) {
            blur_rows<straight>(source, destination, width, height, static_cast<int>(block[0]) * lanes, window);
        });
        return;
    }
    queue.parallel_for(sycl::range<1>(extent.y()), [=](sycl::id<1> index) {
        const auto row = static_cast<std::ptrdiff_t>(index[0]);
        blur_row(source + row * width, width, destination + (straight ? row * width : row), straight ? 1 : height,
                 window);
    });
}

template void fastblur_half_pass<true, true>(sycl::queue&, const float*, float*, const Extent<2>&, float);
template void fastblur_half_pass<true, false>(sycl::queue&, const float*, float*, const Extent<2>&, float);

template <unsigned>
void blur_half_pass(sycl::queue& queue, const float* source, float* destination, int size, float radius) {
    if (size <= 0)
        return;
    const auto side = static_cast<std::size_t>(size);
    queue.parallel_for(sycl::range<2>(side, side), [=](sycl::id<2> index) {
        const auto i = static_cast<std::ptrdiff_t>(index[0]);
        const auto j = static_cast<int>(index[1]);
        const float* row = source + i * size;
        const int reach = static_cast<int>(radius);
        const float inverse_radius = 1.0f / radius;
        float weighted = 0.0f;
        float sum = 0.0f;
        for (int k = -reach; k <= reach; ++k) {
            const auto distance = static_cast<float>(k < 0 ? -k : k);
            const float weight = maximum(1.0f - (distance + 0.5f) * inverse_radius, 0.0f);
            weighted += row[clamp_index(j + k, size)] * weight;
            sum += weight;
        }
        destination[static_cast<std::ptrdiff_t>(j) * size + i] = weighted / sum;
    });
}

template void blur_half_pass<1u>(sycl::queue&, const float*, float*, int, float);

} // namespace detail

void blur(sycl::queue& queue, const float* source, float* scratch, float* destination, const Extent<2>& extent,
          float radius) {
    const Extent<2> transposed(extent.y(), extent.x());
    detail::fastblur_half_pass<true, true>(queue, source, scratch, extent, radius);
    detail::fastblur_half_pass<true, false>(queue, scratch, destination, extent, radius);
    detail::fastblur_half_pass<true, true>(queue, destination, scratch, transposed, radius);
    detail::fastblur_half_pass<true, false>(queue, scratch, destination, transposed, radius);
}

} // namespace tarn::blur
