#include "picture.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

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
    for (int channel = 0; channel < 3; ++channel) {
        GDALRasterBand* const band = dataset->GetRasterBand(bands >= 3 ? channel + 1 : 1);
        const double brightest = largest_integer(band->GetRasterDataType());
        if (brightest == 0 || brightest > 65535 || band->GetColorTable() != nullptr)
            refuse_input(path, "it is no picture with 8 or 16 bits a channel");
        std::vector<float>& pixels = picture.channels[static_cast<std::size_t>(channel)];
        pixels.resize(static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height));
        if (band->RasterIO(GF_Read, 0, 0, picture.width, picture.height, pixels.data(), picture.width, picture.height,
                           GDT_Float32, 0, 0) != CE_None)
            refuse_input(path, gdal_error());
        for (float& pixel : pixels)
            pixel = linear_light(std::max(pixel, 0.0f) / static_cast<float>(brightest));
        if (is_south_up)
            reverse_rows(pixels, picture.width);
    }
    return picture;
}

std::vector<std::uint8_t> srgb_pixels(const Picture& picture) {
    std::vector<std::uint8_t> pixels(picture.channels[0].size() * 3);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<std::uint8_t>(std::lround(coded_light(picture.channels[i % 3][i / 3]) * 255.0f));
    return pixels;
}

void write_picture(const std::string& path, int width, int height, const std::vector<std::uint8_t>& pixels,
                   const std::optional<std::array<double, 6>>& geotransform) {
    const Dataset dataset = make_memory_dataset(width, height, 3, GDT_Byte);
    if (dataset->RasterIO(GF_Write, 0, 0, width, height, const_cast<std::uint8_t*>(pixels.data()), width, height,
                          GDT_Byte, 3, nullptr, 3, GSpacing{3} * width, 1, nullptr) != CE_None)
        throw std::runtime_error(gdal_error());
    copy_dataset(path, "PNG", *dataset, nullptr);
    std::array<double, 6> place = geotransform.value_or(std::array<double, 6>{});
    if (geotransform && !GDALWriteWorldFile(path.c_str(), "pgw", place.data()))
        throw std::runtime_error(gdal_error());
}
