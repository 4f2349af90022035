#include "gdal.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <new>
#include <stdexcept>

#include <cpl_error.h>

#include "interrupt.hpp"
#include "message.hpp"

namespace {

std::string first_error;

void keep_error(CPLErr severity, CPLErrorNum, const char* text) {
    if (severity >= CE_Failure && first_error.empty())
        first_error = text;
}

int continue_unless_interrupted(double, const char*, void*) {
    return is_interrupted() ? FALSE : TRUE;
}

/// GDAL often begins with the name as well.
std::string without_name(const std::string& path, const std::string& reason) {
    return reason.starts_with(path + ": ") ? reason.substr(path.size() + 2) : reason;
}

/// While it lives, GDAL keeps few of the blocks that it writes: they go out as they are made, and their memory serves
/// the next ones.
class SmallCache {
  public:
    SmallCache() {
        if (CPLGetConfigOption("GDAL_CACHEMAX", nullptr) == nullptr)
            GDALSetCacheMax64(std::min(before_, most));
    }
    ~SmallCache() { GDALSetCacheMax64(before_); }
    SmallCache(const SmallCache&) = delete;
    SmallCache& operator=(const SmallCache&) = delete;

  private:
    static constexpr GIntBig most = 1 << 25; // two rows of tiles of 16,384 cells
    GIntBig before_ = GDALGetCacheMax64();
};

bool read_window(const RasterWindow& w, GDALRasterBand& band, void* cells, GDALDataType type) {
    const GSpacing cell = GDALGetDataTypeSizeBytes(type), row = cell * band.GetXSize();
    return band.RasterIO(GF_Read, w.column, w.row, w.columns, w.rows,
                         static_cast<std::byte*>(cells) + w.row * row + w.column * cell, w.columns, w.rows, type, cell,
                         row) == CE_None;
}

} // namespace

bool RasterWindow::read(GDALRasterBand& band, float* cells) const {
    return read_window(*this, band, cells, GDT_Float32);
}

bool RasterWindow::read(GDALRasterBand& band, std::uint8_t* cells) const {
    return read_window(*this, band, cells, GDT_Byte);
}

void read_by_windows(const std::string& path, GDALDataset& dataset,
                     const std::function<bool(const RasterWindow&)>& read) {
    constexpr std::int64_t window_bytes = 1 << 21; // small beside the caches
    const std::int64_t width = dataset.GetRasterXSize(), height = dataset.GetRasterYSize();
    GDALRasterBand* const band = dataset.GetRasterBand(1);
    int block_width = 0, block_height = 0;
    band->GetBlockSize(&block_width, &block_height);
    // Where pixels are interleaved the blocks of all bands are read together.
    const std::int64_t block_bytes = std::int64_t{block_width} * block_height *
                                     GDALGetDataTypeSizeBytes(band->GetRasterDataType()) * dataset.GetRasterCount();
    const std::int64_t blocks = std::max<std::int64_t>(window_bytes / block_bytes, 1);
    const std::int64_t blocks_across = (width + block_width - 1) / block_width;
    const std::int64_t columns = std::min(blocks, blocks_across) * block_width;
    const std::int64_t rows = std::max<std::int64_t>(blocks / blocks_across, 1) * block_height;
    for (std::int64_t row = 0; row < height; row += rows)
        for (std::int64_t column = 0; column < width; column += columns) {
            if (!read({static_cast<int>(column), static_cast<int>(row),
                       static_cast<int>(std::min(columns, width - column)),
                       static_cast<int>(std::min(rows, height - row))}))
                refuse_input(path, gdal_error());
            dataset.FlushCache();
        }
}

void prepare_gdal() {
    static const bool done = [] {
        CPLSetErrorHandler(keep_error);
        GDALAllRegister();
        return true;
    }();
    static_cast<void>(done);
    first_error.clear();
}

std::string gdal_error() {
    return first_error.empty() ? "unknown error" : first_error;
}

void refuse_input(const std::string& path, const std::string& reason) {
    throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "': " + without_name(path, reason));
}

Dataset open_raster(const std::string& path) {
    prepare_gdal();
    Dataset dataset(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY | GDAL_OF_VERBOSE_ERROR));
    if (!dataset)
        refuse_input(path, gdal_error());
    if (dataset->GetRasterCount() == 0)
        refuse_input(path, "it holds no raster band");
    return dataset;
}

bool runs_northwards(const std::string& path, const std::array<double, 6>& map, int width, int height) {
    // Rounding may leave a turn that does not add up to a hundredth of a cell.
    const bool is_turned =
        std::abs(map[2]) * height > 0.01 * std::abs(map[1]) || std::abs(map[4]) * width > 0.01 * std::abs(map[5]);
    if (is_turned || map[1] < 0)
        refuse_input(path,
                     "its rows do not run from west to east; turn it first: gdalwarp '" + path + "' north_up.tif");
    return map[5] > 0;
}

Dataset make_memory_dataset(int width, int height, int bands, GDALDataType type) {
    prepare_gdal();
    GDALDriver* const driver = GetGDALDriverManager()->GetDriverByName("MEM");
    Dataset dataset(driver->Create("", width, height, bands, type, nullptr));
    if (!dataset)
        throw std::bad_alloc();
    return dataset;
}

void copy_dataset(const std::string& path, const char* driver_name, GDALDataset& dataset, CSLConstList options) {
    prepare_gdal();
    GDALDriver* const driver = GetGDALDriverManager()->GetDriverByName(driver_name);
    if (driver == nullptr)
        throw std::runtime_error(format_text("this build of GDAL has no driver %s", driver_name));
    const SmallCache cache;
    Dataset copy(driver->CreateCopy(path.c_str(), &dataset, TRUE, const_cast<char**>(options),
                                    continue_unless_interrupted, nullptr));
    const bool is_created = copy != nullptr;
    copy.reset(); // the last blocks are written here
    if (!is_created || !first_error.empty())
        throw std::runtime_error(gdal_error());
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
