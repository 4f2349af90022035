#include "commands.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <utility>

#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "model.hpp"

namespace {

struct BakeCommand {
    std::string model;
    std::string heights;
    std::string output;
    GridOutput hit_x_output{"column where the ray met the heights", ""};
    GridOutput hit_y_output{"row where the ray met the heights", ""};
    UpAxis up = UpAxis::by_format;
    bool fit_heights = false;
    CommonOptions common;

    void run(Outputs& outputs);

  private:
    void fit(Model& mesh, const Grid& grid, float vertical_scale) const;
};

/// Lays the model over the whole grid. Its heights are in the grid's unit, or stretched to the grid's range.
void BakeCommand::fit(Model& mesh, const Grid& grid, float vertical_scale) const {
    TarnFloat3 low = mesh.vertices.front(), high = low;
    for (const TarnFloat3& v : mesh.vertices) {
        low = {std::min(low.x, v.x), std::min(low.y, v.y), std::min(low.z, v.z), 0.0f};
        high = {std::max(high.x, v.x), std::max(high.y, v.y), std::max(high.z, v.z), 0.0f};
    }
    if (!(high.x > low.x && high.y > low.y))
        throw ToolError(ExitCode::unreadable_input, "'" + model + "' has no extent to lay over the heights");
    float stretch = 1, base = 0;
    if (fit_heights) {
        const auto [lowest, highest] = std::minmax_element(grid.cells.begin(), grid.cells.end());
        stretch = high.z > low.z ? (*highest - *lowest) / (high.z - low.z) : 0.0f;
        base = *lowest - low.z * stretch;
    }
    for (TarnFloat3& v : mesh.vertices)
        v = {(v.x - low.x) / (high.x - low.x), (v.y - low.y) / (high.y - low.y),
             (v.z * stretch + base) * vertical_scale, 0.0f};
}

void BakeCommand::run(Outputs& outputs) {
    Host host(common.device);
    const Grid grid = read_grid(heights);
    Model mesh = read_model(model, up);
    const CellSize cell = common.cell_of(grid);
    mesh_rasterizer_Parameters parameters{};
    parameters.resolution = {grid.width, grid.height};
    // A height of 1 is so many widths of the grid.
    parameters.vertical_scale =
        static_cast<float>(common.height_unit_of(grid) / (std::sqrt(cell.x * cell.y) * grid.width));
    fit(mesh, grid, parameters.vertical_scale);
    print_detail(format_text("vertical_scale %g, %zu vertices, %zu triangles",
                             static_cast<double>(parameters.vertical_scale), mesh.vertices.size(),
                             mesh.triangles.size()));

    outputs.check_grids(grid);
    // Where the model does not lie, the normal of the model itself.
    Cells red(grid.size(), 0.5f), green(grid.size(), 0.5f), blue(grid.size(), 1.0f);
    std::vector<TarnFloat2> hits(grid.size(), TarnFloat2{-1.0f, -1.0f});
    const mesh_rasterizer_MeshView view = mesh.view();
    host.run(format_text("baking %d x %d normals", grid.width, grid.height), [&](SyclQueue* queue,
                                                                                 const HostCallbacks* callbacks) {
        return MeshRasterizer_ComputeTangentSpaceNormals(queue, &view, grid.cells.data(), red.data(), green.data(),
                                                         blue.data(), hits.data(), &parameters, callbacks);
    });

    outputs.add_picture(
        output, grid,
        {.width = grid.width,
         .height = grid.height,
         .draw = [&, width = static_cast<std::size_t>(grid.width)](int first, int rows, std::uint8_t* pixels) {
             const std::size_t begin = static_cast<std::size_t>(first) * width;
             for (std::size_t i = begin; i < begin + static_cast<std::size_t>(rows) * width; ++i)
                 for (const float channel : {red[i], green[i], blue[i]}) {
                     const bool is_number = std::isfinite(channel);
                     *pixels++ = static_cast<std::uint8_t>(
                         std::lround(255.0f * std::clamp(is_number ? channel : 0.5f, 0.0f, 1.0f)));
                 }
         }});
    const auto add_hits = [&](const GridOutput& place, float TarnFloat2::*axis) {
        Cells cells(hits.size());
        std::transform(hits.begin(), hits.end(), cells.begin(), [axis](const TarnFloat2& hit) { return hit.*axis; });
        outputs.add(place, with_cells(grid, std::move(cells)));
    };
    add_hits(hit_x_output, &TarnFloat2::x);
    add_hits(hit_y_output, &TarnFloat2::y);
    outputs.write();
}

} // namespace

void add_bake_command(CLI::App& app) {
    const auto settings = std::make_shared<BakeCommand>();
    Command command(app, "bake", "Bake the normals of a height grid onto a model of it",
                    {"MeshRasterizer_ComputeTangentSpaceNormals"});
    command.input("MODEL", settings->model, "model", "",
                  "Model that stands in for the heights: OBJ, PLY, glTF and more");
    command.input("HEIGHTS", settings->heights, "grid", unit_of_heights, "Height grid with the detail");
    command.picture("OUT", settings->output, "Normal map, in the model's tangent frame");
    command.choice<UpAxis>("--up", settings->up, {{"auto", UpAxis::by_format}, {"y", UpAxis::y}, {"z", UpAxis::z}},
                           "Axis of the model that points upwards; auto is y for glTF and OBJ, else z");
    command.flag("--fit-heights", settings->fit_heights,
                 "Stretch the model's heights to the range of the grid; else they are in the grid's unit");
    command.output("--hit-x-out", settings->hit_x_output, "Also write the column that each cell's ray met");
    command.output("--hit-y-out", settings->hit_y_output, "Also write the row that each cell's ray met");
    settings->common.add_scale(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn bake model.obj land.tif normals.png --fit-heights",
                    "The relief of the terrain as a normal map of a coarse model");
    command.example("tarn bake model.obj land.tif normals.png --fit-heights --up y --hit-x-out columns.tif",
                    "The same of a model whose y axis points upwards; where the rays met the terrain");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
