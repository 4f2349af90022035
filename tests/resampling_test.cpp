#include "grid/resampling.hpp"

#include <functional>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;
using resampling::Grid;

struct Operation {
    const char* name;
    std::function<Grid(Grid&)> on_grid;
};

const std::vector<Operation>& operations() {
    static const std::vector<Operation> list = {
        {"downsample_magic",
         [](Grid& g) {
             return resampling::downsample_magic(g);
         }},
        {"upsample_magic",
         [](Grid& g) {
             return resampling::upsample_magic(g);
         }},
        {"sharpen_magic",
         [](Grid& g) {
             return resampling::sharpen_magic(g);
         }},
        {"downsample_box",
         [](Grid& g) {
             return resampling::downsample_box(g);
         }},
        {"upsample_box",
         [](Grid& g) {
             return resampling::upsample_box(g);
         }},
    };
    return list;
}

class Resampling : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();

    Grid grid(std::vector<float>& cells, int width, int height) {
        EXPECT_EQ(cells.size(), static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
        return {Extent<2>(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)), queue, cells.data(),
                false, true};
    }

    std::vector<float> read(const Grid& grid) {
        const usm_host_accessor<float> view(grid, sycl::access::mode::read);
        return {view.data(), view.data() + view.size()};
    }

    std::vector<float> apply(const Operation& operation, std::vector<float> cells, int width, int height) {
        Grid source = grid(cells, width, height);
        return read(operation.on_grid(source));
    }
};

TEST_F(Resampling, ConstantGridsStayConstantUpToTheBorders) {
    for (const Operation& operation : operations())
        for (const auto& [width, height] : {std::pair{2, 2}, {3, 3}, {5, 2}, {64, 48}, {67, 33}})
            for (const float value :
                 apply(operation, std::vector<float>(static_cast<std::size_t>(width * height), 7.25f), width, height))
                ASSERT_EQ(value, 7.25f) << operation.name << " " << width << " x " << height;
}

// The response to one raised cell shows weights, clamps and orientation. Each source cell gives away a total of 1/4
// where the filter halves, and what lies beyond the border is repeated.
TEST_F(Resampling, MagicDownsamplingSpreadsByItsWeights) {
    const auto impulse = [&](int width, int height, int x, int y) {
        std::vector<float> cells(static_cast<std::size_t>(width * height), 0.0f);
        cells[static_cast<std::size_t>(y * width + x)] = 64.0f;
        return apply(operations()[0], cells, width, height);
    };
    // All four cells of a 2 x 2 grid count alike.
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(impulse(2, 2, i % 2, i / 2), std::vector<float>{16.0f});
    // The third row and column of a 3 x 3 grid take part: c3 reaches them, r3 too.
    EXPECT_EQ(impulse(3, 3, 2, 2), std::vector<float>{1.0f});
    EXPECT_EQ(impulse(3, 3, 2, 0), std::vector<float>{4.0f}); // one column in eight, four rows in eight
    EXPECT_EQ(impulse(3, 3, 1, 1), std::vector<float>{9.0f});
    // In the middle of a grid a cell gives 9, 3, 3, 1 to the four coarse cells around it.
    const std::vector<float> spread = impulse(16, 16, 7, 8);
    EXPECT_EQ(spread[4 * 8 + 3], 9.0f);
    EXPECT_EQ(spread[4 * 8 + 4], 3.0f);
    EXPECT_EQ(spread[3 * 8 + 3], 3.0f);
    EXPECT_EQ(spread[3 * 8 + 4], 1.0f);
    EXPECT_EQ(std::count(spread.begin(), spread.end(), 0.0f), 60);
}

TEST_F(Resampling, MagicUpsamplingAndSharpeningSpreadByTheirWeights) {
    std::vector<float> cells(8 * 8, 0.0f);
    cells[3 * 8 + 4] = 16.0f;
    const std::vector<float> up = apply(operations()[1], cells, 8, 8);
    const std::vector<float> row = {1.0f, 3.0f, 3.0f, 1.0f};
    for (int dy = 0; dy < 4; ++dy)
        for (int dx = 0; dx < 4; ++dx)
            EXPECT_EQ(up[static_cast<std::size_t>((5 + dy) * 16 + 7 + dx)],
                      row[static_cast<std::size_t>(dx)] * row[static_cast<std::size_t>(dy)]);
    const std::vector<float> sharp = apply(operations()[2], cells, 8, 8);
    EXPECT_EQ(sharp[3 * 8 + 4], 36.0f);
    EXPECT_EQ(sharp[3 * 8 + 3], -6.0f);
    EXPECT_EQ(sharp[2 * 8 + 5], 1.0f);
}

TEST_F(Resampling, DoublingAndAveragingRestoresTheSource) {
    const std::vector<float> cells = rough_terrain(37, 21);
    EXPECT_TRUE(same_bits(apply(operations()[3], apply(operations()[4], cells, 37, 21), 74, 42), cells));
}

TEST_F(Resampling, AbsentAndDegenerateGridsPassThrough) {
    for (const Operation& operation : operations()) {
        Grid absent(Extent<2>(8, 8), queue, nullptr, true, true);
        EXPECT_EQ(operation.on_grid(absent).data(), nullptr) << operation.name;
    }
    // Halving a single column leaves a grid without cells.
    std::vector<float> column(16, 1.0f);
    Grid source = grid(column, 1, 16);
    EXPECT_EQ(resampling::downsample_magic(source).size(), 0u);
}

} // namespace
