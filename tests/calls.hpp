// One small call of each computing export, for the tests that treat all exports
// alike: a name, a record, the arrays it is given, and what the header says of
// it. A test changes what it needs and makes the call.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "mesh_support.hpp"
#include "support.hpp"

namespace tarn_test {

/// An argument that points to numbers: a grid, or a list. Whole numbers are
/// there by their bits.
struct Array {
    /// What the header says of it. It may be null; runs on several threads may
    /// differ in the last bits; runs on other devices too; where two writers
    /// meet, the value of either may stand; it is written on a CPU alone.
    enum Rule : unsigned { plain = 0, optional = 1, unordered = 2, summed = 4, racing = 8, cpu_alone = 16 };

    std::string name;
    Cells values;
    unsigned rules = plain;
    bool is_null = false;
};

struct Call;
using Export = std::function<std::uint32_t(Call&, SyclQueue*, const HostCallbacks*)>;

struct Call {
    enum class Reports { nothing, start, progress };

    const char* name;
    Export make;
    std::vector<Array> arrays;
    std::vector<std::byte> record;
    /// Device memory that the run asks for.
    std::size_t need;
    Reports reports = Reports::start;
    /// Whether a null queue or array is told. It is refused in any case.
    bool tells_nulls = true;
    /// DebrisSimulation and MedianFilter refuse by a status of 0 and let
    /// exceptions pass, and report no memory.
    bool has_frame = true;
    /// It allocates or waits on the way, so that an error that a kernel leaves
    /// behind is not taken for the trial's.
    bool notices_late_errors = true;

    template <class Record>
    Record& parameters() {
        return *reinterpret_cast<Record*>(record.data());
    }
    Array& array(std::string_view array_name) {
        const auto found = std::find_if(arrays.begin(), arrays.end(), [&](Array& a) { return a.name == array_name; });
        if (found == arrays.end())
            throw std::out_of_range(std::string(array_name));
        return *found;
    }
    Cells& operator[](std::string_view array_name) { return array(array_name).values; }

    std::uint32_t run(sycl::queue& queue, const RecordingHost& host) {
        const HostCallbacks callbacks = host.callbacks();
        return make(*this, handle(queue), &callbacks);
    }
};

/// Hands a call's arrays and its record to an export, one argument after the
/// other.
struct Arguments {
    Call& call;
    const HostCallbacks* callbacks;
    std::size_t next = 0;
    mesh_rasterizer_MeshView mesh{};

    template <class Element>
    Element* list() {
        Array& array = call.arrays.at(next++);
        return array.is_null ? nullptr : reinterpret_cast<Element*>(array.values.data());
    }

    template <class Pointer>
    Pointer argument() {
        using Pointee = std::remove_const_t<std::remove_pointer_t<Pointer>>;
        if constexpr (std::is_same_v<Pointee, HostCallbacks>) {
            return callbacks;
        } else if constexpr (std::is_void_v<Pointee>) {
            return nullptr; // reserved
        } else if constexpr (std::is_same_v<Pointee, mesh_rasterizer_MeshView>) {
            const bool is_null = list<float>() == nullptr;
            const auto count = [&] {
                return static_cast<std::uint32_t>(call.arrays.at(next).values.size() / 4);
            };
            mesh.vertex_count = count();
            mesh.vertices = list<TarnFloat3>();
            mesh.triangle_count = count();
            mesh.triangles = list<TarnUint3>();
            mesh.normals = list<TarnFloat3>();
            return is_null ? nullptr : &mesh;
        } else if constexpr (std::is_same_v<Pointee, float> || std::is_same_v<Pointee, TarnFloat2> ||
                             std::is_same_v<Pointee, stamp_instancer_Instance>) {
            return list<Pointee>();
        } else {
            return call.record.empty() ? nullptr : &call.parameters<Pointee>();
        }
    }
};

template <class... Pointers>
Export calling(std::uint32_t (*function)(SyclQueue*, Pointers...)) {
    return [=](Call& call, SyclQueue* queue, const HostCallbacks* callbacks) {
        Arguments next{call, callbacks};
        // The braces keep the order of the arguments.
        return std::apply(function, std::tuple<SyclQueue*, Pointers...>{queue, next.argument<Pointers>()...});
    };
}

template <class Record>
std::vector<std::byte> bytes_of(const Record& record) {
    std::vector<std::byte> bytes(sizeof(Record));
    std::memcpy(bytes.data(), &record, sizeof(Record));
    return bytes;
}

/// Ground of numbers that are exact in a float, without a symmetry: `rough`
/// high steps on slopes of `slope` a cell.
inline Cells stepped_ground(int width, int height, float rough, float slope) {
    Cells cells;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            cells.push_back(static_cast<float>((x * 7 + y * 13) % 29) * rough +
                            static_cast<float>(std::abs(2 * x - y)) * slope);
    return cells;
}

/// Stripes of 0 to `count` - 1 times `step`, which lie the flatter the smaller
/// `lean` is.
inline Cells striped(int width, int height, int count, float step, int lean = 3) {
    Cells cells;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            cells.push_back(static_cast<float>((lean * x + y) % count) * step);
    return cells;
}

inline Cells level(int width, int height, float value) {
    return Cells(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), value);
}

inline std::size_t cells_of(int width, int height) {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
}

inline Call thermal_shaper_call(int width, int height) {
    const float side = static_cast<float>(width);
    const thermal_shaper_Parameters p{.width = width,
                                      .height = height,
                                      .level_divisor = 1.25f,
                                      .scale_numerator = side,
                                      .level_multiplier = 11.0f / side,
                                      .blend = 0.875f,
                                      .rate = -0.75f,
                                      .detail_gain = 1.125f};
    return {"ThermalShaper_Process",
            calling(ThermalShaper_Process),
            {{"heights", stepped_ground(width, height, 0.125f, 0.5f)},
             {"mask", striped(width, height, 5, 0.25f), Array::optional}},
            bytes_of(p),
            64 * cells_of(width, height) / 3,
            Call::Reports::start,
            false};
}

inline Call thermal_call(int width, int height) {
    const thermal_Parameters p{.width = width,
                               .height = height,
                               .duration = 60.0f / 2560.0f,
                               .erosion_rate = 40.0f,
                               .curvature_bias = 0.5f,
                               .repose_angle = 35.0f,
                               .feature_size = 8.0f,
                               .terrain_size = static_cast<float>(width),
                               .terrain_height = 1.0f,
                               .absorption = 0.25f,
                               .use_erosion_mask = 1,
                               .use_absorption_mask = 1};
    return {"ThermalSimulation",
            calling(ThermalSimulation),
            {{"heights", stepped_ground(width, height, 0.125f, 0.5f)},
             {"depth", level(width, height, untouched)},
             {"wear", level(width, height, untouched)},
             {"erosion_mask", striped(width, height, 5, 0.25f, 1), Array::optional},
             {"absorption_mask", striped(width, height, 4, 0.25f), Array::optional}},
            bytes_of(p),
            68 * cells_of(width, height),
            Call::Reports::progress};
}

inline Call erosion_call(int width, int height) {
    const parallel_erosion_Parameters p{
        .Resolution = {static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)},
        .terrain_size = static_cast<float>(width),
        .terrain_height = 1.0f,
        .feature_size = 11.3137085f,
        .reserved_1 = not_a_number,
        .iterations = 40.0f,
        .reserved_2 = not_a_number,
        .seed = 7,
        .erosion_strength = 0.6f,
        .reserved_3 = not_a_number,
        .shaping_strength = 0.5f,
        .shaping_sharpness = 0.5f,
        .shaping_detail = 0.25f,
        .fill_slope_scale = 1.0f,
        .fill_angle = 30.0f,
        .plain_deposition = 0.3f,
        .plain_angle = 8.0f,
        .terrace_deposition = 0.2f,
        .terrace_angle = 35.0f,
        .constant_capacity = 0.25f};
    Call call{"ParallelErosionSimulation",
              calling(ParallelErosionSimulation),
              {{"height", stepped_ground(width, height, 0.03125f, 0.25f)},
               {"spawn_map", striped(width, height, 5, 0.25f, 1), Array::optional},
               {"flow", level(width, height, untouched)},
               {"sediment", level(width, height, untouched)},
               {"wear", level(width, height, untouched)}},
              bytes_of(p),
              20 * cells_of(width, height),
              Call::Reports::progress};
    call.notices_late_errors = false;
    return call;
}

inline Call dunes_call(int width, int height) {
    const arrakis_Parameters p{.width = width,
                               .height = height,
                               .duration = 7.0f / 2560.0f,
                               .reserved_1 = not_a_number,
                               .reserved_2 = not_a_number,
                               .repose_angle = 34.0f,
                               .feature_size = not_a_number,
                               .terrain_size = static_cast<float>(width),
                               .terrain_height = 2.0f};
    return {"DuneSimulation",
            calling(DuneSimulation),
            {{"height", stepped_ground(width, height, 0.015625f, 0.0625f), Array::unordered},
             {"sand", striped(width, height, 7, 0.125f), Array::unordered},
             {"wind_trace", level(width, height, untouched), Array::unordered}},
            bytes_of(p),
            68 * cells_of(width, height),
            Call::Reports::progress};
}

inline Call debris_call(int side, int) {
    const debris_Parameters p{.resolution = static_cast<std::uint32_t>(side),
                              .terrain_size = static_cast<float>(side) * 2.0f,
                              .terrain_height = 50.0f,
                              .count = 1100,
                              .max_size = 9.0f,
                              .min_size = 3.0f,
                              .friction = 0.2f,
                              .restitution = 0.3f,
                              .reserved = not_a_number,
                              .draw_unmoved = 1,
                              .favour_small = 1,
                              .seed = 5};
    Call call{"DebrisSimulation",
              calling(DebrisSimulation),
              {{"height", stepped_ground(side, side, 0.015625f, 0.03125f)},
               {"rock_id", level(side, side, untouched), Array::racing},
               {"coverage", level(side, side, untouched)},
               {"speed", level(side, side, untouched), Array::racing}},
              bytes_of(p),
              0};
    call.has_frame = false;
    return call;
}

inline Call flow_call(int width, int height) {
    const flow_Parameters p{.width = width, .height = height, .flow_length = 0.5f, .spread = 3000.0f, .seed = 3};
    return {"FlowSimulation",
            calling(FlowSimulation),
            {{"heights", stepped_ground(width, height, 0.125f, 0.5f)},
             {"flow_map", level(width, height, untouched)},
             {"mask", striped(width, height, 7, 0.25f), Array::optional}},
            bytes_of(p),
            28 * cells_of(width, height),
            Call::Reports::progress};
}

inline Call color_transport_call(int width, int height) {
    const color_transport_Parameters p{.width = width,
                                       .height = height,
                                       .flow_length = 0.5f,
                                       .persistence = 0.75f,
                                       .blend = 0.875f,
                                       .spread = 2000.0f,
                                       .transport = 0.6f,
                                       .straight_trails = 0,
                                       .seed = 3};
    return {"ColorTransportSimulation",
            calling(ColorTransportSimulation),
            {{"heights", stepped_ground(width, height, 0.125f, 0.5f)},
             {"red", striped(width, height, 11, 0.0625f), Array::summed},
             {"green", striped(width, height, 5, 0.25f), Array::summed},
             {"blue", striped(width, height, 2, 1.0f), Array::summed},
             {"mask", striped(width, height, 7, 0.25f), Array::optional},
             {"length_map", striped(width, height, 13, 0.125f), Array::optional}},
            bytes_of(p),
            64 * cells_of(width, height),
            Call::Reports::progress};
}

/// The occlusion is hybrid if the height is odd.
inline lighting_Parameters lighting_parameters(int width, int height) {
    return {.resolution = {width, height},
            .terrain_size = static_cast<float>(width),
            .terrain_height = 0.5f,
            .sun_direction = {-0.48f, 0.6f, 0.64f},
            .sun_rings = 2,
            .sun_diameter = 8.0f,
            .hybrid_ao = height % 2 == 0 ? 0u : 1u,
            .ao_subdivisions = 1,
            .hybrid_ao_subdivisions = 1,
            .hybrid_ao_levels = std::min({width, height, 2}),
            .exposure = 1.5f,
            .sun_intensity = 2.0f,
            .ambient_intensity = 0.75f,
            .sun_color = {1.0f, 0.875f, 0.75f},
            .ambient_color = {0.25f, 0.5f, 1.0f},
            .albedo = 0.375f,
            .first_day = 340,
            .last_day = 20,
            .latitude = 40.0f,
            .north_offset = 30.0f,
            .haze = 0.05f,
            .direct_light = 1,
            .ambient_light = 1,
            .shadows = 1,
            .ambient_occlusion = 1,
            .ao_supplied = 0};
}

inline Call shade_call(int width, int height) {
    const Cells blank = level(width, height, untouched);
    Call call{"Shade",
              calling(Shade),
              {{"heights", stepped_ground(width, height, 0.125f, 0.5f)},
               {"diffuse", blank},
               {"shadow", blank},
               {"ao", blank},
               {"red", blank},
               {"green", blank},
               {"blue", blank},
               {"albedo_red", striped(width, height, 11, 0.0625f), Array::optional},
               {"albedo_green", striped(width, height, 5, 0.25f), Array::optional},
               {"albedo_blue", striped(width, height, 2, 0.5f), Array::optional}},
              bytes_of(lighting_parameters(width, height)),
              72 * cells_of(width, height)};
    call.notices_late_errors = false;
    return call;
}

/// It logs through the callbacks of the latest Shade.
inline Call sun_light_call(int width, int height) {
    Call call{"SunLightIntegral",
              calling(SunLightIntegral),
              {{"heights", stepped_ground(width, height, 0.125f, 0.5f)}, {"result", level(width, height, untouched)}},
              bytes_of(lighting_parameters(width, height)),
              72 * cells_of(width, height),
              Call::Reports::nothing};
    call.notices_late_errors = false;
    return call;
}

/// A mesh as an array of its own, which stands for the record of it, and its
/// lists.
inline std::vector<Array> with_mesh(const TestMesh& mesh, const std::vector<Array>& grids) {
    const auto list = [](const auto& elements) {
        const auto* const values = reinterpret_cast<const float*>(elements.data());
        return Cells(values, values + elements.size() * 4); // also of none
    };
    std::vector<Array> arrays{
        {"mesh", Cells(1)},
        {"mesh.vertices", list(mesh.vertices)},
        {"mesh.triangles", list(mesh.triangles)},
        {"mesh.normals", list(mesh.normals), mesh.normals.empty() ? Array::optional : Array::plain}};
    arrays.insert(arrays.end(), grids.begin(), grids.end());
    return arrays;
}

inline Call render_mesh_call(int width, int height) {
    const MeshScene scene = tangled_scene(width, height, 5);
    return {"MeshRasterizer_RenderMesh", calling(MeshRasterizer_RenderMesh),
            with_mesh(scene.mesh, {{"height", stepped_ground(width, height, 0.0078125f, 0.0f)},
                                   {"noise", level(width, height, untouched), Array::optional | Array::racing}}),
            bytes_of(scene.parameters),
            16 * (scene.mesh.vertices.size() + scene.mesh.triangles.size()) + 16 * cells_of(width, height)};
}

inline Call displacement_call(int width, int height) {
    MeshScene scene = tangled_scene(width, height, 8);
    for (TarnFloat3& v : scene.mesh.vertices) {
        v = {v.x / static_cast<float>(width), v.y / static_cast<float>(height), v.z, 0};
        scene.mesh.normals.push_back({v.y - 0.5f, v.z, v.x - 0.25f, 0});
    }
    scene.parameters.displacement_amount = 0.0078125f;
    scene.parameters.displacement_bias = 2.0f;
    return {"MeshRasterizer_RenderMeshWithTriplanarDisplacement",
            calling(MeshRasterizer_RenderMeshWithTriplanarDisplacement),
            with_mesh(scene.mesh, {{"height", stepped_ground(width, height, 0.0078125f, 0.0f)},
                                   {"xy_map", stepped_ground(width, height, 0.5f, 0.125f)},
                                   {"xz_map", stepped_ground(width, height, 0.25f, 0.25f)},
                                   {"yz_map", striped(width, height, 7, 2.0f)}}),
            bytes_of(scene.parameters),
            32 * scene.mesh.vertices.size() + 16 * scene.mesh.triangles.size() + 16 * cells_of(width, height)};
}

inline Call normals_call(int width, int height) {
    mesh_rasterizer_Parameters p{};
    p.resolution = {width, height};
    p.vertical_scale = 0.5f;
    const Cells steps = stepped_ground(10, 10, 0.00390625f, 0.0f);
    TestMesh mesh = surface_mesh(9, [&](float x, float y) {
        return steps[static_cast<std::size_t>(y * 9.0f + 0.5f) * 10 + static_cast<std::size_t>(x * 9.0f + 0.5f)];
    });
    for (std::size_t n = 0; n < mesh.vertices.size(); ++n) // an overhang at one side, and a hole in the middle
        mesh.vertices[n].x += n % 10 == 9 ? 0.125f : static_cast<float>(n % 3) * 0.015625f;
    mesh.triangles.erase(mesh.triangles.begin() + 80, mesh.triangles.begin() + 83);
    const Cells blank = level(width, height, untouched);
    return {"MeshRasterizer_ComputeTangentSpaceNormals", calling(MeshRasterizer_ComputeTangentSpaceNormals),
            with_mesh(mesh, {{"height", stepped_ground(width, height, 0.0078125f, 0.0f)},
                             {"red", blank},
                             {"green", blank},
                             {"blue", blank},
                             {"hit_positions", level(2 * width, height, untouched)}}),
            bytes_of(p), 16 * (mesh.vertices.size() + mesh.triangles.size()) + 16 * cells_of(width, height)};
}

inline Call point_cloud_call(int width, int height) {
    mesh_rasterizer_Parameters p{};
    p.resolution = {width, height};
    Cells points;
    std::uint32_t state = 7;
    const auto number = [&](int bound) {
        state = state * 1664525u + 1013904223u;
        return static_cast<float>(state >> 20) * (static_cast<float>(bound) + 4.0f) * 0x1p-12f - 2.0f;
    };
    for (int n = 0; n < width * height / 12 + 3; ++n) {
        const float x = number(width), y = number(height);
        points.insert(points.end(), {x, y, 0.25f * x - 0.5f * y + 3.0f});
    }
    p.point_count = static_cast<std::uint32_t>(points.size() / 3);
    return {"MeshRasterizer_RenderPointCloud",
            calling(MeshRasterizer_RenderPointCloud),
            {{"points", points},
             {"height", level(width, height, untouched)},
             {"noise", level(width, height, untouched)},
             {"red", striped(width, height, 11, 0.0078125f), Array::optional},
             {"green", striped(width, height, 5, 0.015625f), Array::optional},
             {"blue", striped(width, height, 2, 0.03125f), Array::optional}},
            bytes_of(p),
            80 * p.point_count + 24 * cells_of(width, height)};
}

inline Call stamps_call(int width, int height) {
    Cells stamps, instances;
    for (int n = 0; n < 3 * 5 * 4; ++n)
        stamps.push_back(n % 4 == 3 ? 0.0f : static_cast<float>(n % 7) - 2.5f);
    for (int n = 0; n < 120; ++n) // some of them half off the grid
        instances.insert(instances.end(),
                         {static_cast<float>(n * 37 % 800) * 0.125f - 5.0f,
                          static_cast<float>(n * 53 % 601) * 0.125f - 5.0f, std::bit_cast<float>(n % 3), untouched});
    const stamp_instancer_Parameters p{.width = width,
                                       .height = height,
                                       .stamps_width = 5,
                                       .stamps_height = 12,
                                       .stamp_width = 5,
                                       .stamp_height = 4,
                                       .instance_count = 120};
    return {"StampInstancer_Populate",
            calling(StampInstancer_Populate),
            {{"heights", stepped_ground(width, height, 0.125f, 0.5f)},
             {"ids", level(width, height, untouched), Array::racing},
             {"stamps", stamps},
             {"instances", instances, Array::cpu_alone}},
            bytes_of(p),
            8 * cells_of(width, height) + 4 * stamps.size() + 16 * 120,
            Call::Reports::nothing};
}

inline Call median_filter_call(int side, int) {
    const median_filter_Parameters p{.resolution = static_cast<std::uint32_t>(side), .radius = 3, .iterations = 2};
    Call call{"MedianFilter",
              calling(MedianFilter),
              {{"data", stepped_ground(side, side, 0.125f, 0.5f)}},
              bytes_of(p),
              0,
              Call::Reports::nothing,
              false};
    call.has_frame = false;
    return call;
}

inline Call cellular_call(int width, int height) {
    const Cellular3D_Parameters p{.grid_width = width,
                                  .grid_height = height,
                                  .cell_density = 11.0f,
                                  .gap = 0.125f,
                                  .extent_x = 1.0f,
                                  .extent_y = 0.75f,
                                  .extent_z = 1.25f,
                                  .jitter_x = 0.875f,
                                  .jitter_y = 0.75f,
                                  .jitter_z = 1.0f,
                                  .seed = 11,
                                  .z_unit = 1.0f,
                                  .z_range = 0.5f,
                                  .hash_variant = 0};
    return {"Cellular3D_Render",
            calling(Cellular3D_Render),
            {{"height", stepped_ground(width, height, 0.0078125f, 0.0078125f)},
             {"gap_factor", striped(width, height, 5, 0.5f), Array::optional},
             {"random", level(width, height, untouched)}},
            bytes_of(p),
            0,
            Call::Reports::start,
            false};
}

using CallFactory = Call (*)(int width, int height);

/// These take grids that are no squares of a multiple of 32.
inline constexpr CallFactory factories_for_any_shape[] = {
    thermal_shaper_call,  thermal_call,     erosion_call,   dunes_call,       flow_call,
    color_transport_call, shade_call,       sun_light_call, render_mesh_call, displacement_call,
    normals_call,         point_cloud_call, stamps_call,    cellular_call};

inline constexpr CallFactory call_factories[] = {
    thermal_shaper_call,  thermal_call, erosion_call,       dunes_call,       debris_call,       flow_call,
    color_transport_call, shade_call,   sun_light_call,     render_mesh_call, displacement_call, normals_call,
    point_cloud_call,     stamps_call,  median_filter_call, cellular_call};

/// Small runs of every computation in all its forms, by name: those that
/// golden_bits_test.cpp has the checksums of.
std::vector<std::pair<std::string, Call>> golden_runs();

} // namespace tarn_test
