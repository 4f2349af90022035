/* Weathers a steep hill, and prints how much of it has come loose. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <tarn/oneapi.h>

static void on_progress(double percent) {
    fprintf(stderr, "\r%3.0f %%", percent);
}
static bool is_cancelled(void) {
    return false;
}
static void on_error(const char* text) {
    fprintf(stderr, "%s\n", text);
}
static void ignore_text(const char* text) {
    (void)text;
}
static void ignore_bytes(size_t bytes) {
    (void)bytes;
}

int main(void) {
    enum { size = 128 };
    const float cell_size = 10.0f; /* metres */
    const HostCallbacks callbacks = {.progress = on_progress,
                                     .is_cancelled = is_cancelled,
                                     .log_info = ignore_text,
                                     .log_error = on_error,
                                     .acquire_memory = ignore_bytes,
                                     .release_memory = ignore_bytes};
    float* heights = malloc(3 * sizeof(float) * size * size);
    if (heights == NULL)
        return 1;
    float* depth = heights + size * size;
    float* wear = depth + size * size;
    for (int i = 0; i < size * size; ++i)
        heights[i] = fmaxf(0.0f, 400.0f - 20.0f * hypotf((float)(i % size) - 64.0f, (float)(i / size) - 64.0f));

    const thermal_Parameters parameters = {.width = size,
                                           .height = size,
                                           .duration = 0.05f,
                                           .erosion_rate = 1.0f,
                                           .curvature_bias = 0.5f,
                                           .repose_angle = 35.0f,
                                           .feature_size = 8.0f * cell_size,
                                           .terrain_size = size * cell_size,
                                           .terrain_height = 1.0f}; /* metres in one unit of height */
    SyclQueue* queue = CreateSyclQueue("cpu", &callbacks);
    uint32_t status = status_failed;
    if (queue != NULL)
        status = ThermalSimulation(queue, heights, depth, wear, NULL, NULL, &parameters, &callbacks);
    DestroySyclQueue(queue);

    double volume = 0.0;
    for (int i = 0; i < size * size; ++i)
        volume += (double)(wear[i] * cell_size * cell_size);
    if (status == status_ok)
        printf("the top stands at %.1f m; %.0f m3 came loose\n", (double)heights[64 * size + 64], volume);
    free(heights);
    return (int)status;
}
