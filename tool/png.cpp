#include "png.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <isa-l/crc.h>
#include <isa-l/igzip_lib.h>
#include <tbb/parallel_for.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int strip_bytes = 1 << 19; // of pixels: small beside the caches, large beside the window of Deflate
constexpr std::uint32_t adler_base = 65521;

void append_number(Bytes& bytes, std::uint32_t number) {
    for (const int shift : {24, 16, 8, 0})
        bytes.push_back(static_cast<std::uint8_t>(number >> shift));
}

/// A chunk whose data is written in place: begin_chunk makes room for its length, end_chunk completes it.
Bytes begin_chunk(std::string_view type) {
    Bytes chunk(8);
    std::copy_n(type.begin(), 4, chunk.begin() + 4);
    return chunk;
}

void end_chunk(Bytes& chunk) {
    Bytes length;
    append_number(length, static_cast<std::uint32_t>(chunk.size() - 8));
    std::copy(length.begin(), length.end(), chunk.begin());
    append_number(chunk, crc32_gzip_refl(0, chunk.data() + 4, chunk.size() - 4));
}

/// Appends the compressed bytes. They end at a byte's end and need nothing of what comes before or after them, so
/// strips that were compressed by themselves make one stream.
void append_deflated(Bytes& out, Bytes& data) {
    constexpr int level = 2;
    Bytes work(ISAL_DEF_LVL2_DEFAULT);
    const auto stream = std::make_unique<isal_zstream>();
    isal_deflate_init(stream.get());
    stream->level = level;
    stream->level_buf = work.data();
    stream->level_buf_size = static_cast<std::uint32_t>(work.size());
    stream->flush = FULL_FLUSH;
    stream->next_in = data.data();
    stream->avail_in = static_cast<std::uint32_t>(data.size());
    std::size_t used = out.size();
    do {
        out.resize(out.size() + data.size() / 2 + 1024);
        stream->next_out = out.data() + used;
        stream->avail_out = static_cast<std::uint32_t>(out.size() - used);
        if (isal_deflate(stream.get()) != COMP_OK)
            throw std::runtime_error("a picture cannot be compressed");
        used = out.size() - stream->avail_out;
    } while (stream->avail_out == 0);
    out.resize(used);
}

struct Strip {
    Bytes chunk;
    std::uint32_t checksum = 0; ///< Adler-32 of its filtered bytes
    std::size_t size = 0;       ///< and their number
};

/// Each byte but those of the first row becomes the difference to the byte above, those of the first row to the byte on
/// the left.
Bytes filtered(const Bytes& pixels, std::size_t row_bytes, std::size_t channels) {
    constexpr std::uint8_t sub = 1, up = 2;
    Bytes result(pixels.size() + pixels.size() / row_bytes);
    std::uint8_t* out = result.data();
    for (const std::uint8_t* row = pixels.data(); row != pixels.data() + pixels.size(); row += row_bytes) {
        const bool is_first = row == pixels.data();
        *out++ = is_first ? sub : up;
        if (is_first) {
            std::copy_n(row, channels, out);
            for (std::size_t i = channels; i < row_bytes; ++i)
                out[i] = static_cast<std::uint8_t>(row[i] - row[i - channels]);
        } else {
            for (std::size_t i = 0; i < row_bytes; ++i)
                out[i] = static_cast<std::uint8_t>(row[i] - (row - row_bytes)[i]);
        }
        out += row_bytes;
    }
    return result;
}

/// The sum of two pieces of data in a row, from theirs.
std::uint32_t joined_checksum(std::uint32_t first, const Strip& second) {
    const std::uint64_t low = first & 0xffff, high = first >> 16;
    const std::uint64_t second_low = second.checksum & 0xffff, second_high = second.checksum >> 16;
    const std::uint64_t sum = (low + second_low + adler_base - 1) % adler_base;
    const std::uint64_t sum_of_sums =
        (high + second_high + (second.size % adler_base) * (low + adler_base - 1)) % adler_base;
    return static_cast<std::uint32_t>(sum_of_sums << 16 | sum);
}

} // namespace

PngPieces encode_png(const Drawing& drawing) {
    const int width = drawing.width, height = drawing.height;
    const auto channels = static_cast<std::size_t>(drawing.channels);
    const std::size_t row_bytes = static_cast<std::size_t>(width) * channels;
    const int strip_rows = std::max(static_cast<int>(strip_bytes / row_bytes), 1);
    const auto encode = [&](int first, int rows) {
        Bytes pixels(row_bytes * static_cast<std::size_t>(rows));
        drawing.draw(first, rows, pixels.data());
        Bytes data = filtered(pixels, row_bytes, channels);
        Strip strip{begin_chunk("IDAT"), isal_adler32(1, data.data(), data.size()), data.size()};
        if (first == 0)
            strip.chunk.insert(strip.chunk.end(), {0x78, 0x01}); // the head of a zlib stream
        append_deflated(strip.chunk, data);
        end_chunk(strip.chunk);
        strip.chunk.shrink_to_fit();
        return strip;
    };

    PngPieces pieces{{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'}, begin_chunk("IHDR")};
    for (const int side : {width, height})
        append_number(pieces.back(), static_cast<std::uint32_t>(side));
    const std::uint8_t colour_type = channels == 3 ? 2 : 0;
    pieces.back().insert(pieces.back().end(), {8, colour_type, 0, 0, 0});
    end_chunk(pieces.back());

    std::uint32_t checksum = 1;
    const int band_rows = drawing.band_rows > 0 ? drawing.band_rows : height;
    for (int band = 0; band < height; band += band_rows) {
        const int end = std::min(height - band, band_rows) + band;
        if (drawing.prepare)
            drawing.prepare(band, end - band);
        std::vector<Strip> strips(static_cast<std::size_t>((end - band + strip_rows - 1) / strip_rows));
        tbb::parallel_for(std::size_t{0}, strips.size(), [&](std::size_t i) {
            const int first = band + static_cast<int>(i) * strip_rows;
            strips[i] = encode(first, std::min(strip_rows, end - first));
        });
        for (Strip& strip : strips) {
            checksum = joined_checksum(checksum, strip);
            pieces.push_back(std::move(strip.chunk));
        }
    }

    Bytes end = begin_chunk("IDAT");
    end.insert(end.end(), {0x03, 0x00}); // a last block, of nothing
    append_number(end, checksum);
    end_chunk(end);
    pieces.push_back(std::move(end));
    pieces.push_back(begin_chunk("IEND"));
    end_chunk(pieces.back());
    return pieces;
}
