// Every computation of the library once, on a small terrain.
#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <tarn/oneapi.h>

namespace {

// A host: the callbacks, a queue that ends with its owner, and statuses that become exceptions.
std::atomic<bool> is_cancelled{false}; // set by another thread or a signal handler
std::string last_error;

HostCallbacks make_callbacks() {
    HostCallbacks callbacks{};
    callbacks.progress = [](double /*percent*/) {
    };
    callbacks.is_cancelled = [] {
        return is_cancelled.load();
    };
    callbacks.log_info = [](const char* /*text*/) {
    };
    callbacks.log_error = [](const char* text) {
        last_error = text;
    };
    callbacks.acquire_memory = callbacks.release_memory = [](std::size_t /*bytes*/) {
    };
    return callbacks;
}
const HostCallbacks callbacks = make_callbacks();

struct DestroyQueue {
    void operator()(SyclQueue* queue) const { DestroySyclQueue(queue); }
};
using Queue = std::unique_ptr<SyclQueue, DestroyQueue>;

void check(uint32_t status) {
    if (status == status_out_of_memory)
        throw std::bad_alloc();
    if (status != status_ok)
        throw std::runtime_error(status == status_cancelled ? "cancelled" : last_error);
}

constexpr int size = 64;
constexpr float cell_size = 10.0f; // metres; heights are in metres too
using Grid = std::vector<float>;

Grid filled(float value = 0.0f) {
    return Grid(static_cast<std::size_t>(size) * size, value);
}

void shape(SyclQueue* queue, Grid& heights) {
    const thermal_shaper_Parameters parameters{.width = size,
                                               .height = size,
                                               .level_divisor = 1.0f, // metres in one unit of height
                                               .scale_numerator = size * cell_size,
                                               .level_multiplier = 12.0f / size, // landforms up to 12 cells wide
                                               .blend = 1.0f,
                                               .rate = -0.5f,
                                               .detail_gain = 1.0f};
    check(ThermalShaper_Process(queue, heights.data(), nullptr, &parameters, &callbacks));
}

void weather(SyclQueue* queue, Grid& heights) {
    Grid depth = filled(), wear = filled();
    thermal_Parameters parameters{};
    parameters.width = parameters.height = size;
    parameters.duration = 0.02f;
    parameters.erosion_rate = 1.0f;
    parameters.curvature_bias = 0.5f;
    parameters.repose_angle = 15.0f;
    parameters.feature_size = 8 * cell_size;
    parameters.terrain_size = size * cell_size;
    parameters.terrain_height = 1.0f;
    check(
        ThermalSimulation(queue, heights.data(), depth.data(), wear.data(), nullptr, nullptr, &parameters, &callbacks));
}

void erode(SyclQueue* queue, Grid& heights) {
    Grid flow = filled(), sediment = filled(), wear = filled();
    parallel_erosion_Parameters parameters{};
    parameters.Resolution = {size, size};
    parameters.terrain_size = size * cell_size;
    parameters.terrain_height = 1.0f;
    parameters.feature_size = 8 * cell_size;
    parameters.iterations = 30.0f;
    parameters.seed = 1;
    parameters.erosion_strength = 0.6f;
    parameters.shaping_strength = 0.3f;
    parameters.shaping_sharpness = 0.6f;
    parameters.fill_slope_scale = 1.0f;
    parameters.fill_angle = 5.0f;
    check(ParallelErosionSimulation(queue, heights.data(), nullptr, flow.data(), sediment.data(), nullptr, wear.data(),
                                    &parameters, &callbacks));
}

void dunes(SyclQueue* queue, Grid& heights) {
    Grid sand = filled(3.0f), wind_trace = filled();
    arrakis_Parameters parameters{};
    parameters.width = parameters.height = size;
    parameters.duration = 0.01f;
    parameters.repose_angle = 34.0f;
    parameters.terrain_size = size * cell_size;
    parameters.terrain_height = 1.0f;
    check(DuneSimulation(queue, heights.data(), sand.data(), wind_trace.data(), &parameters, &callbacks));
}

void debris(SyclQueue* queue, Grid& heights) {
    Grid rock_id = filled(), coverage = filled(), speed = filled();
    debris_Parameters parameters{};
    parameters.resolution = size;
    parameters.terrain_size = size * cell_size;
    parameters.terrain_height = 1.0f;
    parameters.count = 50;
    parameters.max_size = 2 * cell_size;
    parameters.min_size = cell_size;
    parameters.friction = 0.5f;
    parameters.restitution = 0.3f;
    parameters.seed = 1;
    last_error.clear();
    check(DebrisSimulation(queue, heights.data(), rock_id.data(), coverage.data(), speed.data(), &parameters,
                           &callbacks));
    if (!last_error.empty()) // its status is always 0
        throw std::runtime_error(last_error);
}

void flow(SyclQueue* queue, Grid& heights) {
    Grid flow_map = filled();
    const flow_Parameters parameters{.width = size, .height = size, .flow_length = 1.0f, .spread = 1.0f, .seed = 0};
    check(FlowSimulation(queue, heights.data(), flow_map.data(), nullptr, &parameters, &callbacks));
}

void colour(SyclQueue* queue, Grid& heights) {
    Grid red = filled(0.2f), green = heights, blue = filled(0.1f); // linear light
    color_transport_Parameters parameters{};
    parameters.width = parameters.height = size;
    parameters.flow_length = parameters.persistence = parameters.blend = parameters.spread = 1.0f;
    parameters.transport = 0.7f;
    check(ColorTransportSimulation(queue, heights.data(), red.data(), green.data(), blue.data(), nullptr, nullptr,
                                   &parameters, &callbacks));
}

void shade(SyclQueue* queue, Grid& heights) {
    Grid diffuse = filled(), shadow = filled(), occlusion = filled(), red = filled(), green = filled(), blue = filled();
    lighting_Parameters parameters{};
    parameters.resolution = {size, size};
    parameters.terrain_size = size * cell_size;
    parameters.terrain_height = 1.0f;
    parameters.sun_direction[0] = parameters.sun_direction[1] = -0.5f;
    parameters.sun_direction[2] = std::sqrt(0.5f);
    parameters.sun_rings = -8; // hard shadows with smooth edges
    parameters.ao_subdivisions = 1;
    parameters.exposure = parameters.sun_intensity = 1.0f;
    parameters.ambient_intensity = 0.3f;
    std::fill_n(parameters.sun_color, 3, 1.0f);
    std::fill_n(parameters.ambient_color, 3, 1.0f);
    parameters.albedo = 0.5f;
    parameters.direct_light = parameters.ambient_light = parameters.shadows = parameters.ambient_occlusion = 1;
    check(Shade(queue, heights.data(), diffuse.data(), shadow.data(), occlusion.data(), red.data(), green.data(),
                blue.data(), nullptr, nullptr, nullptr, &parameters, &callbacks));
}

void sunlight(SyclQueue* queue, Grid& heights) {
    Grid light = filled();
    lighting_Parameters parameters{};
    parameters.resolution = {size, size};
    parameters.terrain_size = size * cell_size;
    parameters.terrain_height = 1.0f;
    parameters.first_day = 1;
    parameters.last_day = 365;
    parameters.latitude = 47.0f;
    parameters.haze = 0.05f;
    check(SunLightIntegral(queue, heights.data(), light.data(), &parameters));
}

// Two triangles over the unit square, and what stands up on them.
constexpr std::array<TarnFloat3, 4> vertices{{{0, 0, 0.1f, 0}, {1, 0, 0, 0}, {1, 1, 0, 0}, {0, 1, 0, 0}}};
constexpr std::array<TarnFloat3, 4> normals{{{0, 0, 1, 0}, {0, 0, 1, 0}, {0, 0, 1, 0}, {0, 0, 1, 0}}};
constexpr std::array<TarnUint3, 2> triangles{{{0, 2, 1, 0}, {0, 3, 2, 0}}};
constexpr mesh_rasterizer_MeshView model{vertices.data(), vertices.size(), triangles.data(), triangles.size(),
                                         normals.data()};

void mesh(SyclQueue* queue, Grid& /*heights*/) {
    Grid ground = filled(), noise = filled();
    mesh_rasterizer_Parameters parameters{}; // fresh for each call, which writes to it
    parameters.resolution = {size, size};
    parameters.vertical_scale = parameters.scale = 1.0f;
    check(MeshRasterizer_RenderMesh(queue, &model, ground.data(), noise.data(), &parameters, &callbacks));
}

void displaced_mesh(SyclQueue* queue, Grid& heights) {
    Grid ground = filled();
    mesh_rasterizer_Parameters parameters{};
    parameters.resolution = {size, size};
    parameters.vertical_scale = 1.0f;
    parameters.displacement_amount = 0.001f;
    check(MeshRasterizer_RenderMeshWithTriplanarDisplacement(queue, &model, ground.data(), heights.data(),
                                                             heights.data(), heights.data(), &parameters, &callbacks));
}

void points(SyclQueue* queue, Grid& /*heights*/) {
    Grid ground = filled(), noise = filled();
    const std::vector<float> samples{5, 5, 100, 60, 9, 120, 33, 58, 90, 30, 30, 150}; // x and y in cells, height
    mesh_rasterizer_Parameters parameters{};
    parameters.resolution = {size, size};
    parameters.point_count = static_cast<uint32_t>(samples.size() / 3);
    check(MeshRasterizer_RenderPointCloud(queue, samples.data(), ground.data(), noise.data(), nullptr, nullptr, nullptr,
                                          &parameters, &callbacks));
}

void bake(SyclQueue* queue, Grid& heights) {
    Grid red = filled(), green = filled(), blue = filled();
    std::vector<TarnFloat2> hits(heights.size());
    mesh_rasterizer_Parameters parameters{};
    parameters.resolution = {size, size};
    parameters.vertical_scale = 1.0f / (size * cell_size);
    check(MeshRasterizer_ComputeTangentSpaceNormals(queue, &model, heights.data(), red.data(), green.data(),
                                                    blue.data(), hits.data(), &parameters, &callbacks));
}

void stamp(SyclQueue* queue, Grid& heights) {
    Grid ids = filled();
    const std::vector<float> cone{0, 4, 0, 4, 9, 4, 0, 4, 0}; // 0 is a hole
    std::vector<stamp_instancer_Instance> instances{{{20, 30}, 0, 0}, {{40, 10}, 0, 0}};
    stamp_instancer_Parameters parameters{};
    parameters.width = parameters.height = size;
    parameters.stamps_width = parameters.stamps_height = parameters.stamp_width = parameters.stamp_height = 3;
    parameters.instance_count = static_cast<int32_t>(instances.size());
    check(StampInstancer_Populate(queue, heights.data(), ids.data(), cone.data(), instances.data(), &parameters,
                                  &callbacks));
}

void median(SyclQueue* queue, Grid& heights) {
    const median_filter_Parameters parameters{.resolution = size, .radius = 3, .iterations = 1};
    check(MedianFilter(queue, heights.data(), &parameters)); // sides are multiples of 32
}

void cells(SyclQueue* queue, Grid& heights) {
    Grid relief = heights, random = filled();
    for (float& height : relief)
        height = std::clamp(height / 400.0f, 0.0f, 1.0f);
    Cellular3D_Parameters parameters{};
    parameters.grid_width = parameters.grid_height = size;
    parameters.cell_density = 16.0f;
    parameters.extent_x = parameters.extent_y = parameters.extent_z = 1.0f;
    parameters.jitter_x = parameters.jitter_y = parameters.jitter_z = 0.9f;
    parameters.seed = 1;
    parameters.z_unit = size * cell_size; // a height of 1 is z_range / z_unit widths high
    parameters.z_range = 400.0f;
    parameters.hash_variant = 1;
    check(Cellular3D_Render(queue, relief.data(), nullptr, random.data(), &parameters, &callbacks));
}

} // namespace

int main() {
    try {
        const Queue queue(CreateSyclQueue("cpu", &callbacks));
        if (!queue)
            throw std::runtime_error("there is no device");
        for (const auto computation : {shape, weather, erode, dunes, debris, flow, colour, shade, sunlight, mesh,
                                       displaced_mesh, points, bake, stamp, median, cells}) {
            Grid heights = filled();
            for (int i = 0; i < size * size; ++i) {
                const float from_top = std::hypot(static_cast<float>(i % size - 32), static_cast<float>(i / size - 32));
                heights[static_cast<std::size_t>(i)] = std::max(50.0f, 400.0f - 20.0f * from_top);
            }
            computation(queue.get(), heights);
            std::printf("%g\n", static_cast<double>(heights[20 * size + 40]));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
