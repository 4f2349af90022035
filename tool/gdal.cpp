#include "gdal.hpp"

#include <cmath>
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

} // namespace

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
