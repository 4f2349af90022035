#include "picture.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <stdexcept>

#include <cpl_vsi.h>

#include "byte_table.hpp"
#include "gdal.hpp"
#include "grid.hpp"

namespace {

/// The transfer function of sRGB (IEC 61966-2-1) and its inverse, which clamps.
float linear_light(float code) {
    return code <= 0.04045f ? code / 12.92f : std::pow((code + 0.055f) / 1.055f, 2.4f);
}

float coded_light(float light) {
    if (!(light > 0.0f))
        return 0.0f;
    return light <= 0.0031308f ? light * 12.92f : std::min(1.055f * std::pow(light, 1.0f / 2.4f) - 0.055f, 1.0f);
}

} // namespace

Picture read_picture(const std::string& path) {
    const Dataset dataset = open_raster(path);
    const int bands = dataset->GetRasterCount();
    Picture picture;
    picture.width = dataset->GetRasterXSize();
    picture.height = dataset->GetRasterYSize();
    std::array<double, 6> map;
    const bool is_south_up =
        dataset->GetGeoTransform(map.data()) == CE_None && runs_northwards(path, map, picture.width, picture.height);
    const auto band_of = [&](std::size_t channel) {
        return dataset->GetRasterBand(bands >= 3 ? static_cast<int>(channel) + 1 : 1);
    };
    for (std::size_t channel = 0; channel < 3; ++channel) {
        GDALRasterBand* const band = band_of(channel);
        const double brightest = largest_integer(band->GetRasterDataType());
        if (brightest == 0 || brightest > 65535 || band->GetColorTable() != nullptr)
            refuse_input(path, "it is no picture with 8 or 16 bits a channel");
        picture.channels[channel].resize(static_cast<std::size_t>(picture.width) *
                                         static_cast<std::size_t>(picture.height));
    }
    read_by_windows(path, *dataset, [&](const RasterWindow& window) {
        return window.read(*band_of(0), picture.channels[0].data()) &&
               window.read(*band_of(1), picture.channels[1].data()) &&
               window.read(*band_of(2), picture.channels[2].data());
    });
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const double brightest = largest_integer(band_of(channel)->GetRasterDataType());
        std::vector<float> lights(static_cast<std::size_t>(brightest) + 1);
        for (std::size_t code = 0; code < lights.size(); ++code)
            lights[code] = linear_light(static_cast<float>(code) / static_cast<float>(brightest));
        for (float& pixel : picture.channels[channel])
            pixel = lights[static_cast<std::size_t>(std::max(pixel, 0.0f))];
        if (is_south_up)
            reverse_rows(picture.channels[channel], picture.width);
    }
    return picture;
}

Drawing draw_picture(const Picture& picture) {
    static const ByteTable byte_of(
        [](float light) { return static_cast<std::uint8_t>(std::lround(coded_light(light) * 255.0f)); });
    return {.width = picture.width,
            .height = picture.height,
            .draw = [&picture](int first, int rows, std::uint8_t* pixels) {
                const auto width = static_cast<std::size_t>(picture.width);
                const std::size_t begin = static_cast<std::size_t>(first) * width;
                for (std::size_t i = begin; i < begin + static_cast<std::size_t>(rows) * width; ++i)
                    for (const Cells& channel : picture.channels)
                        *pixels++ = byte_of(channel[i]);
            }};
}

void write_picture(const std::string& path, const PngPieces& png,
                   const std::optional<std::array<double, 6>>& geotransform) {
    prepare_gdal();
    VSILFILE* const file = VSIFOpenL(path.c_str(), "wb");
    bool is_written = file != nullptr;
    for (auto piece = png.begin(); is_written && piece != png.end(); ++piece)
        is_written = VSIFWriteL(piece->data(), 1, piece->size(), file) == piece->size();
    if (file != nullptr)
        is_written &= VSIFCloseL(file) == 0;
    std::array<double, 6> place = geotransform.value_or(std::array<double, 6>{});
    if (!is_written || (geotransform && !GDALWriteWorldFile(path.c_str(), "pgw", place.data())))
        throw std::runtime_error(gdal_error());
}
