#include "grid/blur.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

#include "device/usm_ptr.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

using Cells = std::vector<float>;

sycl::queue cpu_queue() {
    return sycl::queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
}

std::size_t at(int x, int y, int width) {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
}

Extent<2> extent(int width, int height) {
    return {static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
}

/// Runs `blur(queue, source, destination)` over device copies of `cells` and returns the destination.
template <class Blur>
Cells on_device(sycl::queue queue, const Cells& cells, Blur blur) {
    const sycl::range<1> count(cells.size());
    Cells input = cells, result(cells.size());
    {
        const usm_ptr<float, 1> source(count, queue, input.data(), false, false);
        const usm_ptr<float, 1> destination(count, queue, result.data(), true, false);
        blur(queue, source.data(), destination.data());
    }
    return result;
}

template <bool straight>
Cells half_pass(const Cells& cells, int width, int height, float radius, sycl::queue queue = cpu_queue()) {
    return on_device(queue, cells, [&](sycl::queue& q, const float* source, float* destination) {
        blur::detail::fastblur_half_pass<true, straight>(q, source, destination, extent(width, height), radius);
    });
}

const std::vector<float> radii = {0.0f, 0.4f, 1.0f, 2.75f, 12.0f, 12.5f, 40.0f};

/// Around the number of rows and columns that are worked on side by side, and around the window's width.
const std::vector<std::pair<int, int>> shapes = {{1, 1},   {1, 20},  {5, 1},   {12, 3},  {16, 16},
                                                 {25, 18}, {26, 33}, {70, 17}, {130, 64}};

TEST(Blur, TransposingPassWritesTheStraightPassTransposed) {
    for (const float radius : radii) {
        for (const auto& [width, height] : shapes) {
            const Cells cells = rough_terrain(width, height);
            const Cells straight = half_pass<true>(cells, width, height, radius);
            const Cells transposed = half_pass<false>(cells, width, height, radius);
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    ASSERT_EQ(transposed[at(y, x, height)], straight[at(x, y, width)]) << x << ", " << y;
        }
    }
}

TEST(Blur, ImpulseSpreadsOverTheWindowWithFractionalEdges) {
    const int width = 64, middle = 32;
    Cells impulse(width, 0.0f);
    impulse[middle] = 1.0f;
    const Cells result = half_pass<true>(impulse, width, 1, 3.25f);
    for (int x = 0; x < width; ++x) {
        const int distance = std::abs(x - middle);
        const float weight = distance <= 3 ? 1.0f : distance == 4 ? 0.25f : 0.0f;
        EXPECT_NEAR(result[at(x, 0, width)], weight / 7.5f, 1e-6f) << x;
    }
}

TEST(Blur, LinearWeightsFallToNothingAtTheRadius) {
    const int size = 20;
    Cells impulse(size * size, 0.0f);
    impulse[at(10, 4, size)] = 1.0f;
    const Cells result = on_device(cpu_queue(), impulse, [](sycl::queue& q, const float* source, float* destination) {
        blur::detail::blur_half_pass<1u>(q, source, destination, size, 4.0f);
    });
    const float total = 3.5f + 2.0f * (2.5f + 1.5f + 0.5f);
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            const float distance = static_cast<float>(std::abs(y - 10)) + 0.5f;
            const float expected = x == 4 && distance < 4.0f ? (4.0f - distance) / total : 0.0f;
            EXPECT_NEAR(result[at(x, y, size)], expected, 1e-6f) << x << ", " << y;
        }
    }
}

#ifdef HOSTSYCL
TEST(Blur, OneRowAWorkItemGivesTheBitsOfRowsSideBySide) {
    const SimulatedGpu gpu;
    for (const float radius : radii) {
        for (const auto& [width, height] : shapes) {
            const Cells cells = rough_terrain(width, height);
            EXPECT_TRUE(same_bits(half_pass<true>(cells, width, height, radius, gpu.queue),
                                  half_pass<true>(cells, width, height, radius)));
            EXPECT_TRUE(same_bits(half_pass<false>(cells, width, height, radius, gpu.queue),
                                  half_pass<false>(cells, width, height, radius)));
        }
    }
}
#endif

} // namespace
