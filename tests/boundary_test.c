// The library as a plain C host sees it: the header alone, the shared library,
// and one call from start to end.
#include <tarn/oneapi.h>

#include <math.h>
#include <stdio.h>
#include <string.h>

enum { side = 16, cells = side * side };

static int failures;

#define CHECK(condition)                                                                                               \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            printf("%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                                           \
            ++failures;                                                                                                \
        }                                                                                                              \
    } while (0)

// What the callbacks have been told since the last reset.
static struct {
    int progress_calls;
    double first_percent;
    int cancel_questions;
    int error_lines;
    int acquisitions;
    int releases;
    size_t acquired_bytes;
    size_t released_bytes;
    int reserved_calls;
} seen;

static void on_progress(double percent) {
    if (seen.progress_calls++ == 0)
        seen.first_percent = percent;
}

static bool on_is_cancelled(void) {
    ++seen.cancel_questions;
    return false;
}

static void on_log_info(const char* text) {
    (void)text;
}

static void on_log_error(const char* text) {
    ++seen.error_lines;
    (void)text;
}

static void on_acquire_memory(size_t bytes) {
    ++seen.acquisitions;
    seen.acquired_bytes = bytes;
}

static void on_release_memory(size_t bytes) {
    ++seen.releases;
    seen.released_bytes = bytes;
}

static void on_reserved(void) {
    ++seen.reserved_calls;
}

static const HostCallbacks callbacks = {.progress = on_progress,
                                        .is_cancelled = on_is_cancelled,
                                        .log_info = on_log_info,
                                        .reserved_1 = on_reserved,
                                        .log_error = on_log_error,
                                        .acquire_memory = on_acquire_memory,
                                        .release_memory = on_release_memory,
                                        .reserved_2 = on_reserved};

static void reset_seen(void) {
    memset(&seen, 0, sizeof(seen));
}

// Two levels with iterations on both; wears the terrain down.
static thermal_shaper_Parameters shaper_parameters(void) {
    const thermal_shaper_Parameters parameters = {.width = side,
                                                  .height = side,
                                                  .level_divisor = 1.0f,
                                                  .scale_numerator = 1.0f,
                                                  .level_multiplier = 0.2f,
                                                  .blend = 1.0f,
                                                  .rate = -0.5f,
                                                  .detail_gain = 1.0f};
    return parameters;
}

// A hill of height 1 on a plain of height 0, its peak between the four cells in
// the middle.
static void make_hill(float* heights) {
    for (int y = 0; y < side; ++y) {
        for (int x = 0; x < side; ++x) {
            const float dx = (float)x - 7.5f;
            const float dy = (float)y - 7.5f;
            const float height = 1.0f - (dx * dx + dy * dy) * 0.04f;
            heights[y * side + x] = height > 0.0f ? height : 0.0f;
        }
    }
}

static float highest(const float* heights) {
    float result = heights[0];
    for (int i = 1; i < cells; ++i)
        result = heights[i] > result ? heights[i] : result;
    return result;
}

// Writes the identity string of a device of this kind with these texts and
// returns the queue on it, or null.
static SyclQueue* open_device(const char* kind_token, const DeviceInfo* info, const char* vendor_id) {
    char identity[1024];
    snprintf(identity, sizeof(identity), "%s/%s/%s/%s/%s", kind_token, info->backend, info->vendor, info->name,
             vendor_id);
    return CreateSyclQueue(identity, &callbacks);
}

static bool same_record(const DeviceInfo* a, const DeviceInfo* b) {
    return a->kind == b->kind && strcmp(a->backend, b->backend) == 0 && strcmp(a->vendor, b->vendor) == 0 &&
           strcmp(a->name, b->name) == 0 && strcmp(a->vendor_id, b->vendor_id) == 0;
}

// A record names its device again, with the token for its kind in front.
static void identity_string_opens_the_same_device(SyclQueue* queue) {
    DeviceInfo* info = GetDeviceInfo(queue);
    CHECK(info != NULL);
    if (info == NULL)
        return;
    CHECK(info->kind == tarn_device_cpu || info->kind == tarn_device_native_cpu);
    CHECK(info->reserved_text[0] == '\0' && info->reserved_flag == 0 && info->needs_driver_update == 0);

    DeviceInfo* devices = NULL;
    int32_t count = 0;
    GetDevices(&devices, &count);
    int found = 0;
    for (int32_t i = 0; i < count; ++i)
        found += same_record(&devices[i], info);
    CHECK(found == 1);
    FreeDevices(devices);

    const char* token = info->kind == tarn_device_cpu ? TARN_KIND_TOKEN_CPU : TARN_KIND_TOKEN_NATIVE_CPU;
    SyclQueue* same = open_device(token, info, info->vendor_id);
    CHECK(same != NULL);
    DestroySyclQueue(same);
    CHECK(open_device(token, info, "no number") == NULL);
    CHECK(open_device(TARN_KIND_TOKEN_DISCRETE_GPU, info, info->vendor_id) == NULL);
    CHECK(open_device("", info, info->vendor_id) == NULL);
    CHECK(CreateSyclQueue(token[0] == 'c' ? "cpu/" : token, &callbacks) == NULL); // fields are missing
    FreeDeviceInfo(info);
}

static void shaper_wears_a_hill_down(SyclQueue* queue) {
    float hill[cells], heights[cells];
    make_hill(hill);
    memcpy(heights, hill, sizeof(heights));
    const thermal_shaper_Parameters parameters = shaper_parameters();

    reset_seen();
    CHECK(ThermalShaper_Process(queue, heights, NULL, &parameters, &callbacks) == status_ok);
    CHECK(seen.progress_calls == 1 && seen.first_percent == 0.0 && seen.cancel_questions == 0);
    CHECK(seen.acquisitions == 1 && seen.releases == 1 && seen.acquired_bytes == seen.released_bytes);
    CHECK(seen.acquired_bytes == 64u * 1024u * 1024u); // the least that is reported; the run needs 4096 bytes
    CHECK(seen.error_lines == 0 && seen.reserved_calls == 0);

    CHECK(highest(heights) < highest(hill) - 0.01f);
    for (int i = 0; i < cells; ++i)
        CHECK(isfinite(heights[i]));

    // A blend of 0 leaves the input to the bit.
    thermal_shaper_Parameters no_blend = parameters;
    no_blend.blend = 0.0f;
    memcpy(heights, hill, sizeof(heights));
    CHECK(ThermalShaper_Process(queue, heights, NULL, &no_blend, &callbacks) == status_ok);
    CHECK(memcmp(heights, hill, sizeof(heights)) == 0);
}

int main(void) {
    SyclQueue* queue = CreateSyclQueue("cpu", &callbacks);
    if (queue == NULL) {
        printf("no queue on the CPU\n");
        return 1;
    }
    identity_string_opens_the_same_device(queue);
    shaper_wears_a_hill_down(queue);
    DestroySyclQueue(queue);

    if (failures != 0) {
        printf("%d checks failed\n", failures);
        return 1;
    }
    printf("the boundary works from C\n");
    return 0;
}
