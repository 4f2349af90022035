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

/// `count` particles from `first` on, in the order of square tiles, row by row of them: those of a tile stay where the
/// cache has its cells.
std::vector<Start> tiled_starts(const sycl::range<2>& extent, const std::vector<Point>& particles, std::uint32_t first,
                                std::uint32_t count);

/// All particles in at most 32 batches of equal size, but for the last one. At most 0x40000 trails in all are long.
std::vector<Batch> plan_batches(std::uint32_t particles, std::uint64_t cells, const TrailLengths& lengths);

} // namespace tarn::flow
