// The particles of flow maps and of colour transport: where they start, in which order and in which batches.
#pragma once

#include <cstdint>
#include <vector>

#include <sycl/sycl.hpp>

#include "flow/pit_filling.hpp"
#include "grid/numeric.hpp"

namespace tarn::flow {

/// A point in cells.
using Point = sycl::vec<float, 2>;

/// One particle in each cell, or in those that a random number from 0 to 1 picks, where it is below the mask; somewhere
/// in the middle 80 % of the cell, row after row. A mask of one element counts as none.
std::vector<Point> seed_particles(Grid& mask, const sycl::range<2>& extent, std::uint32_t seed);

/// Puts the particles into random order.
void shuffle_particles(std::vector<Point>& particles, std::uint32_t seed);

/// A buffer over a list that outlives it: in place on a CPU, not written back elsewhere.
template <class T>
sycl::buffer<T, 1> create_list_buffer(const std::vector<T>& list, sycl::queue& queue) {
    const sycl::range<1> count(list.size());
    if (!queue.get_device().is_cpu())
        return sycl::buffer<T, 1>(list.data(), count);
    sycl::buffer<T, 1> buffer(const_cast<T*>(list.data()), count, {sycl::property::buffer::use_host_ptr()});
    buffer.set_final_data(nullptr);
    return buffer;
}

/// How many trails a CPU's work-item walks.
inline constexpr std::uint32_t trail_block = 128;

/// How many steps a launch may take at most, since the host is not asked whether to cancel before it ends.
inline constexpr std::uint32_t most_steps_at_once = 1u << 23;

/// The x and y, in turn, of 32 unit vectors in random order, or of as many zeros for trails without kicks.
sycl::buffer<float, 1> create_direction_buffer(std::uint32_t seed, bool are_zero = false);

/// The lengths of trails, in steps.
struct TrailLengths {
    TrailLengths(int width, float flow_length)
        : longest(static_cast<float>(width) * flow_length + 2.0f), shortest(longest < 16.0f ? longest : 16.0f) {}

    float longest;
    float shortest;
};

/// Particles that run at once: `short_count` with short trails from `start` on, then `long_count` with long ones.
struct Batch {
    std::uint32_t start;
    std::uint32_t short_count;
    std::uint32_t long_count;
    /// Turns the visits of a cell into what they count, whatever the number of particles and the length of the trails.
    float norm;
};

/// A particle ready to walk. Its number decides on its random turns.
struct Start {
    float x;
    float y;
    std::uint32_t number;
};

/// Particles in the order of square tiles, row by row of them. Those of a tile stay where the cache has its cells; and
/// if their trails are short, they do not come to the cells of those from the tile after the next one.
struct TiledStarts {
    static constexpr std::uint32_t side = 64;
    /// Trails that stay within so many cells of their start come to no tile but the next.
    static constexpr std::uint32_t reach = side / 2;

    TiledStarts(const sycl::range<2>& extent, const std::vector<Point>& particles, std::uint32_t first,
                std::uint32_t count);

    std::uint32_t columns;
    std::uint32_t rows;
    std::vector<Start> starts;
    /// Where the tiles begin in `starts`, and the end of the last one.
    std::vector<std::uint32_t> begins;
};

/// All particles in at most 32 batches of equal size, but for the last one. At most 0x40000 trails in all are long.
std::vector<Batch> plan_batches(std::uint32_t particles, std::uint64_t cells, const TrailLengths& lengths);

} // namespace tarn::flow
