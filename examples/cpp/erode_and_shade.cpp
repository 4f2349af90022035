// Erodes a ridge of noise, lights it from the north-west, and writes the picture to standard output as PGM.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <vector>

#include <tarn/oneapi.h>

namespace {

constexpr int size = 256;
constexpr float cell_size = 20.0f; // metres
using Grid = std::vector<float>;

HostCallbacks quiet_callbacks() {
    HostCallbacks callbacks{};
    callbacks.progress = [](double) {
    };
    callbacks.is_cancelled = [] {
        return false;
    };
    callbacks.log_info = [](const char*) {
    };
    callbacks.log_error = [](const char* text) {
        std::fprintf(stderr, "%s\n", text);
    };
    callbacks.acquire_memory = callbacks.release_memory = [](std::size_t) {
    };
    return callbacks;
}

Grid blank() {
    return Grid(static_cast<std::size_t>(size) * size);
}

} // namespace

int main() {
    Grid heights = blank(), flow = blank(), sediment = blank(), wear = blank();
    for (int i = 0; i < size * size; ++i) {
        const float x = static_cast<float>(i % size) / size, y = static_cast<float>(i / size) / size;
        heights[static_cast<std::size_t>(i)] = 900.0f * std::exp(-8.0f * (y - 0.5f) * (y - 0.5f)) +
                                               60.0f * std::sin(17.0f * x + 9.0f * std::sin(11.0f * y));
    }

    const HostCallbacks callbacks = quiet_callbacks();
    SyclQueue* const queue = CreateSyclQueue("cpu", &callbacks);
    if (queue == nullptr)
        return 1;

    parallel_erosion_Parameters water{};
    water.Resolution = {size, size};
    water.terrain_size = size * cell_size;
    water.terrain_height = 1.0f; // metres in one unit of height
    water.feature_size = 32.0f * cell_size;
    water.iterations = 30.0f;
    water.seed = 1;
    water.erosion_strength = 0.6f;
    water.shaping_strength = 0.3f;
    water.shaping_sharpness = 0.6f;
    water.fill_slope_scale = 1.0f;
    water.fill_angle = 5.0f;
    uint32_t status = ParallelErosionSimulation(queue, heights.data(), nullptr, flow.data(), sediment.data(), nullptr,
                                                wear.data(), &water, &callbacks);

    Grid light = blank(), diffuse = blank(), shadow = blank(), green = blank(), blue = blank();
    lighting_Parameters sun{};
    sun.resolution = {size, size};
    sun.terrain_size = size * cell_size;
    sun.terrain_height = 1.0f;
    sun.sun_direction[0] = sun.sun_direction[1] = -0.5f;
    sun.sun_direction[2] = std::sqrt(0.5f);
    sun.exposure = sun.sun_intensity = sun.albedo = 1.0f;
    std::fill_n(sun.sun_color, 3, 1.0f);
    sun.direct_light = sun.shadows = 1;
    if (status == status_ok)
        status = Shade(queue, heights.data(), diffuse.data(), shadow.data(), nullptr, light.data(), green.data(),
                       blue.data(), nullptr, nullptr, nullptr, &sun, &callbacks);
    DestroySyclQueue(queue);
    if (status != status_ok)
        return static_cast<int>(status);

    std::printf("P5 %d %d 255\n", size, size);
    for (const float cell : light)
        std::putchar(static_cast<int>(255.0f * std::clamp(std::sqrt(cell), 0.0f, 1.0f)));
}
