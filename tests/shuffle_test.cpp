#include <cmath>
#include <cstdint>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "grid/shuffle.hpp"

namespace tarn {
namespace {

TEST(Shuffle, draws_are_the_outputs_modulo_the_count_without_the_incomplete_round) {
    std::mt19937 generator(7), outputs(7);
    const std::uint32_t most = 0xFFFFFFFFu;
    for (const std::uint32_t last : {0u, 1u, 2u, 31u, 0x7FFFFFFFu, 0x80000000u, 0xC0000000u, most - 1u, most})
        for (int draw = 0; draw < 50; ++draw) {
            const std::uint64_t count = std::uint64_t{last} + 1u;
            const std::uint64_t complete = (std::uint64_t{1} << 32) / count * count;
            std::uint64_t output = outputs();
            while (output >= complete)
                output = outputs();
            ASSERT_EQ(draw_up_to(generator, last), output % count) << "of 0 to " << last;
        }
}

TEST(Shuffle, order_is_that_of_the_forward_pass_on_every_machine) {
    // Worked out by a program of its own, with a generator written from M. Matsumoto's and T. Nishimura's paper.
    const std::vector<int> of_0{17, 27, 30, 7, 24, 11, 15, 16, 13, 31, 5,  18, 3, 10, 26, 1,
                                9,  4,  12, 0, 14, 22, 25, 23, 28, 6,  19, 8,  2, 20, 21, 29};
    std::vector<int> values(32);
    std::iota(values.begin(), values.end(), 0);
    std::mt19937 generator(0);
    shuffle(values, generator);
    EXPECT_EQ(values, of_0);
}

TEST(Shuffle, directions_are_unit_vectors_all_around_in_an_order_of_the_seed) {
    std::set<int> seen;
    for (const sycl::vec<float, 2>& direction : random_directions(14)) {
        const double angle = std::atan2(direction.y(), direction.x()) / 6.283185307179586 * 32.0;
        const int place = (static_cast<int>(std::lround(angle)) + 32) % 32;
        EXPECT_NEAR(std::remainder(angle - place, 32.0), 0.0, 1e-4);
        EXPECT_NEAR(std::hypot(direction.x(), direction.y()), 1.0, 1e-6);
        seen.insert(place);
    }
    EXPECT_EQ(seen.size(), 32u);
    EXPECT_NE(random_directions(14)[0].x(), random_directions(0)[0].x());
}

} // namespace
} // namespace tarn
