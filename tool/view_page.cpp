#include "view_page.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include <cpl_conv.h>
#include <cpl_string.h>

#include "message.hpp"
#include "palettes.hpp"

/// The page as the build has put it together, with a mark where the data goes.
asm(R"(.section .rodata
.global tarn_view_page
.global tarn_view_page_end
tarn_view_page: .incbin ")" TARN_VIEW_PAGE R"("
tarn_view_page_end:
.previous
)");
extern "C" const char tarn_view_page[];
extern "C" const char tarn_view_page_end[];

namespace {

constexpr std::uint16_t no_value = 65535;
constexpr double greatest_code = 65534;

/// As JSON, and without what would end a script.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text)
        if (c == '"' || c == '\\' || c == '<' || static_cast<unsigned char>(c) < ' ')
            result += format_text("\\u%04x", static_cast<unsigned>(c));
        else
            result += c;
    return result + "\"";
}

std::string base64(const std::uint8_t* bytes, std::size_t count) {
    if (count > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        throw std::length_error("a page cannot hold so much");
    char* const text = CPLBase64Encode(static_cast<int>(count), bytes);
    std::string result(text);
    CPLFree(text);
    return result;
}

/// web/decode.js undoes this.
std::string packed(const Grid& grid, const Cells& cells, float least, float greatest) {
    const std::size_t count = cells.size();
    std::vector<std::uint8_t> bytes(2 * count);
    const double base = static_cast<double>(least);
    const double scale = greatest > least ? greatest_code / (static_cast<double>(greatest) - base) : 0;
    const auto width = static_cast<std::size_t>(grid.width);
    std::uint16_t left = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (i % width == 0)
            left = 0;
        const double place = (static_cast<double>(cells[i]) - base) * scale;
        const bool has_value = std::isfinite(place) && !grid.is_missing(i);
        const auto code =
            has_value ? static_cast<std::uint16_t>(std::lround(std::clamp(place, 0.0, greatest_code))) : no_value;
        const auto difference = static_cast<std::uint16_t>(code - left);
        bytes[i] = static_cast<std::uint8_t>(difference & 255);
        bytes[count + i] = static_cast<std::uint8_t>(difference >> 8);
        left = code;
    }
    std::size_t size = 0;
    void* const deflated = CPLZLibDeflate(bytes.data(), bytes.size(), -1, nullptr, 0, &size);
    if (deflated == nullptr)
        throw std::bad_alloc();
    const std::string text = base64(static_cast<const std::uint8_t*>(deflated), size);
    CPLFree(deflated);
    return format_text("\"least\":%.9g,\"greatest\":%.9g,\"cells\":\"", static_cast<double>(least),
                       static_cast<double>(greatest)) +
           text + "\"";
}

std::string packed(const Grid& grid, const Cells& cells) {
    const Extremes span = extremes(with_cells(grid, cells));
    return packed(grid, cells, span.least, span.greatest);
}

std::string palettes_json() {
    std::string text;
    for (const Palette& palette : palettes()) {
        text += text.empty() ? '{' : ',';
        text += quoted(palette.name) + ":";
        char before = '[';
        for (const Colour& colour : palette.colours) {
            text += before + format_text("[%.0f,%.0f,%.0f]", colour[0], colour[1], colour[2]);
            before = ',';
        }
        text += "]";
    }
    return text + "}";
}

std::string grid_json(const View& view) {
    const Grid& grid = view.grid;
    std::string text =
        format_text("{\"width\":%d,\"height\":%d,\"cell\":[%.9g,%.9g],\"height_unit\":%.9g,\"unit\":", grid.width,
                    grid.height, view.cell.x, view.cell.y, view.height_unit) +
        quoted(grid.unit.empty() && view.height_unit == 1 ? "m" : grid.unit);
    if (grid.geotransform) {
        const auto& map = *grid.geotransform;
        // Degrees need more places than metres.
        text += format_text(",\"origin\":[%.12g,%.12g],\"step\":[%.12g,%.12g],\"places\":%d", map[0], map[3], map[1],
                            map[5], std::abs(map[1]) < 0.1 ? 5 : 1);
    }
    return text + "}";
}

std::string picture_json(const Picture& picture) {
    std::vector<std::uint8_t> bytes;
    for (const std::vector<std::uint8_t>& piece : encode_png(draw_picture(picture)))
        bytes.insert(bytes.end(), piece.begin(), piece.end());
    const std::string text = base64(bytes.data(), bytes.size());
    return "\"data:image/png;base64," + text + "\"";
}

std::string data_json(const View& view) {
    const Extremes span = extremes(view.grid);
    const double step = (static_cast<double>(span.greatest) - static_cast<double>(span.least)) / greatest_code;
    const std::string about =
        format_text("%d x %d cells of %.4g x %.4g m. Heights are kept in steps of %.2g, the values of layers in 65535 "
                    "steps. Made by tarn %s; drawn with three.js.",
                    view.grid.width, view.grid.height, view.cell.x, view.cell.y, step, TARN_VERSION);
    std::string text = "{\"title\":" + quoted(view.title) + ",\"note\":" + quoted(view.note) +
                       ",\"about\":" + quoted(about) + ",\"grid\":" + grid_json(view) +
                       format_text(",\"exaggeration\":%g,\"sun\":{\"azimuth\":%g,\"elevation\":%g}", view.exaggeration,
                                   view.sun.azimuth, view.sun.elevation) +
                       ",\"palettes\":" + palettes_json() + ",\"after\":{" + packed(view.grid, view.grid.cells) + "}";
    if (!view.before.empty())
        text += ",\"before\":{" + packed(view.grid, view.before) + "}";
    text += ",\"layers\":[";
    for (const ViewLayer& layer : view.layers)
        text += format_text("%s{\"thins_out\":%s,\"multiplies\":%s,", &layer == view.layers.data() ? "" : ",",
                            layer.thins_out ? "true" : "false", layer.multiplies ? "true" : "false") +
                "\"name\":" + quoted(layer.name) + ",\"unit\":" + quoted(layer.unit) +
                ",\"palette\":" + quoted(layer.palette) + "," + packed(view.grid, layer.cells) + "}";
    text += "]";
    if (view.picture)
        text += ",\"picture\":" + picture_json(*view.picture);
    return text + "}";
}

} // namespace

std::string make_view_page(const View& view) {
    const std::string mark = "@data@";
    std::string page(tarn_view_page, tarn_view_page_end);
    return page.replace(page.find(mark), mark.size(), data_json(view));
}
