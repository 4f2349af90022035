// The particles of flow maps and of colour transport: where they start, in which order and in which batches.
#pragma once

#include <cstdint>
#include <vector>

#include <sycl/sycl.hpp>

#include "flow/pit_filling.hpp"

namespace tarn::flow {

/// A point in cells.
using Point = sycl::vec<float, 2>;

/// One particle in each cell, or in those that a random number from 0 to 1 picks, where it is below the mask; somewhere
/// in the middle 80 % of the cell, row after row. A mask of one element counts as none.
std::vector<Point> seed_particles(Grid& mask, const sycl::range<2>& extent, std::uint32_t seed);

/// Puts the particles into random order.
void shuffle_particles(std::vector<Point>& particles, std::uint32_t seed);

/// A buffer over elements that outlive it: in place on a CPU, not written back elsewhere.
template <class T>
sycl::buffer<T, 1> borrow(const T* elements, std::size_t count, sycl::queue& queue) {
    if (!queue.get_device().is_cpu())
        return sycl::buffer<T, 1>(elements, sycl::range<1>(count));
    sycl::buffer<T, 1> buffer(const_cast<T*>(elements), sycl::range<1>(count),
                              {sycl::property::buffer::use_host_ptr()});
    buffer.set_final_data(nullptr);
    return buffer;
}

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

} // namespace tarn::flow
