#include "legend.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "message.hpp"

namespace {

constexpr int scale = 2; ///< pixels of the picture to one of a digit
constexpr int digit_width = 5, digit_height = 7, advance = digit_width + 1;
constexpr int margin = 6, strip_height = 12;
constexpr int legend_height = margin + strip_height + margin / 2 + digit_height * scale + margin;

/// What a number and its unit are written with, 5 x 7 pixels: a row is 5 bits, the highest the one on the left.
const std::vector<std::pair<char, std::array<std::uint8_t, digit_height>>> glyphs{
    {'0', {14, 17, 19, 21, 25, 17, 14}}, {'1', {4, 12, 4, 4, 4, 4, 14}},    {'2', {14, 17, 1, 2, 4, 8, 31}},
    {'3', {31, 2, 4, 2, 1, 17, 14}},     {'4', {2, 6, 10, 18, 31, 2, 2}},   {'5', {31, 16, 30, 1, 1, 17, 14}},
    {'6', {6, 8, 16, 30, 17, 17, 14}},   {'7', {31, 1, 2, 4, 8, 8, 8}},     {'8', {14, 17, 17, 14, 17, 17, 14}},
    {'9', {14, 17, 17, 15, 1, 2, 12}},   {'.', {0, 0, 0, 0, 0, 12, 12}},    {'-', {0, 0, 0, 31, 0, 0, 0}},
    {'+', {0, 4, 4, 31, 4, 4, 0}},       {'e', {0, 0, 14, 17, 31, 16, 14}}, {'m', {0, 0, 26, 21, 21, 21, 21}},
    {'f', {6, 9, 8, 28, 8, 8, 8}},       {'t', {8, 8, 28, 8, 8, 9, 6}}};

/// 3 bytes a pixel.
struct Pixels {
    int width, height;
    std::vector<std::uint8_t> bytes;
};

void draw_text(Pixels& picture, int left, int top, const std::string& text) {
    for (const char c : text) {
        const auto glyph =
            std::find_if(glyphs.begin(), glyphs.end(), [c](const auto& entry) { return entry.first == c; });
        for (int y = 0; glyph != glyphs.end() && y < digit_height * scale; ++y)
            for (int x = 0; x < digit_width * scale; ++x) {
                const int row = glyph->second[static_cast<std::size_t>(y / scale)];
                const int column = left + x;
                if ((row >> (digit_width - 1 - x / scale) & 1) != 0 && column >= 0 && column < picture.width) {
                    const std::size_t pixel =
                        static_cast<std::size_t>(top + y) * static_cast<std::size_t>(picture.width) +
                        static_cast<std::size_t>(column);
                    std::fill_n(&picture.bytes[3 * pixel], 3, std::uint8_t{40});
                }
            }
        left += advance * scale;
    }
}

Pixels legend_of(int width, const Palette& palette, Extremes span, const std::string& unit) {
    Pixels picture{
        width, legend_height,
        std::vector<std::uint8_t>(3 * static_cast<std::size_t>(legend_height) * static_cast<std::size_t>(width), 255)};
    constexpr int top = margin;
    const int length = width - 2 * margin;
    for (int x = 0; x < length; ++x) {
        const Colour colour = colour_at(palette, (x + 0.5) / length);
        for (int y = top; y < top + strip_height; ++y) {
            const std::size_t pixel = static_cast<std::size_t>(y) * static_cast<std::size_t>(picture.width) +
                                      static_cast<std::size_t>(margin + x);
            for (std::size_t channel = 0; channel < 3; ++channel)
                picture.bytes[3 * pixel + channel] = static_cast<std::uint8_t>(std::lround(colour[channel]));
        }
    }
    const double least = static_cast<double>(span.least), greatest = static_cast<double>(span.greatest);
    // Numbers are as fine as a thousandth of the span, so that a least value of all but 0 shows as 0.
    const double step = greatest > least ? std::pow(10, std::floor(std::log10((greatest - least) / 1000))) : 0;
    const double places[] = {0, 0.5, 1};
    for (const double place : places) {
        const double exact = least + (greatest - least) * place;
        const double value = step > 0 ? std::round(exact / step) * step + 0.0 : exact;
        const std::string text = format_text("%.4g", value) + (place == 1 && !unit.empty() ? " " + unit : "");
        const int text_width = static_cast<int>(text.size()) * advance * scale - scale;
        draw_text(picture, margin + static_cast<int>((length - text_width) * place), top + strip_height + margin / 2,
                  text);
    }
    return picture;
}

} // namespace

Drawing with_legend(const Drawing& drawing, const Palette& palette, Extremes span, const std::string& unit) {
    Drawing result = drawing;
    result.height += legend_height;
    if (drawing.prepare)
        result.prepare = [drawing](int first, int rows) {
            if (first < drawing.height)
                drawing.prepare(first, std::min(rows, drawing.height - first));
        };
    result.draw = [drawing, legend = legend_of(drawing.width, palette, span, unit)](int first, int rows,
                                                                                    std::uint8_t* pixels) {
        const std::size_t row_bytes = 3 * static_cast<std::size_t>(drawing.width);
        const int above = std::clamp(drawing.height - first, 0, rows);
        if (above > 0)
            drawing.draw(first, above, pixels);
        if (above < rows)
            std::copy_n(&legend.bytes[row_bytes * static_cast<std::size_t>(first + above - drawing.height)],
                        row_bytes * static_cast<std::size_t>(rows - above),
                        pixels + row_bytes * static_cast<std::size_t>(above));
    };
    return result;
}
