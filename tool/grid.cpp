#include "grid.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <limits>
#include <memory>
#include <numbers>

#include <cpl_error.h>
#include <cpl_string.h>
#include <cpl_vsi.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include "exr.hpp"
#include "message.hpp"

namespace {

struct CloseDataset {
    void operator()(GDALDataset* dataset) const { GDALClose(dataset); }
};
using Dataset = std::unique_ptr<GDALDataset, CloseDataset>;

/// The formats that grids are written in. Reading is left to GDAL, which knows the format from the content.
struct Format {
    const char* extension;
    const char* driver;
};
constexpr Format formats[] = {{".tif", "GTiff"},   {".tiff", "GTiff"},  {".png", "PNG"},
                              {".hgt", "SRTMHGT"}, {".asc", "AAIGrid"}, {".exr", "EXR"}};

constexpr double hgt_missing_value = -32768;
constexpr double png_missing_value = 0;
constexpr double default_missing_value = -9999;

std::string extension_of(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return extension;
}

const Format& format_of(const std::string& path) {
    const std::string extension = extension_of(path);
    for (const Format& format : formats)
        if (extension == format.extension)
            return format;
    throw ToolError(ExitCode::usage, "cannot tell the format of '" + path +
                                         "': the name must end in .tif, .tiff, .png, .hgt, .asc or .exr");
}

/// GDAL prints its errors unless told otherwise. Here the first one, which the others follow from, becomes part of one
/// line of ours.
std::string first_gdal_error;

void keep_gdal_error(CPLErr severity, CPLErrorNum, const char* text) {
    if (severity >= CE_Failure && first_gdal_error.empty())
        first_gdal_error = text;
}

void prepare_gdal() {
    static const bool done = [] {
        CPLSetErrorHandler(keep_gdal_error);
        GDALAllRegister();
        return true;
    }();
    static_cast<void>(done);
    first_gdal_error.clear();
}

std::string gdal_error() {
    return first_gdal_error.empty() ? "unknown error" : first_gdal_error;
}

double largest_integer(GDALDataType type) {
    switch (type) {
    case GDT_Byte:
        return std::numeric_limits<std::uint8_t>::max();
    case GDT_UInt16:
        return std::numeric_limits<std::uint16_t>::max();
    case GDT_Int16:
        return std::numeric_limits<std::int16_t>::max();
    case GDT_UInt32:
        return std::numeric_limits<std::uint32_t>::max();
    case GDT_Int32:
        return std::numeric_limits<std::int32_t>::max();
    default:
        return 0;
    }
}

/// GDAL often begins with the name as well.
std::string without_name(const std::string& path, const std::string& reason) {
    return reason.starts_with(path + ": ") ? reason.substr(path.size() + 2) : reason;
}

[[noreturn]] void refuse_input(const std::string& path, const std::string& reason) {
    throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "': " + without_name(path, reason));
}

[[noreturn]] void refuse_output(const std::string& path, const std::string& reason) {
    throw ToolError(ExitCode::unwritable_output, "cannot write '" + path + "': " + without_name(path, reason));
}

Grid read_with_gdal(const std::string& path) {
    prepare_gdal();
    const Dataset dataset(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY | GDAL_OF_VERBOSE_ERROR));
    if (!dataset)
        refuse_input(path, gdal_error());
    if (dataset->GetRasterCount() == 0)
        refuse_input(path, "it holds no raster band");
    if (dataset->GetRasterCount() > 1)
        print_note(format_text("'%s' has %d bands; the first one is used", path.c_str(), dataset->GetRasterCount()));
    GDALRasterBand* const band = dataset->GetRasterBand(1);

    Grid grid;
    grid.width = dataset->GetRasterXSize();
    grid.height = dataset->GetRasterYSize();
    grid.cells.resize(static_cast<std::size_t>(grid.width) * static_cast<std::size_t>(grid.height));
    if (band->RasterIO(GF_Read, 0, 0, grid.width, grid.height, grid.cells.data(), grid.width, grid.height, GDT_Float32,
                       0, 0) != CE_None)
        refuse_input(path, gdal_error());

    if ((band->GetMaskFlags() & GMF_ALL_VALID) == 0) {
        grid.missing.resize(grid.size());
        if (band->GetMaskBand()->RasterIO(GF_Read, 0, 0, grid.width, grid.height, grid.missing.data(), grid.width,
                                          grid.height, GDT_Byte, 0, 0) != CE_None)
            refuse_input(path, gdal_error());
        for (std::uint8_t& mark : grid.missing)
            mark = mark == 0;
    }
    int has_missing_value = 0;
    if (const double value = band->GetNoDataValue(&has_missing_value); has_missing_value)
        grid.missing_value = value;

    const double scale = band->GetScale();
    const double offset = band->GetOffset();
    if (scale != 1 || offset != 0)
        for (float& cell : grid.cells)
            cell = static_cast<float>(static_cast<double>(cell) * scale + offset);
    else
        grid.integer_maximum = largest_integer(band->GetRasterDataType());

    std::array<double, 6> transform;
    if (dataset->GetGeoTransform(transform.data()) == CE_None)
        grid.geotransform = transform;
    if (const char* projection = dataset->GetProjectionRef())
        grid.coordinate_system = projection;
    grid.unit = band->GetUnitType();
    return grid;
}

/// Marks every cell that holds no number, and gives the marked ones a number.
void fill_missing(const std::string& path, Grid& grid, std::optional<float> stand_in) {
    for (std::size_t i = 0; i < grid.size(); ++i)
        if (!std::isfinite(grid.cells[i])) {
            grid.missing.resize(grid.size());
            grid.missing[i] = 1;
        }
    const auto count = std::count(grid.missing.begin(), grid.missing.end(), std::uint8_t{1});
    if (count == 0) {
        grid.missing.clear();
        return;
    }
    float lowest = std::numeric_limits<float>::infinity();
    for (std::size_t i = 0; i < grid.size(); ++i)
        if (!grid.is_missing(i))
            lowest = std::min(lowest, grid.cells[i]);
    if (!std::isfinite(lowest))
        refuse_input(path, "no cell has a value");
    const float value = stand_in.value_or(lowest);
    for (std::size_t i = 0; i < grid.size(); ++i)
        if (grid.is_missing(i))
            grid.cells[i] = value;
    print_note(format_text("'%s': %td cells have no value and are taken as %g%s", path.c_str(), count,
                           static_cast<double>(value), stand_in ? "" : ", the lowest of the others"));
}

/// A dataset in memory, which the drivers that cannot create a file copy from.
Dataset make_memory_dataset(int width, int height, int bands, GDALDataType type) {
    GDALDriver* const driver = GetGDALDriverManager()->GetDriverByName("MEM");
    Dataset dataset(driver->Create("", width, height, bands, type, nullptr));
    if (!dataset)
        throw std::bad_alloc();
    return dataset;
}

void copy_to_file(const std::string& path, const char* driver_name, GDALDataset& dataset, CSLConstList options) {
    GDALDriver* const driver = GetGDALDriverManager()->GetDriverByName(driver_name);
    if (driver == nullptr)
        refuse_output(path, format_text("this build of GDAL has no driver %s", driver_name));
    first_gdal_error.clear();
    Dataset copy(driver->CreateCopy(path.c_str(), &dataset, TRUE, const_cast<char**>(options), nullptr, nullptr));
    const bool created = copy != nullptr;
    copy.reset(); // the last blocks are written here
    if (created && !first_gdal_error.empty())
        VSIUnlink(path.c_str());
    if (!created || !first_gdal_error.empty())
        refuse_output(path, gdal_error());
}

void write_with_gdal(const std::string& path, const char* driver, const Grid& grid) {
    prepare_gdal();
    const bool is_png = std::string_view(driver) == "PNG";
    const bool is_hgt = std::string_view(driver) == "SRTMHGT";
    const bool has_missing = !grid.missing.empty();
    double missing_value = grid.missing_value.value_or(default_missing_value);
    std::vector<float> cells = grid.cells;

    GDALDataType type = GDT_Float32;
    double scale = 1;
    double offset = 0;
    if (is_png) {
        // Where there are cells without a value they take 0, and the others 1 and up.
        const double first = has_missing ? png_missing_value + 1 : 0;
        float lowest = std::numeric_limits<float>::infinity();
        float highest = -lowest;
        for (std::size_t i = 0; i < cells.size(); ++i)
            if (!grid.is_missing(i)) {
                lowest = std::min(lowest, cells[i]);
                highest = std::max(highest, cells[i]);
            }
        type = GDT_UInt16;
        missing_value = png_missing_value;
        scale = (static_cast<double>(highest) - static_cast<double>(lowest)) / (65535 - first);
        if (!(scale > 0))
            scale = 1;
        offset = static_cast<double>(lowest) - first * scale;
        for (float& cell : cells)
            cell = static_cast<float>((static_cast<double>(cell) - offset) / scale);
        print_note(format_text("'%s' has 16 bits a cell: %.0f stands for %g and 65535 for %g", path.c_str(), first,
                               static_cast<double>(lowest), offset + 65535 * scale));
    } else if (is_hgt) {
        type = GDT_Int16;
        missing_value = hgt_missing_value;
        print_note("'" + path + "' holds whole numbers: values are rounded");
    }
    for (std::size_t i = 0; i < cells.size(); ++i)
        if (grid.is_missing(i))
            cells[i] = static_cast<float>(missing_value);

    const Dataset dataset = make_memory_dataset(grid.width, grid.height, 1, type);
    GDALRasterBand* const band = dataset->GetRasterBand(1);
    if (has_missing)
        band->SetNoDataValue(missing_value);
    if (!grid.unit.empty())
        band->SetUnitType(grid.unit.c_str());
    if (is_png) {
        band->SetScale(scale);
        band->SetOffset(offset);
    }
    if (grid.geotransform) {
        std::array<double, 6> transform = *grid.geotransform;
        dataset->SetGeoTransform(transform.data());
    }
    if (!grid.coordinate_system.empty())
        dataset->SetProjection(grid.coordinate_system.c_str());
    // Conversion to the band's integers rounds and clamps.
    if (band->RasterIO(GF_Write, 0, 0, grid.width, grid.height, cells.data(), grid.width, grid.height, GDT_Float32, 0,
                       0) != CE_None)
        refuse_output(path, gdal_error());

    CPLStringList options;
    if (std::string_view(driver) == "GTiff") {
        options.SetNameValue("COMPRESS", "DEFLATE");
        options.SetNameValue("PREDICTOR", "3");
    } else if (std::string_view(driver) == "AAIGrid") {
        options.SetNameValue("SIGNIFICANT_DIGITS", "9"); // as many as a float needs to come back unchanged
    }
    copy_to_file(path, driver, *dataset, options.List());
}

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

Grid read_grid(const std::string& path, std::optional<float> stand_in) {
    Grid grid;
    if (is_exr_name(path)) {
        try {
            grid = read_exr(path);
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception& error) {
            refuse_input(path, error.what());
        }
    } else {
        grid = read_with_gdal(path);
    }
    fill_missing(path, grid, stand_in);
    return grid;
}

void check_grid_name(const std::string& path) {
    format_of(path);
    check_folder(path);
}

void check_folder(const std::string& path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty() && !std::filesystem::is_directory(folder))
        refuse_output(path, "there is no folder '" + folder.string() + "'");
}

void write_grid(const std::string& path, const Grid& grid) {
    const Format& format = format_of(path);
    if (!is_exr_name(path)) {
        write_with_gdal(path, format.driver, grid);
        return;
    }
    if (grid.geotransform)
        print_note("'" + path + "' cannot hold the place on the map");
    try {
        write_exr(path, grid);
    } catch (const std::exception& error) {
        refuse_output(path, error.what());
    }
}

std::optional<CellSize> ground_cell_size(const Grid& grid) {
    if (!grid.geotransform)
        return std::nullopt;
    const std::array<double, 6>& transform = *grid.geotransform;
    CellSize size{std::hypot(transform[1], transform[4]), std::hypot(transform[2], transform[5])};
    OGRSpatialReference system;
    if (!grid.coordinate_system.empty() && system.importFromWkt(grid.coordinate_system.c_str()) == OGRERR_NONE) {
        if (system.IsGeographic()) {
            // Lengths of an arc along the parallel and along the meridian, on the ellipsoid.
            const double latitude = (transform[3] + transform[4] * grid.width / 2 + transform[5] * grid.height / 2) *
                                    std::numbers::pi / 180;
            const double axis = system.GetSemiMajor();
            const double flattening = system.GetInvFlattening() > 0 ? 1 / system.GetInvFlattening() : 0;
            const double squared_eccentricity = flattening * (2 - flattening);
            const double w = 1 - squared_eccentricity * std::pow(std::sin(latitude), 2);
            const double radian = system.GetAngularUnits();
            size.x *= radian * axis * std::cos(latitude) / std::sqrt(w);
            size.y *= radian * axis * (1 - squared_eccentricity) / std::pow(w, 1.5);
        } else if (system.IsProjected() || system.IsLocal()) {
            const double metre = system.GetLinearUnits();
            size.x *= metre;
            size.y *= metre;
        }
    }
    if (!(size.x > 0 && size.y > 0 && std::isfinite(size.x) && std::isfinite(size.y)))
        return std::nullopt;
    return size;
}

Picture read_picture(const std::string& path) {
    prepare_gdal();
    const Dataset dataset(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY | GDAL_OF_VERBOSE_ERROR));
    if (!dataset)
        refuse_input(path, gdal_error());
    const int bands = dataset->GetRasterCount();
    if (bands == 0)
        refuse_input(path, "it holds no raster band");
    Picture picture;
    picture.width = dataset->GetRasterXSize();
    picture.height = dataset->GetRasterYSize();
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
    }
    return picture;
}

void write_picture(const std::string& path, const Picture& picture) {
    std::vector<std::uint8_t> pixels(picture.channels[0].size() * 3);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<std::uint8_t>(std::lround(coded_light(picture.channels[i % 3][i / 3]) * 255.0f));
    write_picture(path, picture.width, picture.height, 3, pixels);
}

void write_picture(const std::string& path, int width, int height, int channels,
                   const std::vector<std::uint8_t>& pixels) {
    prepare_gdal();
    const Dataset dataset = make_memory_dataset(width, height, channels, GDT_Byte);
    if (dataset->RasterIO(GF_Write, 0, 0, width, height, const_cast<std::uint8_t*>(pixels.data()), width, height,
                          GDT_Byte, channels, nullptr, channels, static_cast<GSpacing>(channels) * width, 1,
                          nullptr) != CE_None)
        refuse_output(path, gdal_error());
    copy_to_file(path, "PNG", *dataset, nullptr);
}
