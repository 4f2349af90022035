#pragma once

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

[[noreturn]] void refuse_input(const std::string& path, const std::string& reason);

/// A dataset in memory.
Dataset make_memory_dataset(int width, int height, int bands, GDALDataType type);

/// Writes a copy of a dataset in another format. `path` is any name that GDAL takes. Throws std::runtime_error with the
/// reason; an interrupt is one.
void copy_dataset(const std::string& path, const char* driver, GDALDataset& dataset, CSLConstList options);

/// Largest value of an integer type, 0 for the others.
double largest_integer(GDALDataType type);
