#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <gdal_priv.h>

struct CloseDataset {
    void operator()(GDALDataset* dataset) const { GDALClose(dataset); }
};
using Dataset = std::unique_ptr<GDALDataset, CloseDataset>;

/// GDAL prints its errors unless told otherwise. Here the first one, which the others follow from, is kept until the
/// next call of prepare_gdal.
void prepare_gdal();
std::string gdal_error();

/// Opens a raster file to read. Throws ToolError (unreadable_input).
Dataset open_raster(const std::string& path);

/// A part of a raster that is read at once.
struct RasterWindow {
    int column, row, columns, rows;

    /// Reads this part of a band into its place among all cells of the raster.
    bool read(GDALRasterBand& band, float* cells) const;
    bool read(GDALRasterBand& band, std::uint8_t* cells) const;
};

/// Reads a raster part by part, so that GDAL's cache never holds more than a few blocks of the file. Throws ToolError
/// (unreadable_input) if `read` returns false.
void read_by_windows(const std::string& path, GDALDataset& dataset,
                     const std::function<bool(const RasterWindow&)>& read);

[[noreturn]] void refuse_input(const std::string& path, const std::string& reason);

/// Whether rows at this place on the map run from south to north. Light, north and the axes of the results assume that
/// rows go from west to east, so a place that is turned is refused by throwing ToolError (unreadable_input).
bool runs_northwards(const std::string& path, const std::array<double, 6>& map, int width, int height);

/// A dataset in memory.
Dataset make_memory_dataset(int width, int height, int bands, GDALDataType type);

/// Writes a copy of a dataset in another format. `path` is any name that GDAL takes. Throws std::runtime_error with the
/// reason; an interrupt is one.
void copy_dataset(const std::string& path, const char* driver, GDALDataset& dataset, CSLConstList options);

/// Largest value of an integer type, 0 for the others.
double largest_integer(GDALDataType type);
