#include "flow/particles.hpp"

#include <algorithm>
#include <cmath>
#include <random>

#include "grid/numeric.hpp"
#include "grid/random.hpp"
#include "grid/shuffle.hpp"

namespace tarn::flow {

namespace {

constexpr std::uint32_t most_batches = 32;
constexpr std::uint32_t most_long_trails = 0x40000;

/// The next random number from 0 to 2^32.
float draw(std::uint32_t& state) {
    state = xorshift(state);
    return random_number(state);
}

} // namespace

std::vector<Point> seed_particles(Grid& mask, const sycl::range<2>& extent, std::uint32_t seed) {
    constexpr float margin = 0.1f;
    constexpr float jitter = 1.8626452e-10f; // brings a random number to 0 to 0.8
    // The rows and columns of huge grids are as far apart as floats: no particle may land beyond the last one.
    const float right = std::nextafter(static_cast<float>(extent[1]), 0.0f);
    const float bottom = std::nextafter(static_cast<float>(extent[0]), 0.0f);
    std::vector<Point> particles;
    particles.reserve(extent.size());
    std::uint32_t state = nonzero_state(seed);
    const sycl::host_accessor<float, 2, sycl::access_mode::read> chance(mask, sycl::read_only);
    const bool is_masked = mask.size() != 1;
    for (std::size_t y = 0; y < extent[0]; ++y) {
        for (std::size_t x = 0; x < extent[1]; ++x) {
            if (is_masked && !(chance[sycl::id<2>(y, x)] > draw(state) * unit_scale))
                continue;
            const float down = static_cast<float>(y) + margin + draw(state) * jitter;
            const float along = static_cast<float>(x) + margin + draw(state) * jitter;
            particles.emplace_back(minimum(along, right), minimum(down, bottom));
        }
    }
    return particles;
}

void shuffle_particles(std::vector<Point>& particles, std::uint32_t seed) {
    std::mt19937 generator(seed);
    shuffle(particles, generator);
}

std::vector<Start> tiled_starts(const sycl::range<2>& extent, const std::vector<Point>& particles, std::uint32_t first,
                                std::uint32_t count) {
    constexpr std::uint32_t side = 64;
    const std::size_t columns = (extent[1] - 1) / side + 1, rows = (extent[0] - 1) / side + 1;
    const auto tile_of = [columns](const Point& p) {
        return static_cast<std::uint32_t>(p.y()) / side * columns + static_cast<std::uint32_t>(p.x()) / side;
    };
    std::vector<std::uint32_t> ends(columns * rows);
    for (std::uint32_t i = first; i < first + count; ++i)
        ++ends[tile_of(particles[i])];
    std::uint32_t sum = 0;
    for (std::uint32_t& end : ends)
        end = sum += end;
    std::vector<Start> starts(count);
    for (std::uint32_t i = first + count; i-- > first;)
        starts[--ends[tile_of(particles[i])]] = {particles[i].x(), particles[i].y(), i};
    return starts;
}

sycl::buffer<float, 1> create_direction_buffer(std::uint32_t seed, bool are_zero) {
    std::vector<float> coordinates;
    for (const auto& direction : random_directions(seed + 14u)) {
        coordinates.push_back(are_zero ? 0.0f : direction.x());
        coordinates.push_back(are_zero ? 0.0f : direction.y());
    }
    return sycl::buffer<float, 1>(coordinates.begin(), coordinates.end());
}

std::vector<Batch> plan_batches(std::uint32_t particles, std::uint64_t cells, const TrailLengths& lengths) {
    const std::uint32_t size = particles / most_batches + (particles % most_batches != 0 ? 1 : 0);
    const std::uint32_t long_trails = std::min(most_long_trails, particles) / most_batches;
    std::vector<Batch> batches;
    for (std::uint32_t start = 0; start < particles; start += size) {
        const std::uint32_t count = std::min(particles - start, size);
        const std::uint32_t short_trails = count > long_trails ? count - long_trails : 0;
        const float l = lengths.longest, s = lengths.shortest;
        const auto n_long = static_cast<float>(long_trails), n_short = static_cast<float>(short_trails);
        const float steps = 1.0f / (n_short * s + n_long * l);
        const float x = (l + s) * (n_long + n_short) * steps;
        const float y = static_cast<float>(particles) * steps;
        const float t = 0.7f * static_cast<float>(particles) / static_cast<float>(cells) + 0.25f;
        batches.push_back({start, short_trails, std::min(long_trails, count), x + (y - x) * t});
    }
    return batches;
}

} // namespace tarn::flow
