/* Every computation of the library once, on a small terrain. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <tarn/oneapi.h>

enum { SIZE = 64, CELLS = SIZE * SIZE };
static const float cell_size = 10.0f; /* metres; heights are in metres too */

static void on_progress(double percent) {
    (void)percent; /* draw a bar */
}
static bool is_cancelled(void) {
    return false; /* true ends the run */
}
static void on_info(const char* text) {
    (void)text;
}
static void on_error(const char* text) {
    fprintf(stderr, "%s\n", text);
}
static void on_memory(size_t bytes) {
    (void)bytes; /* keep account of what the process takes */
}
static const HostCallbacks callbacks = {.progress = on_progress,
                                        .is_cancelled = is_cancelled,
                                        .log_info = on_info,
                                        .log_error = on_error,
                                        .acquire_memory = on_memory,
                                        .release_memory = on_memory};
static SyclQueue* queue;
static float heights[CELLS], red[CELLS], green[CELLS], blue[CELLS], first[CELLS], second[CELLS], third[CELLS];

static uint32_t shape(void) {
    const thermal_shaper_Parameters parameters = {.width = SIZE,
                                                  .height = SIZE,
                                                  .level_divisor = 1.0f, /* metres in one unit of height */
                                                  .scale_numerator = SIZE * cell_size,
                                                  .level_multiplier = 12.0f / SIZE, /* landforms up to 12 cells wide */
                                                  .blend = 1.0f,
                                                  .rate = -0.5f,
                                                  .detail_gain = 1.0f};
    return ThermalShaper_Process(queue, heights, NULL, &parameters, &callbacks);
}

static uint32_t weather(void) {
    float *depth = first, *wear = second;
    const thermal_Parameters parameters = {.width = SIZE,
                                           .height = SIZE,
                                           .duration = 0.02f,
                                           .erosion_rate = 1.0f,
                                           .curvature_bias = 0.5f,
                                           .repose_angle = 15.0f,
                                           .feature_size = 8 * cell_size,
                                           .terrain_size = SIZE * cell_size,
                                           .terrain_height = 1.0f};
    return ThermalSimulation(queue, heights, depth, wear, NULL, NULL, &parameters, &callbacks);
}

static uint32_t erode(void) {
    float *flow = first, *sediment = second, *wear = third;
    const parallel_erosion_Parameters parameters = {.Resolution = {SIZE, SIZE},
                                                    .terrain_size = SIZE * cell_size,
                                                    .terrain_height = 1.0f,
                                                    .feature_size = 8 * cell_size,
                                                    .iterations = 30.0f,
                                                    .seed = 1,
                                                    .erosion_strength = 0.6f,
                                                    .shaping_strength = 0.3f,
                                                    .shaping_sharpness = 0.6f,
                                                    .fill_slope_scale = 1.0f,
                                                    .fill_angle = 5.0f};
    return ParallelErosionSimulation(queue, heights, NULL, flow, sediment, NULL, wear, &parameters, &callbacks);
}

static uint32_t dunes(void) {
    float *sand = first, *wind_trace = second;
    for (int i = 0; i < CELLS; ++i)
        sand[i] = 3.0f;
    const arrakis_Parameters parameters = {.width = SIZE,
                                           .height = SIZE,
                                           .duration = 0.01f,
                                           .repose_angle = 34.0f,
                                           .terrain_size = SIZE * cell_size,
                                           .terrain_height = 1.0f};
    return DuneSimulation(queue, heights, sand, wind_trace, &parameters, &callbacks);
}

static uint32_t debris(void) {
    float *rock_id = first, *coverage = second, *speed = third;
    const debris_Parameters parameters = {.resolution = SIZE,
                                          .terrain_size = SIZE * cell_size,
                                          .terrain_height = 1.0f,
                                          .count = 50,
                                          .max_size = 2 * cell_size,
                                          .min_size = cell_size,
                                          .friction = 0.5f,
                                          .restitution = 0.3f,
                                          .seed = 1};
    return DebrisSimulation(queue, heights, rock_id, coverage, speed, &parameters, &callbacks);
}

static uint32_t flow(void) {
    float* flow_map = first;
    const flow_Parameters parameters = {.width = SIZE, .height = SIZE, .flow_length = 1.0f, .spread = 1.0f};
    return FlowSimulation(queue, heights, flow_map, NULL, &parameters, &callbacks);
}

static uint32_t colour(void) { /* red, green and blue hold the image */
    const color_transport_Parameters parameters = {.width = SIZE,
                                                   .height = SIZE,
                                                   .flow_length = 1.0f,
                                                   .persistence = 1.0f,
                                                   .blend = 1.0f,
                                                   .spread = 1.0f,
                                                   .transport = 0.7f};
    return ColorTransportSimulation(queue, heights, red, green, blue, NULL, NULL, &parameters, &callbacks);
}

static uint32_t shade(void) {
    float *diffuse = first, *shadow = second, *occlusion = third;
    const lighting_Parameters parameters = {.resolution = {SIZE, SIZE},
                                            .terrain_size = SIZE * cell_size,
                                            .terrain_height = 1.0f,
                                            .sun_direction = {-0.5f, -0.5f, 0.70710678f},
                                            .sun_rings = -8, /* hard shadows with smooth edges */
                                            .ao_subdivisions = 1,
                                            .exposure = 1.0f,
                                            .sun_intensity = 1.0f,
                                            .ambient_intensity = 0.3f,
                                            .sun_color = {1.0f, 1.0f, 0.9f},
                                            .ambient_color = {0.9f, 1.0f, 1.2f},
                                            .albedo = 0.5f,
                                            .direct_light = 1,
                                            .ambient_light = 1,
                                            .shadows = 1,
                                            .ambient_occlusion = 1};
    return Shade(queue, heights, diffuse, shadow, occlusion, red, green, blue, NULL, NULL, NULL, &parameters,
                 &callbacks);
}

static uint32_t sunlight(void) { /* its errors go to the callbacks of the latest Shade */
    float* light = first;
    const lighting_Parameters parameters = {.resolution = {SIZE, SIZE},
                                            .terrain_size = SIZE * cell_size,
                                            .terrain_height = 1.0f,
                                            .first_day = 1,
                                            .last_day = 365,
                                            .latitude = 47.0f,
                                            .haze = 0.05f};
    return SunLightIntegral(queue, heights, light, &parameters);
}

/* Two triangles over the unit square, and what stands up on them. */
static const TarnFloat3 vertices[] = {
    {.x = 0, .y = 0, .z = 0.1f}, {.x = 1, .y = 0}, {.x = 1, .y = 1}, {.x = 0, .y = 1}};
static const TarnFloat3 normals[] = {{.z = 1}, {.z = 1}, {.z = 1}, {.z = 1}};
static const TarnUint3 triangles[] = {{.x = 0, .y = 2, .z = 1}, {.x = 0, .y = 3, .z = 2}};
static const mesh_rasterizer_MeshView model = {vertices, 4, triangles, 2, normals};

static uint32_t mesh(void) { /* first holds the floor, and receives the model's heights */
    float *ground = first, *noise = second;
    mesh_rasterizer_Parameters parameters = {.resolution = {SIZE, SIZE}, .vertical_scale = 1.0f, .scale = 1.0f};
    return MeshRasterizer_RenderMesh(queue, &model, ground, noise, &parameters, &callbacks);
}

static uint32_t displaced_mesh(void) { /* the heights are the map, laid on from all three sides */
    float* ground = first;
    mesh_rasterizer_Parameters parameters = {
        .resolution = {SIZE, SIZE}, .vertical_scale = 1.0f, .displacement_amount = 0.001f};
    return MeshRasterizer_RenderMeshWithTriplanarDisplacement(queue, &model, ground, heights, heights, heights,
                                                              &parameters, &callbacks);
}

static uint32_t points(void) { /* x and y in cells, z is the height */
    float *ground = first, *noise = second;
    const float samples[] = {5, 5, 100, 60, 9, 120, 33, 58, 90, 30, 30, 150};
    const mesh_rasterizer_Parameters parameters = {.resolution = {SIZE, SIZE}, .point_count = 4};
    return MeshRasterizer_RenderPointCloud(queue, samples, ground, noise, NULL, NULL, NULL, &parameters, &callbacks);
}

static uint32_t bake(void) {
    static TarnFloat2 hits[CELLS];
    const mesh_rasterizer_Parameters parameters = {.resolution = {SIZE, SIZE},
                                                   .vertical_scale = 1.0f / (SIZE * cell_size)};
    return MeshRasterizer_ComputeTangentSpaceNormals(queue, &model, heights, red, green, blue, hits, &parameters,
                                                     &callbacks);
}

static uint32_t stamp(void) {
    float* ids = first;
    const float cone[9] = {0, 4, 0, 4, 9, 4, 0, 4, 0}; /* 0 is a hole */
    stamp_instancer_Instance instances[] = {{.position = {20, 30}}, {.position = {40, 10}}};
    const stamp_instancer_Parameters parameters = {.width = SIZE,
                                                   .height = SIZE,
                                                   .stamps_width = 3,
                                                   .stamps_height = 3,
                                                   .stamp_width = 3,
                                                   .stamp_height = 3,
                                                   .instance_count = 2};
    return StampInstancer_Populate(queue, heights, ids, cone, instances, &parameters, &callbacks);
}

static uint32_t median(void) { /* sides are multiples of 32, and there is no status but 0 */
    const median_filter_Parameters parameters = {.resolution = SIZE, .radius = 3, .iterations = 1};
    return MedianFilter(queue, heights, &parameters);
}

static uint32_t cells(void) {
    float *relief = first, *random = second; /* heights from 0 to 1 */
    for (int i = 0; i < CELLS; ++i)
        relief[i] = fminf(fmaxf(heights[i] / 400.0f, 0.0f), 1.0f);
    Cellular3D_Parameters parameters = {.grid_width = SIZE,
                                        .grid_height = SIZE,
                                        .cell_density = 16.0f,
                                        .extent_x = 1.0f,
                                        .extent_y = 1.0f,
                                        .extent_z = 1.0f,
                                        .jitter_x = 0.9f,
                                        .jitter_y = 0.9f,
                                        .jitter_z = 0.9f,
                                        .seed = 1,
                                        .z_unit = SIZE * cell_size, /* a height of 1 is z_range / z_unit widths high */
                                        .z_range = 400.0f,
                                        .hash_variant = 1};
    return Cellular3D_Render(queue, relief, NULL, random, &parameters, &callbacks);
}

int main(void) {
    uint32_t (*const computations[])(void) = {shape,    weather, erode,          dunes,  debris, flow,  colour, shade,
                                              sunlight, mesh,    displaced_mesh, points, bake,   stamp, median, cells};
    queue = CreateSyclQueue("cpu", &callbacks);
    if (queue == NULL)
        return 1;
    uint32_t status = status_ok;
    for (size_t n = 0; n < sizeof computations / sizeof *computations && status == status_ok; ++n) {
        for (int i = 0; i < CELLS; ++i) {
            heights[i] = fmaxf(50.0f, 400.0f - 20.0f * hypotf((float)(i % SIZE) - 32.0f, (float)(i / SIZE) - 32.0f));
            first[i] = second[i] = third[i] = 0.0f;
        }
        status = computations[n]();
        printf("computation %zu: status %u, at cell (40, 20) %g and %g\n", n, status, (double)heights[20 * SIZE + 40],
               (double)first[20 * SIZE + 40]);
    }
    DestroySyclQueue(queue);
    return (int)status;
}
