// The particles of flow maps and of colour transport: where they start, in which order and in which batches.
#pragma once

#include <cstdint>
#include <type_traits>
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

/// A buffer over particles that outlive it: in place on a CPU, not written back elsewhere.
sycl::buffer<Point, 1> create_particle_buffer(const std::vector<Point>& particles, sycl::queue& queue);

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

/// All particles in at most 32 batches of equal size, but for the last one. At most 0x40000 trails in all are long.
std::vector<Batch> plan_batches(std::uint32_t particles, std::uint64_t cells, const TrailLengths& lengths);

/// Calls `particles(first, last, lanes)` for all of `count` particles from `start` on: one at a time on GPUs, blocks on
/// CPUs, which walk as many as `lanes`, a constant, in step.
template <class Particles>
void launch_particles(sycl::handler& handler, const sycl::queue& queue, std::uint32_t start, std::uint32_t count,
                      Particles particles) {
    if (!queue.get_device().is_cpu()) {
        handler.parallel_for(sycl::range<1>(count), [=](sycl::id<1> item) {
            const std::uint32_t first = start + static_cast<std::uint32_t>(item[0]);
            particles(first, first + 1u, std::integral_constant<int, 1>{});
        });
        return;
    }
    constexpr std::uint32_t block = 128;
    handler.parallel_for(sycl::range<1>((count + block - 1u) / block), [=](sycl::id<1> item) {
        const std::uint32_t offset = static_cast<std::uint32_t>(item[0]) * block;
        particles(start + offset, start + minimum(offset + block, count), std::integral_constant<int, 16>{});
    });
}

} // namespace tarn::flow
