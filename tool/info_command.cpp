#include "commands.hpp"

#include <algorithm>
#include <cstdio>
#include <memory>

#include <ogr_spatialref.h>

#include "command.hpp"
#include "exr.hpp"
#include "gdal.hpp"
#include "grid_file.hpp"
#include "message.hpp"
#include "named_grids.hpp"

namespace {

void print_item(const char* name, const std::string& text) {
    if (!text.empty())
        std::printf("  %-10s %s\n", name, text.c_str());
}

/// What only the file knows, not the grid that is read from it.
void print_file(const std::string& path) {
    if (is_grid_name(path)) {
        print_item("format", "in memory");
        return;
    }
    if (is_exr_name(path)) {
        print_item("format", "OpenEXR");
        return;
    }
    const Dataset dataset = open_raster(path);
    GDALRasterBand* const band = dataset->GetRasterBand(1);
    const auto metadata = [&](const char* name) -> std::string {
        const char* const text = dataset->GetMetadataItem(name);
        return text == nullptr ? "" : text;
    };
    print_item("format", format_text("%s, %s", dataset->GetDriver()->GetMetadataItem(GDAL_DMD_LONGNAME),
                                     GDALGetDataTypeName(band->GetRasterDataType())));
    print_item("holds", band->GetDescription());
    print_item("made by", metadata("TARN_COMMAND"));
    print_item("", metadata("TARN_VERSION").empty() ? "" : "tarn " + metadata("TARN_VERSION"));
}

std::string name_of(const std::string& coordinate_system) {
    const OGRSpatialReference system(coordinate_system.c_str());
    const char* const name = system.GetName();
    return name == nullptr ? "unnamed" : name;
}

void print_place(const Grid& grid) {
    if (const auto cell = ground_cell_size(grid)) {
        print_item("cell", format_text("%.6g x %.6g m", cell->x, cell->y));
        print_item("ground", format_text("%.4g x %.4g km", cell->x * grid.width / 1000, cell->y * grid.height / 1000));
    } else {
        print_item("cell", "of unknown size: give --cell-size");
    }
    if (!grid.geotransform)
        return;
    const std::array<double, 6>& map = *grid.geotransform;
    print_item("place", format_text("x %.8g to %.8g, y %.8g to %.8g", map[0], map[0] + map[1] * grid.width,
                                    map[3] + map[5] * grid.height, map[3]));
    if (!grid.coordinate_system.empty())
        print_item("in", name_of(grid.coordinate_system));
    if (grid.was_south_up)
        print_item("rows", "from south to north");
}

void print_values(const Grid& grid) {
    const Extremes range = extremes(grid);
    double sum = 0;
    for (std::size_t i = 0; i < grid.size(); ++i)
        if (!grid.is_missing(i))
            sum += static_cast<double>(grid.cells[i]);
    const auto holes = std::count(grid.missing.begin(), grid.missing.end(), std::uint8_t{1});
    const double count = static_cast<double>(std::ssize(grid.cells) - holes);
    print_item("values", format_text("%.7g to %.7g, mean %.7g", static_cast<double>(range.least),
                                     static_cast<double>(range.greatest), sum / count));
    print_item("unit", grid.unit.empty() ? "none stated; heights then count as metres" : grid.unit);
    print_item("no value", holes == 0 ? "no cell"
                                      : format_text("%td cells, %.2g %%", holes,
                                                    100.0 * static_cast<double>(holes) /
                                                        static_cast<double>(std::ssize(grid.cells))));
}

void run_info(const std::string& path) {
    const Grid grid = read_grid(path, Holes::are_left);
    std::printf("%s\n", path.c_str());
    print_file(path);
    print_item("size", format_text("%d x %d cells", grid.width, grid.height));
    print_place(grid);
    print_values(grid);
}

} // namespace

void add_info_command(CLI::App& app) {
    Command command(app, "info", "Tell what is in a grid file: size, place, units, range, holes", {});
    const auto path = std::make_shared<std::string>();
    command.input("FILE", *path, "grid", "", "Grid");
    command.example("tarn info land.tif", "Of a terrain");
    command.example("tarn info eroded.exr", "Of a result");
    command.runs([path](Outputs&) { run_info(*path); });
}
