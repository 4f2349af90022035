// Lets a cliff of 100 m fail and prints its profile before and after.

#include <cstddef>
#include <cstdio>
#include <vector>

#include <tarn/oneapi.h>

int main() {
    constexpr int size = 64;
    constexpr float cell_size = 10.0f; // metres
    std::vector<float> heights(static_cast<std::size_t>(size) * size);
    for (std::size_t i = 0; i < heights.size(); ++i)
        heights[i] = i % size < size / 2 ? 100.0f : 0.0f;
    const std::vector<float> before = heights;

    // Every callback is called without a check, so each needs a function.
    HostCallbacks callbacks{};
    callbacks.progress = [](double) {
    };
    callbacks.is_cancelled = [] {
        return false;
    };
    callbacks.log_info = [](const char*) {
    };
    callbacks.log_error = [](const char* text) {
        std::printf("%s\n", text);
    };
    callbacks.acquire_memory = [](std::size_t) {
    };
    callbacks.release_memory = [](std::size_t) {
    };

    SyclQueue* queue = CreateSyclQueue("cpu", &callbacks);
    if (queue == nullptr)
        return 1;

    // Heights are measured against scale_numerator / (cells in a row * level_divisor): here the size of a cell, in the
    // unit of the heights. The pyramid has log2(width * level_multiplier / level_divisor) levels, rounded up: one here,
    // which works on the grid itself.
    thermal_shaper_Parameters parameters{};
    parameters.width = size;
    parameters.height = size;
    parameters.level_divisor = 1.0f;
    parameters.scale_numerator = cell_size * size;
    parameters.level_multiplier = 1.5f / size;
    parameters.blend = 1.0f;
    parameters.rate = -0.5f; // below 0: slopes wear back from their crests
    parameters.detail_gain = 1.0f;
    const uint32_t status = ThermalShaper_Process(queue, heights.data(), nullptr, &parameters, &callbacks);
    DestroySyclQueue(queue);
    if (status != status_ok)
        return static_cast<int>(status);

    std::printf("   x, m  before, m   after, m\n");
    for (int x = size / 4; x < size * 3 / 4; ++x) {
        const std::size_t i = static_cast<std::size_t>(size) * (size / 2) + static_cast<std::size_t>(x);
        std::printf("%7.0f %10.1f %10.1f\n", static_cast<double>(x) * static_cast<double>(cell_size),
                    static_cast<double>(before[i]), static_cast<double>(heights[i]));
    }
}
