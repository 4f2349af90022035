#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <limits>
#include <stdexcept>

#include <cpl_string.h>
#include <gdal.h>

#include "exr.hpp"
#include "gdal.hpp"
#include "grid_file.hpp"
#include "message.hpp"

namespace {

struct Format {
    const char* driver; ///< of GDAL; null where it has none that writes
    void (*write)(const std::string& path, Grid& grid, const GridRecord& record);
};

std::string extension_of(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return extension;
}

/// The creation options that a driver knows, after `options`, which they overrule.
CPLStringList with_known_options(CPLStringList options, const char* driver, const std::vector<std::string>& given) {
    prepare_gdal();
    GDALDriver* const found = driver ? GetGDALDriverManager()->GetDriverByName(driver) : nullptr;
    const char* const list = found ? found->GetMetadataItem(GDAL_DMD_CREATIONOPTIONLIST) : nullptr;
    for (const std::string& option : given) {
        const std::string name = option.substr(0, option.find('='));
        if (list && CPLString(list).ifind("name='" + name + "'") != std::string::npos)
            options.SetNameValue(name.c_str(), option.substr(std::min(name.size() + 1, option.size())).c_str());
    }
    return options;
}

/// The number that stands for "no value": that of the input unless a cell has it as its value, NaN at worst. Any if
/// every cell has a value.
double missing_value_for(const Grid& grid) {
    for (const double candidate : {grid.missing_value.value_or(-9999), -9999.0}) {
        bool is_free = true;
        for (std::size_t i = 0; i < grid.missing.size() && is_free; ++i)
            is_free = grid.is_missing(i) || grid.cells[i] != static_cast<float>(candidate);
        if (is_free)
            return candidate;
    }
    return std::numeric_limits<double>::quiet_NaN();
}

void mark_missing(Grid& grid, double value) {
    for (std::size_t i = 0; i < grid.missing.size(); ++i)
        if (grid.is_missing(i))
            grid.cells[i] = static_cast<float>(value);
}

/// Everything that a dataset says about a grid but its cells.
void describe(GDALDataset& dataset, const Grid& grid, const GridRecord& record, double missing_value) {
    GDALRasterBand* const band = dataset.GetRasterBand(1);
    band->SetDescription(record.contents.c_str());
    if (!grid.missing.empty())
        band->SetNoDataValue(missing_value);
    if (!grid.unit.empty())
        band->SetUnitType(grid.unit.c_str());
    for (const auto& [name, text] : record.items)
        dataset.SetMetadataItem(name.c_str(), text.c_str());
    if (grid.geotransform) {
        std::array<double, 6> transform = *grid.geotransform;
        dataset.SetGeoTransform(transform.data());
    }
    if (!grid.coordinate_system.empty())
        dataset.SetProjection(grid.coordinate_system.c_str());
}

/// A dataset of floats that lie in the grid itself.
Dataset float_dataset(Grid& grid, const GridRecord& record) {
    const double missing_value = missing_value_for(grid);
    mark_missing(grid, missing_value);
    Dataset dataset = make_memory_dataset(grid.width, grid.height, 0, GDT_Float32);
    CPLStringList where;
    where.SetNameValue("DATAPOINTER", format_text("%p", static_cast<void*>(grid.cells.data())).c_str());
    dataset->AddBand(GDT_Float32, where.List());
    describe(*dataset, grid, record, missing_value);
    return dataset;
}

/// A dataset of integers; the conversion rounds and clamps.
Dataset integer_dataset(Grid& grid, const GridRecord& record, GDALDataType type, double missing_value) {
    mark_missing(grid, missing_value);
    Dataset dataset = make_memory_dataset(grid.width, grid.height, 1, type);
    if (dataset->GetRasterBand(1)->RasterIO(GF_Write, 0, 0, grid.width, grid.height, grid.cells.data(), grid.width,
                                            grid.height, GDT_Float32, 0, 0) != CE_None)
        throw std::runtime_error(gdal_error());
    describe(*dataset, grid, record, missing_value);
    return dataset;
}

std::string own_name(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

CPLStringList geotiff_options(const std::vector<std::string>& given) {
    CPLStringList options;
    for (const char* option : {"TILED=YES", "BLOCKXSIZE=256", "BLOCKYSIZE=256", "COMPRESS=DEFLATE", "ZLEVEL=1",
                               "PREDICTOR=3", "NUM_THREADS=ALL_CPUS", "BIGTIFF=IF_SAFER"})
        options.AddString(option);
    const CPLStringList merged = with_known_options(options, "GTiff", given);
    // A predictor goes with some compressions only, and tiles of a size with tiles.
    CPLStringList result = merged;
    const std::string compression = merged.FetchNameValue("COMPRESS");
    const auto is_given = [&](const char* name) {
        return std::any_of(given.begin(), given.end(), [&](const std::string& option) {
            return EQUAL(option.substr(0, option.find('=')).c_str(), name);
        });
    };
    if (!is_given("PREDICTOR") && compression != "DEFLATE" && compression != "LZW" && compression != "ZSTD")
        result.SetNameValue("PREDICTOR", nullptr);
    if (!is_given("ZLEVEL") && compression != "DEFLATE")
        result.SetNameValue("ZLEVEL", nullptr);
    if (!CPLTestBool(merged.FetchNameValue("TILED")))
        for (const char* name : {"BLOCKXSIZE", "BLOCKYSIZE"})
            if (!is_given(name))
                result.SetNameValue(name, nullptr);
    return result;
}

void write_geotiff(const std::string& path, Grid& grid, const GridRecord& record) {
    copy_dataset(path, "GTiff", *float_dataset(grid, record), geotiff_options(record.creation_options).List());
}

void write_asc(const std::string& path, Grid& grid, const GridRecord& record) {
    CPLStringList options;
    options.SetNameValue("SIGNIFICANT_DIGITS", "9"); // as many as a float needs to come back unchanged
    copy_dataset(path, "AAIGrid", *float_dataset(grid, record),
                 with_known_options(options, "AAIGrid", record.creation_options).List());
}

void write_png(const std::string& path, Grid& grid, const GridRecord& record) {
    // Where there are cells without a value they take 0, and the others 1 and up.
    constexpr double missing_value = 0;
    const double first = grid.missing.empty() ? 0 : missing_value + 1;
    const auto [lowest, highest] = extremes(grid);
    double scale = (static_cast<double>(highest) - static_cast<double>(lowest)) / (65535 - first);
    if (!(scale > 0))
        scale = 1;
    const double offset = static_cast<double>(lowest) - first * scale;
    for (float& cell : grid.cells)
        cell = static_cast<float>((static_cast<double>(cell) - offset) / scale);
    print_note(format_text("'%s' has 16 bits a cell: %.0f stands for %g and 65535 for %g", own_name(path).c_str(),
                           first, static_cast<double>(lowest), offset + 65535 * scale));
    const Dataset dataset = integer_dataset(grid, record, GDT_UInt16, missing_value);
    dataset->GetRasterBand(1)->SetScale(scale);
    dataset->GetRasterBand(1)->SetOffset(offset);
    copy_dataset(path, "PNG", *dataset, with_known_options({}, "PNG", record.creation_options).List());
}

void write_hgt(const std::string& path, Grid& grid, const GridRecord& record) {
    constexpr double missing_value = -32768;
    print_note(format_text("'%s' holds whole numbers: values are rounded", own_name(path).c_str()));
    copy_dataset(path, "SRTMHGT", *integer_dataset(grid, record, GDT_Int16, missing_value), nullptr);
}

/// The formats that grids are written in. Reading is left to GDAL, which knows the format from the content.
const Format* find_format(const std::string& path) {
    struct Named {
        const char* extension;
        Format format;
    };
    static constexpr Named formats[] = {{".tif", {"GTiff", write_geotiff}}, {".tiff", {"GTiff", write_geotiff}},
                                        {".png", {"PNG", write_png}},       {".hgt", {"SRTMHGT", write_hgt}},
                                        {".asc", {"AAIGrid", write_asc}},   {".exr", {nullptr, write_exr}}};
    const std::string extension = extension_of(path);
    for (const Named& named : formats)
        if (extension == named.extension)
            return &named.format;
    return nullptr;
}

/// ASC and HGT have their rows from north to south whatever the input had.
bool keeps_south_up(const std::string& path) {
    const std::string extension = extension_of(path);
    return extension != ".asc" && extension != ".hgt";
}

[[noreturn]] void refuse_fit(const std::string& path, const std::string& reason) {
    throw ToolError(ExitCode::unwritable_output, "cannot write '" + path + "': " + reason);
}

} // namespace

void check_grid_names(const std::vector<std::string>& paths, const std::vector<std::string>& creation_options) {
    for (const std::string& path : paths)
        if (find_format(path) == nullptr)
            throw ToolError(ExitCode::usage, "cannot tell the format of '" + path +
                                                 "': the name must end in .tif, .tiff, .png, .hgt, .asc or .exr");
    for (const std::string& option : creation_options) {
        bool is_known = false;
        for (const std::string& path : paths) {
            const char* const driver = find_format(path)->driver;
            const CPLStringList known = with_known_options({}, driver, {option});
            is_known |= !known.empty();
            // GDAL warns of values that the driver does not take.
            static bool has_warned;
            has_warned = false;
            CPLPushErrorHandler([](CPLErr, CPLErrorNum, const char*) { has_warned = true; });
            if (!known.empty())
                GDALValidateCreationOptions(GDALGetDriverByName(driver), const_cast<char**>(known.List()));
            CPLPopErrorHandler();
            if (has_warned)
                throw ToolError(ExitCode::usage,
                                format_text("--co: '%s' is no value that '%s' can take", option.c_str(), path.c_str()));
        }
        if (!is_known)
            throw ToolError(ExitCode::usage, "--co: no output has an option of the form '" + option + "'");
    }
}

void check_grid_fits(const std::string& path, const Grid& grid) {
    if (extension_of(path) != ".hgt")
        return;
    const auto is_size = [&](int width, int height) {
        return grid.width == width && grid.height == height;
    };
    if (!is_size(1201, 1201) && !is_size(3601, 3601) && !is_size(1801, 3601))
        refuse_fit(path, format_text("HGT files have 1201 x 1201, 3601 x 3601 or 1801 x 3601 cells, not %d x %d",
                                     grid.width, grid.height));
    if (!grid.geotransform)
        refuse_fit(path, "HGT files state their place, and that of the input is not known");
    // The corners of the tile are the centres of its outer cells.
    const auto& map = *grid.geotransform;
    const int west = static_cast<int>(std::lround(map[0] + map[1] / 2));
    const int south = static_cast<int>(std::lround(map[3] + map[5] * (grid.height - 0.5)));
    const std::string name =
        format_text("%c%02d%c%03d.hgt", south < 0 ? 'S' : 'N', std::abs(south), west < 0 ? 'W' : 'E', std::abs(west));
    if (!EQUAL(own_name(path).c_str(), name.c_str()))
        refuse_fit(path, "HGT files state their place by their name, which must be " + name);
}

std::uint64_t least_file_size(const std::string& path, const Grid& grid,
                              const std::vector<std::string>& creation_options) {
    if (extension_of(path) == ".hgt")
        return 2 * grid.size();
    const Format* const format = find_format(path);
    if (format->write == write_geotiff && EQUAL(geotiff_options(creation_options).FetchNameValue("COMPRESS"), "NONE"))
        return 4 * grid.size();
    return 0;
}

void write_grid(const std::string& path, Grid& grid, const GridRecord& record) {
    if (grid.was_south_up && keeps_south_up(path))
        flip_rows(grid);
    find_format(path)->write(path, grid, record);
}
