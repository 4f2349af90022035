#include "fill_holes.hpp"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace {

constexpr int relaxations = 16;

struct Level {
    int width, height;
    Cells cells;
    std::vector<std::uint8_t> missing;

    std::size_t clamped(int x, int y) const {
        return static_cast<std::size_t>(std::clamp(y, 0, height - 1)) * static_cast<std::size_t>(width) +
               static_cast<std::size_t>(std::clamp(x, 0, width - 1));
    }
};

bool has_holes(const Level& level) {
    return std::find(level.missing.begin(), level.missing.end(), std::uint8_t{1}) != level.missing.end();
}

Level pull(const Level& fine) {
    Level coarse{(fine.width + 1) / 2, (fine.height + 1) / 2, {}, {}};
    for (int y = 0; y < coarse.height; ++y)
        for (int x = 0; x < coarse.width; ++x) {
            float sum = 0, count = 0;
            for (int v = 2 * y; v < std::min(2 * y + 2, fine.height); ++v)
                for (int u = 2 * x; u < std::min(2 * x + 2, fine.width); ++u)
                    if (const std::size_t i = fine.clamped(u, v); fine.missing[i] == 0) {
                        sum += fine.cells[i];
                        count += 1;
                    }
            coarse.cells.push_back(count > 0 ? sum / count : 0.0f);
            coarse.missing.push_back(count > 0 ? 0 : 1);
        }
    return coarse;
}

template <class Cell>
void for_missing(const Level& level, Cell cell) {
    std::size_t i = 0;
    for (int y = 0; y < level.height; ++y)
        for (int x = 0; x < level.width; ++x, ++i)
            if (level.missing[i] != 0)
                cell(x, y, i);
}

void push(const Level& coarse, Level& fine) {
    for_missing(fine, [&](int x, int y, std::size_t i) {
        const int near_x = x / 2, near_y = y / 2;
        const int far_x = near_x + (x % 2 == 0 ? -1 : 1), far_y = near_y + (y % 2 == 0 ? -1 : 1);
        fine.cells[i] = 0.5625f * coarse.cells[coarse.clamped(near_x, near_y)] +
                        0.1875f * coarse.cells[coarse.clamped(far_x, near_y)] +
                        0.1875f * coarse.cells[coarse.clamped(near_x, far_y)] +
                        0.0625f * coarse.cells[coarse.clamped(far_x, far_y)];
    });
}

void relax(Level& level) {
    for (int pass = 0; pass < 2 * relaxations; ++pass)
        for_missing(level, [&](int x, int y, std::size_t i) {
            if ((x + y) % 2 == pass % 2)
                level.cells[i] =
                    0.25f * ((level.cells[level.clamped(x - 1, y)] + level.cells[level.clamped(x + 1, y)]) +
                             (level.cells[level.clamped(x, y - 1)] + level.cells[level.clamped(x, y + 1)]));
        });
}

void fill(Level& level) {
    if (!has_holes(level))
        return;
    Level coarse = pull(level);
    fill(coarse);
    push(coarse, level);
    relax(level);
}

} // namespace

void fill_holes(Cells& cells, const std::vector<std::uint8_t>& missing, int width, int height) {
    Level level{width, height, std::move(cells), missing};
    fill(level);
    cells = std::move(level.cells);
}
