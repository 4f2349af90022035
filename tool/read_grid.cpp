#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "exr.hpp"
#include "fill_holes.hpp"
#include "gdal.hpp"
#include "grid_file.hpp"
#include "message.hpp"
#include "named_grids.hpp"

namespace {

Grid read_with_gdal(const std::string& path) {
    const Dataset dataset = open_raster(path);
    if (dataset->GetRasterCount() > 1)
        print_note(format_text("'%s' has %d bands; the first one is used", path.c_str(), dataset->GetRasterCount()));
    GDALRasterBand* const band = dataset->GetRasterBand(1);

    Grid grid;
    grid.width = dataset->GetRasterXSize();
    grid.height = dataset->GetRasterYSize();
    grid.cells.resize(static_cast<std::size_t>(grid.width) * static_cast<std::size_t>(grid.height));
    const bool has_mask = (band->GetMaskFlags() & GMF_ALL_VALID) == 0;
    if (has_mask)
        grid.missing.resize(grid.size());
    read_by_windows(path, *dataset, [&](const RasterWindow& window) {
        return window.read(*band, grid.cells.data()) &&
               (!has_mask || window.read(*band->GetMaskBand(), grid.missing.data()));
    });
    for (std::uint8_t& mark : grid.missing)
        mark = mark == 0;
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

Grid read_exr_or_refuse(const std::string& path) {
    try {
        return read_exr(path);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        refuse_input(path, error.what());
    }
}

/// Marks every cell that holds no number, and gives the marked ones a number.
void replace_missing(const std::string& path, Grid& grid, Holes holes) {
    const auto is_no_number = [](float cell) {
        return !std::isfinite(cell);
    };
    if (std::count_if(grid.cells.begin(), grid.cells.end(), is_no_number) > 0) {
        grid.missing.resize(grid.size());
        for (std::size_t i = 0; i < grid.size(); ++i)
            if (is_no_number(grid.cells[i]))
                grid.missing[i] = 1;
    }
    const auto count = std::count(grid.missing.begin(), grid.missing.end(), std::uint8_t{1});
    if (count == 0) {
        grid.missing.clear();
        return;
    }
    if (count == std::ssize(grid.cells))
        refuse_input(path, "no cell has a value");
    if (holes == Holes::are_filled) {
        fill_holes(grid.cells, grid.missing, grid.width, grid.height);
        print_note(
            format_text("'%s': %td cells have no value; they are worked on as a smooth continuation of the others",
                        path.c_str(), count));
    } else if (holes == Holes::are_zero) {
        for (std::size_t i = 0; i < grid.size(); ++i)
            if (grid.is_missing(i))
                grid.cells[i] = 0;
        print_note(format_text("'%s': %td cells have no value and count as 0", path.c_str(), count));
    }
}

} // namespace

Grid read_grid(const std::string& path, Holes holes) {
    if (is_grid_name(path)) {
        Grid grid = kept_grid(path);
        replace_missing(path, grid, holes);
        return grid;
    }
    Grid grid = is_exr_name(path) ? read_exr_or_refuse(path) : read_with_gdal(path);
    grid.was_south_up = grid.geotransform && runs_northwards(path, *grid.geotransform, grid.width, grid.height);
    if (grid.was_south_up)
        flip_rows(grid);
    replace_missing(path, grid, holes);
    return grid;
}
