// Kernels with arrays of their own, written and read at indices that are known at run time only.
#include <cstddef>
#include <vector>

#include <gtest/gtest.h>
#include <sycl/sycl.hpp>

namespace {

constexpr std::size_t side = 64;

/// Runs `kernel(cell, chosen, value)` over a grid: what it returns must equal `expected(cell, chosen, value)`, which
/// has no arrays. `chosen` is from 0 to 5.
template <class Kernel, class Expected>
void expect_cells(const char* what, Kernel kernel, Expected expected) {
    std::vector<int> chosen(side * side);
    std::vector<float> values(side * side);
    std::vector<float> result(side * side);
    for (std::size_t i = 0; i < values.size(); ++i) {
        chosen[i] = static_cast<int>(i * 7 % 6);
        values[i] = static_cast<float>(i) * 0.25f;
    }
    sycl::queue queue;
    queue.parallel_for(sycl::range<2>(side, side),
                       [=, in = values.data(), pick = chosen.data(), out = result.data()](sycl::id<2> cell) {
                           const std::size_t i = cell[0] * side + cell[1];
                           out[i] = kernel(cell, pick[i], in[i]);
                       });
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < values.size(); ++i)
        wrong += result[i] != expected(sycl::id<2>(i / side, i % side), chosen[i], values[i]);
    EXPECT_EQ(wrong, 0u) << what;
}

TEST(PrivateArraysTest, OPTIMISATION_LEVEL) {
    expect_cells(
        "two elements written, then read",
        [](sycl::id<2>, int k, float v) {
            float a[6];
            a[k] = v;
            a[(k + 1) % 6] = v + 1.0f;
            return a[k] + a[(k + 1) % 6];
        },
        [](sycl::id<2>, int, float v) { return v + (v + 1.0f); });
    expect_cells(
        "all elements written in order, one read",
        [](sycl::id<2>, int k, float v) {
            float a[6];
            for (int n = 0; n < 6; ++n)
                a[n] = v + static_cast<float>(n);
            return a[k];
        },
        [](sycl::id<2>, int k, float v) { return v + static_cast<float>(k); });
    expect_cells(
        "written at run-time indices, read in order",
        [](sycl::id<2>, int k, float v) {
            float a[6];
            for (int n = 0; n < 6; ++n)
                a[(k + n) % 6] = v + static_cast<float>(n);
            float sum = 0.0f;
            for (const float each : a)
                sum = sum * 0.5f + each;
            return sum;
        },
        [](sycl::id<2>, int k, float v) {
            float sum = 0.0f;
            for (int n = 0; n < 6; ++n)
                sum = sum * 0.5f + (v + static_cast<float>((n - k + 6) % 6));
            return sum;
        });
    expect_cells(
        "an element of a vec",
        [](sycl::id<2>, int k, float v) {
            sycl::vec<float, 4> a(v, 1.0f, 2.0f, 3.0f);
            a[k % 4] += 8.0f;
            return a[(k + 1) % 4] * 16.0f + a[k % 4];
        },
        [](sycl::id<2>, int k, float v) {
            const auto at = [&](int n) {
                return n == 0 ? v : static_cast<float>(n);
            };
            return at((k + 1) % 4) * 16.0f + (at(k % 4) + 8.0f);
        });
    expect_cells(
        "an index of an id",
        [](sycl::id<2> cell, int k, float) {
            cell[k % 2] += 1;
            return static_cast<float>(cell[0] * 1000 + cell[1]);
        },
        [](sycl::id<2> cell, int k, float) {
            return static_cast<float>((cell[0] + (k % 2 == 0)) * 1000 + cell[1] + (k % 2 == 1));
        });
}

} // namespace
