#include "commands.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory>
#include <numbers>
#include <utility>

#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "model.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

using Vector = std::array<double, 3>;
using Matrix = std::array<Vector, 3>;

struct MeshCommand {
    std::string input;
    GridOutput output{"heights of the model over its floor", unit_of_heights};
    std::string size = "1024";
    std::string floor = "0";
    GridOutput noise_output{"random number of the triangle", ""};
    std::string displacement_map;
    std::string xy_map, xz_map, yz_map;
    UpAxis up = UpAxis::by_format;
    CommonOptions common;

    float vertical_scale = 1;
    std::array<float, 3> rotation{};
    float scale = 1;
    std::array<float, 3> offset{};
    bool rest_on_floor = false;
    bool supersample = false;
    float displacement_amount = 0.01f;
    float displacement_bias = 0;
    bool horizontal_displacement = false;

    void run(Outputs& outputs);

  private:
    Grid make_floor() const;
    bool is_displaced() const;
    void draw(Outputs& outputs, Host& host, const Model& model, Grid& heights,
              mesh_rasterizer_Parameters parameters) const;
    void draw_displaced(Host& host, Model model, Grid& heights, mesh_rasterizer_Parameters parameters) const;
};

/// "1024" or "1024x512".
GridSize parse_size(const std::string& text) {
    const char* const end = text.data() + text.size();
    GridSize result{};
    auto parsed = std::from_chars(text.data(), end, result.width);
    result.height = result.width;
    if (parsed.ec == std::errc() && parsed.ptr != end && *parsed.ptr == 'x')
        parsed = std::from_chars(parsed.ptr + 1, end, result.height);
    if (parsed.ec != std::errc() || parsed.ptr != end || result.width < 1 || result.height < 1)
        throw ToolError(ExitCode::usage, "--size: '" + text + "' is no size such as 1024 or 1024x512");
    return result;
}

/// What the model is drawn onto: one height for all cells, or a grid, which then gives the size too.
Grid MeshCommand::make_floor() const {
    const std::optional<double> height = number_of(floor);
    if (!height)
        return read_grid(floor);
    if (!std::isfinite(*height))
        throw ToolError(ExitCode::usage, "--floor: a height must be a finite number");
    const GridSize cells = parse_size(size);
    Grid grid;
    grid.width = cells.width;
    grid.height = cells.height;
    grid.cells.assign(static_cast<std::size_t>(cells.width) * static_cast<std::size_t>(cells.height),
                      static_cast<float>(*height));
    return grid;
}

bool MeshCommand::is_displaced() const {
    return !(displacement_map.empty() && xy_map.empty() && xz_map.empty() && yz_map.empty());
}

Matrix operator*(const Matrix& a, const Matrix& b) {
    Matrix result{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            for (std::size_t k = 0; k < 3; ++k)
                result[i][j] += a[i][k] * b[k][j];
    return result;
}

Vector operator*(const Matrix& m, const Vector& v) {
    Vector result{};
    for (std::size_t i = 0; i < 3; ++i)
        result[i] = m[i][0] * v[0] + m[i][1] * v[1] + m[i][2] * v[2];
    return result;
}

/// Turns from the axis after `axis` towards the one after that.
Matrix rotation_about(std::size_t axis, double degrees) {
    const double radians = degrees * std::numbers::pi / 180;
    const std::size_t next = (axis + 1) % 3, last = (axis + 2) % 3;
    Matrix m{};
    m[axis][axis] = 1;
    m[next][next] = m[last][last] = std::cos(radians);
    m[last][next] = std::sin(radians);
    m[next][last] = -std::sin(radians);
    return m;
}

Vector vector_of(const TarnFloat3& v) {
    return {static_cast<double>(v.x), static_cast<double>(v.y), static_cast<double>(v.z)};
}

TarnFloat3 entry_of(const Vector& v) {
    return {static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2]), 0.0f};
}

/// Takes a model to unit space with the fit that the library gives meshes without displacement; with displacement it
/// leaves that to its caller.
void fit_to_unit_space(Model& model, const mesh_rasterizer_Parameters& p) {
    Vector low, high;
    low.fill(std::numeric_limits<double>::infinity());
    high.fill(-std::numeric_limits<double>::infinity());
    for (const TarnFloat3& vertex : model.vertices) {
        const Vector v = vector_of(vertex);
        for (std::size_t i = 0; i < 3; ++i) {
            low[i] = std::fmin(low[i], v[i]);
            high[i] = std::fmax(high[i], v[i]);
        }
    }
    const double width = p.resolution.x;
    const double rows = p.resolution.y / width; // the frame's height, in its widths
    const double tallest = static_cast<double>(p.vertical_scale);
    const double fit = static_cast<double>(p.scale) *
                       std::min({1 / (high[0] - low[0]), rows / (high[1] - low[1]), tallest / (high[2] - low[2])});
    const Vector origin = {0.5 + static_cast<double>(p.offset_x), (0.5 - static_cast<double>(p.offset_y)) * rows,
                           (0.5 + static_cast<double>(p.offset_z)) * tallest};
    const Matrix rotation = rotation_about(0, -static_cast<double>(p.rotation_x)) *
                            rotation_about(1, static_cast<double>(p.rotation_y)) *
                            rotation_about(2, -static_cast<double>(p.rotation_z));
    float lowest = std::numeric_limits<float>::infinity();
    for (TarnFloat3& vertex : model.vertices) {
        Vector v = vector_of(vertex);
        for (std::size_t i = 0; i < 3; ++i)
            v[i] -= (low[i] + high[i]) / 2;
        v = rotation * v;
        for (std::size_t i = 0; i < 3; ++i)
            v[i] = v[i] * fit + origin[i];
        v[1] /= rows;
        vertex = entry_of(v);
        lowest = std::fmin(lowest, vertex.z);
    }
    for (TarnFloat3& normal : model.normals)
        normal = entry_of(rotation * vector_of(normal));
    if (p.rest_on_floor != 0)
        for (TarnFloat3& vertex : model.vertices)
            vertex.z -= lowest - p.offset_z * p.vertical_scale;
}

void MeshCommand::draw(Outputs& outputs, Host& host, const Model& model, Grid& heights,
                       mesh_rasterizer_Parameters parameters) const {
    const bool with_noise = !noise_output.path.empty();
    Grid noise = with_noise ? with_cells(heights, Cells(heights.size(), 0.0f)) : Grid{};
    const mesh_rasterizer_MeshView view = model.view();
    host.run(format_text("drawing %u triangles into %d x %d cells", view.triangle_count, heights.width, heights.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return MeshRasterizer_RenderMesh(queue, &view, heights.cells.data(),
                                                  with_noise ? noise.cells.data() : nullptr, &parameters, callbacks);
             });
    outputs.add(noise_output, std::move(noise));
}

void MeshCommand::draw_displaced(Host& host, Model model, Grid& heights, mesh_rasterizer_Parameters parameters) const {
    const auto read_map = [&](const std::string& name) {
        return read_mask(name, {heights.width, heights.height}, "the displacement map");
    };
    Cells all(heights.size(), 0.0f);
    if (!displacement_map.empty())
        all = read_map(displacement_map);
    const Cells xy = xy_map.empty() ? all : read_map(xy_map);
    const Cells xz = xz_map.empty() ? all : read_map(xz_map);
    const Cells yz = yz_map.empty() ? all : read_map(yz_map);
    fit_to_unit_space(model, parameters);
    const mesh_rasterizer_MeshView view = model.view();
    host.run(format_text("drawing %u displaced triangles into %d x %d cells", view.triangle_count, heights.width,
                         heights.height),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return MeshRasterizer_RenderMeshWithTriplanarDisplacement(
                     queue, &view, heights.cells.data(), xy.data(), xz.data(), yz.data(), &parameters, callbacks);
             });
}

void MeshCommand::run(Outputs& outputs) {
    if (is_displaced() && !noise_output.path.empty())
        throw ToolError(ExitCode::usage, "--noise-out does not go with displacement");
    Host host(common.device);
    Grid heights = make_floor();
    const Model model = read_model(input, up);

    mesh_rasterizer_Parameters parameters{};
    parameters.resolution = {heights.width, heights.height};
    parameters.vertical_scale = vertical_scale;
    parameters.rotation_x = rotation[0];
    parameters.rotation_y = rotation[1];
    parameters.rotation_z = rotation[2];
    parameters.scale = scale;
    parameters.offset_x = offset[0];
    parameters.offset_y = offset[1];
    parameters.offset_z = offset[2];
    parameters.displacement_amount = displacement_amount;
    parameters.displacement_bias = displacement_bias;
    parameters.horizontal_displacement = horizontal_displacement ? 1 : 0;
    parameters.rest_on_floor = rest_on_floor ? 1 : 0;
    parameters.supersample = supersample ? 1 : 0;
    print_detail(format_text("%zu vertices, %zu triangles", model.vertices.size(), model.triangles.size()));
    outputs.check_grids(heights);
    const Cells before = heights.cells;
    if (is_displaced())
        draw_displaced(host, model, heights, parameters);
    else
        draw(outputs, host, model, heights, parameters);
    note_if_unchanged(before, heights.cells,
                      "no cell is covered by the model; try a lower --floor, --rest-on-floor, or a --scale near 1");
    if (!common.preview.empty()) {
        ShadeOptions shade;
        shade.height_unit = static_cast<double>(vertical_scale) * heights.width; // in cells
        outputs.add_picture(common.preview, heights, shade_relief(host, heights, {1, 1}, shade));
    }
    outputs.add(output, std::move(heights));
    outputs.write();
}

} // namespace

void add_mesh_command(CLI::App& app) {
    const auto settings = std::make_shared<MeshCommand>();
    Command command(app, "mesh", "Draw a model from above into a height grid",
                    {"MeshRasterizer_RenderMesh", "MeshRasterizer_RenderMeshWithTriplanarDisplacement"});
    command.input("MODEL", settings->input, "model", "", "Triangle mesh: OBJ, PLY, glTF or what else Assimp reads");
    command.output("OUT", settings->output, "Heights: .tif, .tiff, .png (16 bits), .hgt, .asc or .exr");
    command.text("--size", settings->size, "size", "CELLS[xCELLS]",
                 "Width and height of the grid in cells, or one for both; not read with a grid as floor");
    command.text("--floor", settings->floor, "height_or_grid", "HEIGHT|GRID",
                 "What the model is drawn onto: a height for all cells, or a grid, whose size is then taken");
    command.choice<UpAxis>("--up", settings->up, {{"auto", UpAxis::by_format}, {"y", UpAxis::y}, {"z", UpAxis::z}},
                           "Axis of the model that points upwards; auto is y for glTF and OBJ, else z");
    command.number("--vertical-scale", settings->vertical_scale, above_0, "",
                   "Height of the model's space relative to its width; a height of 1 in the output is that high");
    const Range turn{-36000, 36000}, shift{-1e6, 1e6};
    command.number("--rotate-x", settings->rotation[0], turn, "degrees", "A model turns about z first, then y, x");
    command.number("--rotate-y", settings->rotation[1], turn, "degrees", "Turn about y");
    command.number("--rotate-z", settings->rotation[2], turn, "degrees", "Turn about z");
    command.number("--scale", settings->scale, {0, 1e6}, "",
                   "Factor on the fit; 1 lets the unrotated model touch the frame");
    command.number("--offset-x", settings->offset[0], shift, "", "Frame widths to the right");
    command.number("--offset-y", settings->offset[1], shift, "", "Frame heights upwards");
    command.number("--offset-z", settings->offset[2], shift, "", "Heights; the model's centre goes to this plus 0.5");
    command.flag("--rest-on-floor", settings->rest_on_floor, "Let the lowest vertex lie at --offset-z");
    command.flag("--supersample", settings->supersample, "Draw at twice the resolution and reduce");
    command.output("--noise-out", settings->noise_output, "Also write a random number from 0 to 1 for each triangle");
    command.input("--displacement", settings->displacement_map, "grid", "share",
                  "Move the vertices along their normals by this map, laid on from all three sides");
    command.input("--xy-map", settings->xy_map, "grid", "share", "Another map for surfaces that face along z");
    command.input("--xz-map", settings->xz_map, "grid", "share", "Another map for surfaces that face along y");
    command.input("--yz-map", settings->yz_map, "grid", "share", "Another map for surfaces that face along x");
    command.number("--displacement-amount", settings->displacement_amount, shift, "",
                   "Length of a displacement of 1, in frame widths");
    command.number("--displacement-bias", settings->displacement_bias, shift, "", "Added to what the maps give");
    command.flag("--horizontal-displacement", settings->horizontal_displacement,
                 "Displace sideways only, with a softer blend of the maps");
    settings->common.add_preview(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn mesh model.obj heights.tif --size 512", "The model from above, as heights");
    command.example("tarn mesh model.obj heights.tif --floor land.tif --scale 0.2 --offset-z 500",
                    "A small copy of it that stands on the terrain");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
