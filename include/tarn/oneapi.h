/**
 * Tarn.oneAPI: simulations and renderings of terrain on SYCL devices.
 *
 * This header is the whole boundary of the library and its manual. It is plain C (C99 and later) and C++.
 *
 * A call, from start to end:
 *
 *     HostCallbacks callbacks = { ... };
 *     SyclQueue* queue = CreateSyclQueue("cpu", &callbacks);
 *     thermal_shaper_Parameters parameters = { ... };
 *     uint32_t status = ThermalShaper_Process(queue, heights, NULL, &parameters, &callbacks);
 *     DestroySyclQueue(queue);
 *
 * Order of calls. CreateSyclQueue comes first: it takes the record through which GetDevices and the queues log. A host
 * that wants to choose a device calls CreateSyclQueue("cpu", ...), GetDevices, CreateSyclQueue with the identity string
 * of the record it likes, and FreeDevices. A queue serves any number of computing calls until DestroySyclQueue.
 *
 * Grids. A grid is width * height elements of 32-bit float unless a comment says otherwise, row after row, without
 * gaps: cell (x, y) is element y * width + x, with x along a row and y counting rows downwards. Points are in cells;
 * the centre of cell (x, y) lies at (x + 0.5, y + 0.5). All grids of a call have the same size unless a comment says
 * otherwise. They must not overlap.
 *
 * Sizes. Width and height are at least 1, and a grid has at most 2^31 - 1 cells. Odd sizes and grids that are not
 * square are accepted wherever a comment does not forbid them: a pyramid halves each axis, rounding down, as
 * long as it has more than one cell, and reads that would leave a coarser grid take its last cell.
 *
 * Units. Where a record has terrain_size (world units along the width of the whole grid) and terrain_height (world
 * units of a height value of 1.0), a cell is terrain_size / (width * terrain_height) wide in units of the heights; this
 * turns height differences into true slopes. Both must be above 0. Angles are in degrees.
 *
 * Ownership. The caller owns every grid, array, record and callback for the length of the call, and nothing that is
 * passed is kept after it, but for a copy of the callbacks. A parameter record is not changed unless a comment says so.
 * What the library allocates for the caller (the records of GetDevices and GetDeviceInfo, queues) goes back through the
 * library's own function.
 *
 * Results. Grids marked "out" or "in and out" hold the result only after status_ok. After status_cancelled they hold
 * the work done so far; after status_out_of_memory and status_failed they hold whatever the run had written, and
 * exactly what they held before if the call was refused. On a CPU device the kernels work in the caller's memory
 * itself; other devices work on copies, which are written back before the call returns.
 *
 * Threads. A call runs on the caller's thread (kernels use further threads of their own) and returns when it is done.
 * One call at a time in the process, on all queues together: the copies of the callbacks and the error flag are shared.
 *
 * Status. Computing calls return a TarnStatus as a 32-bit number; there is no other error code.
 *
 * Refusals. A call whose arguments cannot run returns status_failed, after one log_error line that names the field and
 * its value, and before acquire_memory: NaN or infinite parameters, sizes outside the range above, null pointers that a
 * comment does not allow, and what each comment adds. Values out of range that have a sensible meaning are clamped as
 * the comments say. Parameters that a run does not read are not looked at. A call without callbacks to log through is
 * refused in silence, and so is a null queue or grid of ThermalShaper_Process and Cellular3D_Render.
 *
 * Cells that are not finite. One NaN or infinite height would spread over a whole terrain with the material that is
 * moved. So the simulations that move material (ThermalShaper_Process, ThermalSimulation, ParallelErosionSimulation,
 * DuneSimulation, DebrisSimulation) refuse a call with such a height, or with such sand: fill holes first. All other
 * calls take such cells; they spoil only those results that depend on them.
 *
 * Memory. On a device that is no CPU a run starts with a trial: its need in bytes, which each comment gives, plus
 * 256 MiB must be free on the device, or the call returns status_out_of_memory and calls nothing back. Then
 * acquire_memory tells the host what the run takes, and release_memory, with the same number, that it has gone. The two
 * always balance, also when a run fails or is cancelled. The need is an estimate. An allocation on the device that
 * fails later in the run ends it with status_out_of_memory, one in the host's memory with status_failed, both after a
 * log_error line.
 *
 * Repeatability. Runs with the same arguments give the same bits on a CPU, whatever the number of its threads and
 * whatever processor the library was built for. Four calls add or write in the order in which threads get there, so
 * that some of their results may differ between runs on several threads, in the last bits unless it says more:
 *
 *     DuneSimulation            wind_trace
 *     ColorTransportSimulation  red, green, blue
 *     DebrisSimulation          rock_id and speed, where rocks overlap: those of either
 *     MeshRasterizer_RenderMesh noise, where triangles overlap: that of either
 *
 * Records cross the boundary in memory as they stand here, on platforms with 64-bit pointers; the end of this header
 * checks their layout. Fields of one byte are flags: 0 is false, anything else is true. Fields named "reserved" are not
 * read; set them to 0.
 */
#ifndef TARN_ONEAPI_H
#define TARN_ONEAPI_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/**
 * Version of this header, after Semantic Versioning. The library carries the version that it was built from as an ELF
 * note: owner "Tarn.oneAPI", type 1, the three numbers as uint32_t. `readelf --notes` shows it, and
 * examples/c/library_version.c reads it from the library that is loaded.
 */
#define TARN_ONEAPI_VERSION_MAJOR 0
#define TARN_ONEAPI_VERSION_MINOR 1
#define TARN_ONEAPI_VERSION_PATCH 0

#if defined(_WIN32) && defined(TARN_BUILDING_LIBRARY)
#define TARN_API __declspec(dllexport)
#elif defined(_WIN32)
#define TARN_API __declspec(dllimport)
#elif defined(__GNUC__)
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif

#if defined(__cplusplus)
#define TARN_ALIGNED(bytes) alignas(bytes)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define TARN_ALIGNED(bytes) _Alignas(bytes)
#elif defined(_MSC_VER)
#define TARN_ALIGNED(bytes) __declspec(align(bytes))
#else
#define TARN_ALIGNED(bytes) __attribute__((aligned(bytes)))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------------------------------
 * Status, callbacks and vectors
 * ------------------------------------------------------------------------------------------------------------------ */

/** What a computing call returns. */
typedef enum TarnStatus {
    status_ok = 0,            /**< finished; the results are in the caller's grids */
    status_cancelled = 1,     /**< is_cancelled answered true, from the calls that say so */
    status_out_of_memory = 2, /**< the device has not enough memory */
    status_failed = 3         /**< refused, or failed on the way; log_error has the reason */
} TarnStatus;

/**
 * The host's functions. They are called on the thread that made the call, never from a kernel. All six must be valid,
 * also those that a call does not use; the reserved pointers may be null.
 *
 * A C++ host may throw from progress and is_cancelled: the run ends with a log_error line and status_failed. The other
 * four must return. MedianFilter and DebrisSimulation have no status for a failure; their comments say what they do.
 */
typedef struct HostCallbacks {
    /**
     * Percent of the work that is done. Called with 0.0 when a run starts, then as the work goes on: first after 5 % of
     * it, after that with every step the run counts, so keep it short. The last value need not be 100.
     */
    void (*progress)(double percent);
    /**
     * Asked after every report but the one of 0.0, and about every tenth of a second between reports, by the calls that
     * can stop early. True stops the run at the next point where it can stop.
     */
    bool (*is_cancelled)(void);
    /** A line of information. The text is valid during the call only. */
    void (*log_info)(const char* text);
    void (*reserved_1)(void);
    /** A line about an error. The text is valid during the call only. */
    void (*log_error)(const char* text);
    /**
     * The run is about to take `bytes` of memory. The number is the need of the run, but at least 64 MiB; on a GPU with
     * memory of its own it is 64 MiB whatever the need, since the grids lie in the GPU's memory.
     */
    void (*acquire_memory)(size_t bytes);
    /** The memory of acquire_memory has gone. */
    void (*release_memory)(size_t bytes);
    void (*reserved_2)(void);
} HostCallbacks;

/** Vectors with the size and alignment of sycl::vec. The fourth element of a vector of three is padding. */
typedef struct TarnInt2 {
    TARN_ALIGNED(8) int32_t x;
    int32_t y;
} TarnInt2;

typedef struct TarnFloat2 {
    TARN_ALIGNED(8) float x;
    float y;
} TarnFloat2;

typedef struct TarnFloat3 {
    TARN_ALIGNED(16) float x;
    float y;
    float z;
    float padding;
} TarnFloat3;

typedef struct TarnUint3 {
    TARN_ALIGNED(16) uint32_t x;
    uint32_t y;
    uint32_t z;
    uint32_t padding;
} TarnUint3;

/* ---------------------------------------------------------------------------------------------------------------------
 * Devices and queues
 * ------------------------------------------------------------------------------------------------------------------ */

/** Class of a device: DeviceInfo::kind. */
typedef enum TarnDeviceKind {
    tarn_device_other = 0,
    tarn_device_native_cpu = 1,     /**< a CPU through a back end that compiles kernels as native functions */
    tarn_device_cpu = 2,            /**< a CPU */
    tarn_device_integrated_gpu = 3, /**< a GPU that shares the host's memory */
    tarn_device_discrete_gpu = 4,   /**< a GPU with memory of its own */
    tarn_device_accelerator = 5     /**< an accelerator that is neither CPU nor GPU */
} TarnDeviceKind;

/**
 * First field of a device identity string, one for each TarnDeviceKind but tarn_device_other. The identity string of a
 * record has five fields between slashes: the token for its kind, then backend, vendor, name and vendor_id as they
 * stand in the record, for example "discrete-gpu/Level Zero/Intel(R) Corporation/Intel(R) Arc(TM) A770 Graphics/32902".
 *
 * The library knows tokens by their hash: h = 5381, then h = h * 33 + c in 32 bits for each character c as a signed
 * char. These five have the hashes 0xD0553421, 0x0B8866ED, 0x19327845, 0xB177C591 and 0xB32A04CA, in the order below. A
 * token with one of the hashes 0x0B8A1051, 0x504A2F1E, 0x54C35C5C, 0x150D17A8 or 0xCB60D22E also stands for kind 1 to
 * 5, in this order. Any other token, also an empty one, stands for kind 0.
 */
#define TARN_KIND_TOKEN_NATIVE_CPU "native-cpu"
#define TARN_KIND_TOKEN_CPU "cpu"
#define TARN_KIND_TOKEN_INTEGRATED_GPU "integrated-gpu"
#define TARN_KIND_TOKEN_DISCRETE_GPU "discrete-gpu"
#define TARN_KIND_TOKEN_ACCELERATOR "accelerator"

/** A device. The texts belong to the record and go with it. */
typedef struct DeviceInfo {
    char* reserved_text; /**< always empty */
    int32_t kind;        /**< a TarnDeviceKind */
    char* backend;       /**< "OpenCL", "Level Zero", "CUDA", "HIP", "Native" or "Unknown" */
    char* vendor;        /**< from the SYCL runtime, or the processor's own where the runtime has a stand-in */
    char* name;          /**< as vendor */
    char* vendor_id;     /**< decimal digits */
    uint8_t reserved_flag;
    uint8_t needs_driver_update; /**< 1: its driver is known to compute wrong results, no queue can be made on it */
} DeviceInfo;

/** A device's queue: a sycl::queue with the in_order property, made and destroyed by the library. */
typedef struct SyclQueue SyclQueue;

/**
 * Lists the devices that can run the library: those that are available, have at least 1 GiB of memory and USM device
 * allocations, and have just run a test kernel. A device whose driver needs an update is listed without the test.
 *
 * Call CreateSyclQueue once before this; the scan logs its start and its end through that call's callbacks, and nothing
 * if there was none.
 *
 * - devices: receives a pointer to the first of `count` records, in the SYCL runtime's order. Not null after success,
 *   also with no record. Give it back with FreeDevices.
 * - count: receives the number of records.
 *
 * Both must not be null; a call with a null one does nothing but log a line. A scan that fails gives null and 0.
 */
TARN_API void GetDevices(DeviceInfo** devices, int32_t* count);

/** Frees what GetDevices gave. Null is ignored. */
TARN_API void FreeDevices(DeviceInfo* devices);

/**
 * The record of a queue's device, with the same contents as in the list of GetDevices. Give it back with
 * FreeDeviceInfo. Null on failure, which log_error tells about.
 */
TARN_API DeviceInfo* GetDeviceInfo(SyclQueue* queue);

/** Frees what GetDeviceInfo gave. Null is ignored. */
TARN_API void FreeDeviceInfo(DeviceInfo* info);

/**
 * Makes a queue on a device. Costs a look at all devices but for "cpu"; no device is tested.
 *
 * - device_id: "cpu" for the CPU that the SYCL runtime prefers, or an identity string as told at TARN_KIND_TOKEN_CPU.
 *   All five fields must match a device, which need not be one of GetDevices. A device with a slash in one of its texts
 *   has no identity string.
 * - callbacks: copied; the device functions and the error handlers of all queues log through the record of the latest
 *   call. An error that the device reports late is logged as "Caught asynchronous SYCL exception: ..." and makes the
 *   run it falls into return status_failed. One case is an exception: after the memory trial of a run, errors that
 *   arrive before the run's first allocation of device memory are dropped, since they may be the trial's own.
 *
 * Returns null if an argument is null, no device matches, its driver needs an update, or the runtime refuses; no line
 * says which.
 *
 * A side effect on the whole process: from the first call on, C++ std::cerr writes to the null device, so that the SYCL
 * runtime's own messages stay off the host's console. The file descriptor and C's stderr are left alone.
 */
TARN_API SyclQueue* CreateSyclQueue(const char* device_id, const HostCallbacks* callbacks);

/** Ends a queue and frees the pinned memory that is kept for its context. No run may be on it. Null is ignored. */
TARN_API void DestroySyclQueue(SyclQueue* queue);

/* ---------------------------------------------------------------------------------------------------------------------
 * Thermal weathering
 * ------------------------------------------------------------------------------------------------------------------ */

/** Parameters of ThermalShaper_Process. 32 bytes. */
typedef struct thermal_shaper_Parameters {
    int32_t width;
    int32_t height;
    /** Divisor of the level count and of the height scale. Not 0. */
    float level_divisor;
    /** Numerator of the height scale. Not 0; the scale below and its inverse must be finite at every level. */
    float scale_numerator;
    /** width * level_multiplier / level_divisor is the size of the largest feature in cells; above 0 and finite. */
    float level_multiplier;
    /** Mix of input and result: 0 leaves the input as it is, 1 gives the result; others extrapolate. */
    float blend;
    /** Strength of one iteration, by its magnitude, usually 0.1 to 2. The sign says on which side, see below. */
    float rate;
    /** Factor on the detail that is put back when a level is folded into its finer one: 1 keeps it, 0 drops it. */
    float detail_gain;
} thermal_shaper_Parameters;

/**
 * Reshapes a terrain the way slow slope failure would, as one filter step and at all scales at once.
 *
 * The heights are taken apart into a Laplacian pyramid (Burt and Adelson, 1983) of ceil(log2(f)) levels, with f the
 * size of the largest feature in cells; at least one level, and none smaller than one cell along an axis. From the
 * coarsest level to the finest, each runs a number of iterations that halves from level to level and keeps the total
 * near that of 64 iterations on the full grid, and is then folded into the next finer level. One iteration looks at the
 * 3 x 3 neighbours of each cell (border cells repeat outwards): slope by the 3-10-3 Scharr weights, curvature as the
 * height above a distance-weighted mean of the neighbours, and the drop to the lowest neighbour. The cell loses height
 * in proportion to slope plus curvature and to `rate`, more on steep ground, and never more than down to its lowest
 * neighbour. A cell that lies below all its neighbours rises towards the lowest of them.
 *
 * A negative `rate` works on the terrain as it is: it wears crests and cliffs down. A `rate` of 0 or above works on the
 * terrain mirrored in height, and the same rule then raises the foot of steep slopes and hollows. Otherwise the two
 * signs do the same.
 *
 * A cell of a level that is w cells wide counts as scale_numerator / (w * level_divisor) wide, in units of the heights.
 * With a terrain of terrain_size and terrain_height as above, level_divisor = terrain_size, level_multiplier = the size
 * of the largest feature in world units, and scale_numerator = terrain_size * terrain_size / terrain_height give true
 * slopes.
 *
 * - queue, heights: not null; else status_failed, with nothing called back.
 * - heights: in and out.
 * - mask: in, or null. Factor on the loss of each cell; 0 protects a cell but for the rise out of pits.
 *
 * Refused: heights and masks with values that are not finite, a level_divisor or a scale_numerator of 0, and parameters
 * out of all proportion.
 *
 * Status 0, 2 or 3. Reports progress(0.0) and nothing more, and cannot be cancelled.
 * Need: floor(k * width * height / 3) bytes, with k = 64 if there is a mask, else 48.
 */
TARN_API uint32_t ThermalShaper_Process(SyclQueue* queue, float* heights, const float* mask,
                                        const thermal_shaper_Parameters* parameters, const HostCallbacks* callbacks);

/** Parameters of ThermalSimulation. 44 bytes. */
typedef struct thermal_Parameters {
    int32_t width;
    int32_t height;
    /** Length of the run, 0 to 6553: 2560 iterations per 1.0 at a level of full weight. 0 runs none. */
    float duration;
    /** Strength of the loosening, from 0. */
    float erosion_rate;
    /** 0: loosening is even on all slopes above the repose angle. 1: it follows slope and convex curvature. */
    float curvature_bias;
    /**
     * Degrees, from 0. Slopes above the arc tangent of this angle in radians are loosened and slide. Has no effect
     * while a level settles, see below.
     */
    float repose_angle;
    /** Largest feature, world units. Sets the number of levels; above 0. */
    float feature_size;
    float terrain_size;
    float terrain_height;
    /** Share of the arriving material that is lost on the way, 0 to 1. */
    float absorption;
    uint8_t use_erosion_mask;    /**< read erosion_mask */
    uint8_t use_absorption_mask; /**< read absorption_mask */
} thermal_Parameters;

/**
 * Weathers a terrain: slopes above the repose angle shed loose material, which slides downhill and comes to rest, at
 * all levels of a Laplacian pyramid from the coarsest to the finest. Solid ground first turns into loose cover, which
 * shields what is under it; only the slide changes the surface. Where a coarser level has left cover or wear, less of
 * the finer detail is put back. Loose material leaves the terrain over its border.
 *
 * - heights: in and out; the surface, loose material included.
 * - depth: out; depth of the loose material on the surface.
 * - wear: out; how much material was loosened at each cell over the whole run.
 * - erosion_mask: in, or null; factor on the loosening, from 0. Not read while use_erosion_mask is 0.
 * - absorption_mask: in, or null; factor on the absorption, from 0. Not read while use_absorption_mask is 0.
 *
 * The pyramid has ceil(log2(width * feature_size / terrain_size)) levels, at least one. Coarser levels run longer. The
 * last eight iterations of a level settle: every slope is loosened and slides, whatever the repose_angle. On the
 * coarsest level all iterations settle, so the repose_angle has no effect on a pyramid of one level. Before it settles,
 * the finest of several levels runs up to twelve directional iterations.
 *
 * Refused: terrain_size, terrain_height and feature_size that are not above 0 or out of all proportion, and heights and
 * masks that are read with values that are not finite. A flag with a null mask is as good as no flag.
 *
 * Status 0, 1, 2 or 3; after a cancel the coarser levels' results still reach the grids. Need: 68 * width * height
 * bytes.
 */
TARN_API uint32_t ThermalSimulation(SyclQueue* queue, float* heights, float* depth, float* wear,
                                    const float* erosion_mask, const float* absorption_mask,
                                    const thermal_Parameters* parameters, const HostCallbacks* callbacks);

/* ---------------------------------------------------------------------------------------------------------------------
 * Hydraulic erosion
 * ------------------------------------------------------------------------------------------------------------------ */

typedef struct parallel_erosion_Resolution {
    uint32_t width; /**< 1 to 2^24, as height */
    uint32_t height;
} parallel_erosion_Resolution;

/** Parameters of ParallelErosionSimulation. 84 bytes. All angles are in degrees, and compare with true slopes. */
typedef struct parallel_erosion_Parameters {
    parallel_erosion_Resolution Resolution;
    float terrain_size;
    float terrain_height;
    /** Largest feature, world units; above 0. Above a fifth of terrain_size it levels off towards 0.37 of it. */
    float feature_size;
    float reserved_1;
    /** Rounds of particles at a level of full weight; at most 2^30, and none at 0 or below. */
    float iterations;
    float reserved_2;
    /** Seed of all random numbers; any value. */
    uint32_t seed;
    /** How much the water carries per unit of fall, usually 0 to 1. Above 1 it digs itself in. */
    float erosion_strength;
    float reserved_3;
    /** Strength of the shaping after each round, which wears steep faces back and smooths; none at 0 or below. */
    float shaping_strength;
    /** Mix of the shaping, 0 to 1: 0 smooths, 1 only cuts. */
    float shaping_sharpness;
    /** From 0. Shaping starts to fade log2(1 / shaping_detail) levels above the coarsest; 0: never. */
    float shaping_detail;
    /** Hollows on a path are filled in full where fill_slope_scale * slope is below tan(fill_angle), else in part. */
    float fill_slope_scale;
    float fill_angle;
    /** Share of the sediment dropped on slopes below tan(plain_angle), in units of 0.15, and of 15 on level ground. */
    float plain_deposition;
    float plain_angle;
    /** Share of the sediment dropped on slopes of 0.8 to 1.25 times tan(terrace_angle), in units of 0.25. */
    float terrace_deposition;
    float terrace_angle;
    /** Mix between a capacity that follows the fall of the path (0) and a constant one (1), 0.15 cells high. */
    float constant_capacity;
} parallel_erosion_Parameters;

/**
 * Erodes a terrain with water particles on a Laplacian pyramid, coarsest level first. A particle walks downhill in
 * pieces of at most twelve steps; the bed along each piece is then cut by what the water can carry and filled by what
 * it drops. A particle ends with its fifth rise, or with one in its first three steps, and fills each rise. All
 * particles of a round run at once, and a cell takes the mean of the changes they want. Coarser results are carried up
 * with the finer detail on top, buried where there is sediment and worn where there is wear.
 *
 * The pyramid has ceil(log2(width * f / (2 * terrain_size))) levels, at least one, with f the feature size as it levels
 * off. A round has a particle for each 256 cells of the level. The coarsest level runs the share of the rounds that the
 * fraction of the level count asks for; from about the fourth level on the rounds halve per level.
 *
 * - height: in and out.
 * - spawn_map: in, or null. Probability that a particle is born at a cell, 0 to 1; shaping then acts only where the
 *   flow has come, and up steep banks from there. A grid of one cell counts as none.
 * - flow: out; visits of particles at full size, 1.0 at 1000 visits and above. After a cancel it counts single visits.
 * - sediment: out; depth of the sediment on the surface.
 * - wear: out; height that the particles have removed, less what shaping has cut.
 * - reserved: not read; may be null.
 *
 * Logs "1" by log_info as its first act, also before a refusal. Refused: a height that is NaN or infinite, a negative
 * shaping_detail, and terrain_size, terrain_height or feature_size at or below 0 or out of all proportion. No particle
 * is born where the map is NaN. Those that are still on their way after 1024 + 8 * (width + height) pieces of path are
 * given up.
 *
 * Status 0, 1, 2 or 3. Cancelling before the level just below the full size has started leaves height as it was, and
 * the other grids cleared. Need: 20 * width * height bytes; the run takes about 42 bytes a cell, 54 with a spawn_map.
 */
TARN_API uint32_t ParallelErosionSimulation(SyclQueue* queue, float* height, const float* spawn_map, float* flow,
                                            float* sediment, const void* reserved, float* wear,
                                            const parallel_erosion_Parameters* parameters,
                                            const HostCallbacks* callbacks);

/* ---------------------------------------------------------------------------------------------------------------------
 * Dunes
 * ------------------------------------------------------------------------------------------------------------------ */

/** Parameters of DuneSimulation. 36 bytes. */
typedef struct arrakis_Parameters {
    int32_t width;
    int32_t height;
    /** Length of the run, 0 to 838860: 2560 rounds per 1.0. */
    float duration;
    float reserved_1;
    float reserved_2;
    /** Degrees, from 0. Sand slides on slopes above the arc tangent of this angle in radians. */
    float repose_angle;
    /** Has no effect. */
    float feature_size;
    /** Horizontal extent of the whole grid in world units. */
    float terrain_size;
    /** World height of a height of 1. A cell is terrain_size / (terrain_height * width) heights wide, above 0. */
    float terrain_height;
} arrakis_Parameters;

/**
 * Moves a layer of sand over a fixed ground under a wind along +x. Each round bends the wind around the large shapes of
 * the terrain, finds the shelter behind crests, lifts sand, carries it along the wind in hops, and lets slopes above
 * the angle of repose slide. The wind carries sand around the edges of the grid, as on a torus; slopes end at the
 * edges.
 *
 * - height: in and out. In: the ground without the sand. Out: ground and sand.
 * - sand: in and out; depth of the sand, from 0. Its sum is kept up to rounding.
 * - wind_trace: out; streamlines of the last round's wind. 0 after a cancel or no round at all, and on grids below 256
 *   cells or narrower than 16 cells.
 *
 * Refused: heights and sand with values that are not finite, a negative repose_angle, and terrain_size and
 * terrain_height that are not above 0 or out of all proportion.
 *
 * Ends with the line "Execution time: ... ms" by log_info. Status 0, 2 or 3: a cancel stops the run, and the status of
 * a run so stopped is 0. Height and sand are repeatable on a CPU; wind_trace may differ in its last bits from run to
 * run. Need: 68 * width * height bytes.
 */
TARN_API uint32_t DuneSimulation(SyclQueue* queue, float* height, float* sand, float* wind_trace,
                                 const arrakis_Parameters* parameters, const HostCallbacks* callbacks);

/* ---------------------------------------------------------------------------------------------------------------------
 * Debris
 * ------------------------------------------------------------------------------------------------------------------ */

/** Parameters of DebrisSimulation. 48 bytes. */
typedef struct debris_Parameters {
    uint32_t resolution; /**< cells per side: all grids are square */
    float terrain_size;
    float terrain_height;
    uint32_t count; /**< number of rocks; at most 2^24 */
    float max_size; /**< largest radius of a rock, world units; above 0, and at most 15446 cells, as min_size */
    /**
     * Smallest radius, world units, from 0. It may be above max_size: radii lie between the two all the same. It must
     * not be above three times max_size, where bodies would turn upside down.
     */
    float min_size;
    /** Coefficient of the sliding friction. Below 0 it drives the rocks on. */
    float friction;
    /** Share of a bounce against the surface that is thrown back, 0 to 1. Other values extrapolate. */
    float restitution;
    float reserved;
    uint8_t draw_unmoved;  /**< draw rocks also where they have stayed at their birthplace */
    uint32_t favour_small; /**< not 0: most rocks are small and very few are large; 0: all sizes alike */
    uint32_t seed;         /**< any value */
} debris_Parameters;

/**
 * Strews rocks over a terrain. In batches of up to 1024, rocks are born at random places, slide and bounce downhill for
 * up to 1000 time steps, and are stamped into the heights as faceted convex bodies, roughened by gradient noise
 * (Perlin, 1985). Later batches slide on the rocks of earlier ones and pile up. Rocks only raise the terrain.
 *
 * - height: in and out.
 * - rock_id: out; a random number above 0 for each rock at the cells that it covers, else 0.
 * - coverage: out; 1 where rock_id is above 0, else 0.
 * - speed: in and out; a thousandth of the speed of a rock that crossed the cell, other cells keep what they hold.
 *
 * Always returns 0, and neither tries nor reports memory: with arguments that cannot run it logs why and leaves the
 * grids as they were. Reports progress(0.0) only and cannot be cancelled. A device error shows as a log_error line. A
 * C++ exception of the SYCL runtime or of progress leaves this function. Where rocks overlap, rock_id and speed may
 * belong to either; heights are repeatable.
 *
 * Refused: what the record rules out, heights that are not finite, and more work than a call without cancel should do.
 * To draw a rock is to look at most at all cells of a square of 3 r + 1 cells a side, for a radius of r cells, and at
 * most at all cells of the grid; `count` times this number, for the largest rock, must not be above 2^40.
 *
 * Memory: 1.3 MB, and 16 bytes a cell on a GPU.
 */
TARN_API uint32_t DebrisSimulation(SyclQueue* queue, float* height, float* rock_id, float* coverage, float* speed,
                                   const debris_Parameters* parameters, const HostCallbacks* callbacks);

/* ---------------------------------------------------------------------------------------------------------------------
 * Flow maps
 * ------------------------------------------------------------------------------------------------------------------ */

/** Parameters of FlowSimulation. 20 bytes. */
typedef struct flow_Parameters {
    int32_t width;
    int32_t height;
    /** Length of the long trails as a fraction of the width, from 0; they have width * flow_length + 2 steps. */
    float flow_length;
    /** Height added for each visit after each batch, in units of 1e-5: pushes later trails beside earlier ones. */
    float spread;
    /** Any value. */
    uint32_t seed;
} flow_Parameters;

/**
 * Draws a flow map: high where downhill trails gather. No water is solved for. Small pits are filled on a working copy
 * of the heights; particles are scattered, one in each cell or by the chance of the mask, and traced downhill in 32
 * batches. After each batch the visits of a cell pass through a saturating curve into the map, and raise the working
 * copy by `spread`.
 *
 * A trail goes down the gradient with inertia and a random kick, one cell a step. All but 0x40000 of the trails have 16
 * steps; the others, on a small grid nearly all, have as many as flow_length asks for. A trail ends before that one
 * column short of the right and one row short of the lower edge, or at the first step beyond 4, or beyond 8 % of its
 * steps, that does not lead down; the height before the start counts as 0.0, so that a start at or above 0.0 is such a
 * step. None starts on level ground. The unit of the heights makes no difference but to `spread`.
 *
 * - heights: in. A trail goes straight on where a height is NaN, and ends where one is infinite. Where pits are filled
 *   (n as below), one such height makes NaN of all within 3 * (2^n - 1) rows and columns of the working copy.
 * - flow_map: out; from 0 to just below 1. Left as it was if the mask lets no particle start.
 * - mask: in, or null. Chance that a cell starts a particle, 0 to 1; null starts one in each cell. NaN starts none.
 *
 * Pits are filled on grids of at least 512 columns, on the levels of a pyramid that are at least 256 columns wide; the
 * height must not be below 2^n, with n = floor(log2(width / 256)) the number of these levels. Also refused: a negative
 * flow_length, and more than 2^24 steps. Progress runs up to 50. Status 0, 1, 2 or 3; after a cancel the map holds the
 * batches that were done. Need: 28 * width * height bytes. The particles, 8 bytes each, are in host memory as well.
 */
TARN_API uint32_t FlowSimulation(SyclQueue* queue, const float* heights, float* flow_map, const float* mask,
                                 const flow_Parameters* parameters, const HostCallbacks* callbacks);

/** Parameters of ColorTransportSimulation. 36 bytes. */
typedef struct color_transport_Parameters {
    int32_t width;
    int32_t height;
    /** Length of the long trails as a fraction of the width, from 0; they have width * flow_length + 2 steps. */
    float flow_length;
    /**
     * A cell's old colour has the weight 16 / (persistence + 0.1) - 14 in the mean: 146 at 0, 0.5 at 1. The weight is
     * never negative: from about 1.04 up it is 0. Above -0.1.
     */
    float persistence;
    /**
     * Share of the mean that a batch takes, 0 to 1; 0 leaves the image as it is. Other values extrapolate in each
     * batch: the colours leave their range, and beyond 2 they may grow without bound.
     */
    float blend;
    /** Height added for each visit after each batch, in units of 1e-5. */
    float spread;
    /**
     * How far a colour travels, 0 to 1: from one cell to twice the height of the grid, at random. Values below 0 count
     * as 0, values above 1 reach farther still.
     */
    float transport;
    /** Without the random turns of the trails. */
    uint8_t straight_trails;
    /** Any value. */
    uint32_t seed;
} color_transport_Parameters;

/**
 * Moves the colours of an image along downhill trails: a particle carries the colour of the cell where it started, lays
 * it down in each cell that it visits, and takes up another one after a random distance. After each of 32 batches the
 * cells become a weighted mean of what they were and what has been laid down in them, which is what the next batch
 * finds.
 *
 * Pits, particles, batches and trails are those of FlowSimulation, but for these rules of the trails: they keep less of
 * their direction; the short ones have as few steps as the long ones where these have less than 16; they end at the
 * first step beyond 4, or beyond 20 % of the steps, that does not lead down, and the height before the start does not
 * count.
 *
 * - heights: in.
 * - red, green, blue: in and out; the image, in any linear unit. Left as it was if the mask lets no particle start. A
 *   colour that is not finite spoils the cells that it is carried to.
 * - mask: in, or null. Chance that a cell starts a particle, 0 to 1; null starts one in each cell. NaN starts none.
 * - length_map: in, or null. Factor on the length of the trails, by the cell in which they start. At 0 and below a
 *   trail ends in its first cell; NaN is no limit.
 *
 * The limits on the size and on flow_length are those of FlowSimulation. Progress runs up to 100. Status 0, 1, 2 or 3;
 * after a cancel the image holds the batches that were done. The image may differ in its last bits from run to run:
 * colours are added up in any order. Need: 64 * width * height bytes. The particles, 8 bytes each, are in host memory
 * as well.
 */
TARN_API uint32_t ColorTransportSimulation(SyclQueue* queue, const float* heights, float* red, float* green,
                                           float* blue, const float* mask, const float* length_map,
                                           const color_transport_Parameters* parameters,
                                           const HostCallbacks* callbacks);

/* ---------------------------------------------------------------------------------------------------------------------
 * Lighting
 * ------------------------------------------------------------------------------------------------------------------ */

typedef struct lighting_Resolution {
    int32_t width;
    int32_t height;
} lighting_Resolution;

/**
 * Parameters of Shade and SunLightIntegral. 120 bytes. Each reads some fields only, and looks at no others. Floats
 * that are read must be finite. Shade always reads resolution, terrain_size, terrain_height, exposure and the
 * intensities and colours of both lights. It reads sun_direction if direct_light is set, albedo if the albedo grids are
 * not all given, and the fields of the shadows and of the ambient occlusion if these are traced.
 */
typedef struct lighting_Parameters {
    lighting_Resolution resolution; /**< any rectangle; the limits of its sides are with the functions */
    float terrain_size;             /**< extent of the grid along a row, in world units, above 0; cells are squares */
    float terrain_height;           /**< world units in one unit of height, above 0 */
    /**
     * Unit vector towards the sun: x along a row, y down the rows, z up. A sun straight above lights everything, and
     * one straight below nothing, whatever its disc. It counts as straight above or below if the squares of x and y add
     * up to 0 in float, which they do where both are below about 2.6e-23.
     *
     * A vector of another length is taken as it comes: diffuse is the cosine times its length, and the disc's radius
     * is divided by it. Rays of the disc that overflow reach nothing.
     */
    float sun_direction[3];
    /**
     * Rays towards the sun's disc: 3n^2 + 3n + 1 in n rings around its centre for n of 0 to 17; with -4 and -8, so many
     * parallel rays at different points of a cell, for hard shadows with smooth edges; -1 is the same as 0. Other
     * values are refused.
     */
    int32_t sun_rings;
    float sun_diameter; /**< apparent diameter, degrees from 0 to 180; about 0.53 on Earth; read if sun_rings > 0 */
    uint32_t hybrid_ao; /**< 0: ambient occlusion is traced at full size; else at the coarsest of hybrid_ao_levels */
    /**
     * Subdivisions of the icosahedron of ambient rays, 0 to 3: 7, 23, 94 or 371 rays, for the tracing at full size and
     * for the hybrid one.
     */
    int32_t ao_subdivisions;
    int32_t hybrid_ao_subdivisions;
    /**
     * Levels of the hybrid pyramid, the full size included; below 2 is full size. Each level halves both sides,
     * rounding down, and its cells share out terrain_size evenly. More levels than the smaller side allows are refused:
     * at most 6 for 96 x 40 cells, 2 for 3 x 200, 1 for 1 x 7.
     */
    int32_t hybrid_ao_levels;
    float exposure; /**< factor on both lights */
    float sun_intensity;
    float ambient_intensity;
    float sun_color[3]; /**< red, green, blue, as ambient_color */
    float ambient_color[3];
    float albedo; /**< grey of the surface where no albedo grids are given */
    /**
     * Days of a year of 365, both included. A span may run over the new year. Days below 1 and above 365 are those of
     * the years before and after; the sun's way is the same every year. From -3650 to 3650, else refused.
     */
    int32_t first_day;
    int32_t last_day;
    float latitude;            /**< degrees from -90 to 90, else refused; north is positive */
    float north_offset;        /**< degrees added to the sun's azimuth; at 0 north is towards row 0 */
    float haze;                /**< extinction by the air, from 0 */
    uint8_t direct_light;      /**< the sun lights the terrain */
    uint8_t ambient_light;     /**< the sky lights the terrain */
    uint8_t shadows;           /**< the sun's visibility is traced */
    uint8_t ambient_occlusion; /**< the sky's visibility enters the ambient light */
    uint8_t ao_supplied;       /**< the caller gives the ambient occlusion: nothing traces it */
} lighting_Parameters;

/**
 * Renders a terrain as a lit image, and hands the stages of it back: the cosine towards the sun, the sun's visibility
 * and the ambient occlusion. Visibility comes from sweeps of parallel lines over the grid for each ray, with a running
 * horizon; the image is albedo * (cosine * visibility * sun + ambient * occlusion) for each colour. Colours are linear
 * and not limited to 1.
 *
 * - heights: in.
 * - diffuse: out if direct_light is set, else untouched and may be null. Cosine between normal and sun, from 0.
 * - shadow: out if direct_light and shadows are set, else untouched and may be null. Share of the sun's rays that
 *   arrive, from 0 to 1. The border casts no shadow: what lies beyond it is not known.
 * - ao: out if ambient_light and ambient_occlusion are set and ao_supplied is not; in if all three are set; else
 *   untouched and may be null. About 1 under a free sky, 0 in full occlusion.
 * - red, green, blue: out.
 * - albedo_red, albedo_green, albedo_blue: in, or null; `albedo` takes their place unless all three are given.
 *
 * Grids of any width and height are taken. Where shadows or ambient occlusion are traced, a side of more than 32766
 * cells is refused. Null grids of a stage that runs are refused. The hybrid ambient occlusion traces the coarsest level
 * of a pyramid only, and adds what the finer relief does to it: faster with each level, and smoother.
 *
 * A height that is not finite leaves the eight cells around it without a normal: their diffuse and their colours are
 * NaN. Shadows are finite. NaN and -infinity throw none, except that a line of a sweep that starts on a NaN, at the
 * border, lights no cell up to the other border; +infinity shades all that lies behind it. The ambient occlusion at
 * full size does the same. The hybrid one leaves such heights out of the coarse levels, so they shade nothing: only the
 * cell and those around it can be NaN, and around holes that are wider than a coarse cell as many as that is wide.
 *
 * Status 0, 2 or 3: reports progress(0.0) only and cannot be cancelled. Need: 72 * width * height bytes.
 */
TARN_API uint32_t Shade(SyclQueue* queue, const float* heights, float* diffuse, float* shadow, float* ao, float* red,
                        float* green, float* blue, const float* albedo_red, const float* albedo_green,
                        const float* albedo_blue, const lighting_Parameters* parameters,
                        const HostCallbacks* callbacks);

/**
 * Sums the sunlight that a terrain receives over a span of days, terrain shadows included. Up to 2000 positions of the
 * sun are drawn from the span: declination by Cooper's formula (1969), air mass by Rozenberg's (1966). One sweep takes
 * them all, over half the width and half the height, both rounded down; these cells share out terrain_size evenly. So
 * for an odd width, terrain_size should be the extent of one column less.
 *
 * - heights: in.
 * - result: out; light received, from 0, as a mean over day and night. A surface that faced the sun all the time,
 *   without haze, would get 2.68.
 * - parameters: reads resolution, terrain_size, terrain_height, first_day, last_day, latitude, north_offset and haze. A
 *   last_day before first_day lies in the next year; a span below one day, and a haze below 0, are refused. So are
 *   sides below 2 or above 65533 cells. Heights that are not finite darken the cells around them, and +infinity all
 *   that lies behind it; the result is finite.
 *
 * Takes no callbacks: no progress, no reports of memory, no cancel. Errors, and refusals, are logged through the
 * callbacks of the latest Shade that was not refused, so that host must still be there; before it nothing is logged.
 * Status 0, 2 or 3. Need: 72 * width * height bytes.
 */
TARN_API uint32_t SunLightIntegral(SyclQueue* queue, const float* heights, float* result,
                                   const lighting_Parameters* parameters);

/* ---------------------------------------------------------------------------------------------------------------------
 * Meshes and point clouds
 *
 * Frame space has x in cells from 0 to the width, y in cells from 0 to the height, and z as the value that a height
 * grid receives. Unit space has x and y from 0 to 1 across the frame, and z is the height times vertical_scale.
 * ------------------------------------------------------------------------------------------------------------------ */

/** Parameters of the four MeshRasterizer functions. 56 bytes. */
typedef struct mesh_rasterizer_Parameters {
    TarnInt2 resolution;  /**< width and height of the grids */
    uint32_t point_count; /**< MeshRasterizer_RenderPointCloud only */
    float vertical_scale; /**< height of the model's space over its width: a height of 1.0 in widths of the frame */
    float rotation_x;     /**< degrees; a vertex turns about z first, then y, then x */
    float rotation_y;
    float rotation_z;
    float scale;                     /**< factor on the fit to the frame; 1 lets the unrotated model touch it */
    float offset_x;                  /**< in frame widths; 0 is centred */
    float offset_y;                  /**< in frame heights; 0 is centred, positive goes towards row 0 */
    float offset_z;                  /**< in units of the heights; the model's centre goes to offset_z + 0.5 */
    float displacement_amount;       /**< length of a displacement of 1.0, in unit space */
    float displacement_bias;         /**< added to what the maps give */
    uint8_t horizontal_displacement; /**< displace sideways only, with a softer blend of the maps */
    /**
     * Moves the transformed model so that its lowest vertex lies at offset_z. The same number comes off x and y, in
     * cells.
     */
    uint8_t rest_on_floor;
    uint8_t supersample; /**< render at twice the resolution and reduce */
} mesh_rasterizer_Parameters;

/** A triangle mesh. The arrays stay as they are. */
typedef struct mesh_rasterizer_MeshView {
    const TarnFloat3* vertices;
    uint32_t vertex_count;
    const TarnUint3* triangles; /**< three vertex numbers each, all below vertex_count */
    uint32_t triangle_count;
    const TarnFloat3* normals; /**< one per vertex; read by the triplanar function only */
} mesh_rasterizer_MeshView;

/**
 * Draws a mesh from above into a height grid: each cell gets the highest surface over its centre. The model is rotated,
 * fitted to the frame in its proportions and moved, and both sides of its triangles are drawn.
 *
 * - mesh: without triangles or vertices nothing is drawn. A triangle number out of range is refused. Triangles with a
 *   bounding box of 2^28 cells or more (counted in 32 bits, which wrap around), with two corners in one place, or with
 *   NaN coordinates draw nothing.
 * - height: in and out; the floor under the model, which stays where no triangle lies above it.
 * - noise: in and out, or null; receives a random number from 0 to 1 for the triangle that won the cell.
 * - parameters: reads all but point_count and the displacement. Rewritten: with supersample the resolution in it is
 *   doubled. Hand a fresh copy to each call. A vertical_scale of 0 is refused; the fit lets the model's height span at
 *   most 1.0 in the height grid, before scale.
 *
 * With supersample 4 * width * height must not exceed 2^31 - 1, and each cell is the mean of four: where the model ends
 * within it, of model and floor. Bounding boxes of 2^31 cells or more in all end in status_failed. Where triangles meet
 * at one height, the noise of either may stand. Status 0, 2 or 3: reports progress(0.0) only and cannot be cancelled.
 * Need: 16 * (vertex_count + triangle_count) + k * cells bytes, with k = 52 with supersample, else 16.
 */
TARN_API uint32_t MeshRasterizer_RenderMesh(SyclQueue* queue, const mesh_rasterizer_MeshView* mesh, float* height,
                                            float* noise, mesh_rasterizer_Parameters* parameters,
                                            const HostCallbacks* callbacks);

/**
 * Moves each vertex of a mesh in unit space along its normal by three displacement maps, blended by the direction of
 * the normal, and draws the result into a height grid. There is no fit: rotation, scale, offset and rest_on_floor are
 * not read.
 *
 * A vertex v with the normal n moves by displacement_amount * (map + displacement_bias) * n, map being the sum of what
 * the three maps hold at (v.x, v.y), (v.x, v.z) and (v.y, v.z), weighted by the fourth powers of the components of n
 * across them; a coordinate of 1 is the width of the maps, or for v.y in the first their height. With
 * horizontal_displacement the weights are the components themselves, and v moves along the direction of n in the plane
 * of x and y. Off the maps their border cells count, and the slope of the first two cells up to a cell before them.
 *
 * - mesh: with normals, used in the length they have. Triangles are drawn only if (b - a) x (c - a) does not point
 *   towards +z in frame space, a, b, c being their vertices; they may be of any size. A triangle number out of range is
 *   refused.
 * - height: in and out, as for MeshRasterizer_RenderMesh.
 * - xy_map, xz_map, yz_map: in; maps for the surfaces that face along z, y and x, of the caller's resolution. They may
 *   be one and the same.
 * - parameters: reads resolution, vertical_scale, the displacement and supersample. Rewritten: with supersample the
 *   resolution in it is doubled. Hand a fresh copy to each call. With a vertical_scale of 0 nothing is drawn.
 *
 * Supersample as for MeshRasterizer_RenderMesh. Status 0, 2 or 3: reports progress(0.0) only and cannot be cancelled.
 * Need: 32 * vertex_count + 16 * triangle_count + k * cells bytes, with k = 28 with supersample, else 16.
 */
TARN_API uint32_t MeshRasterizer_RenderMeshWithTriplanarDisplacement(
    SyclQueue* queue, const mesh_rasterizer_MeshView* mesh, float* height, const float* xy_map, const float* xz_map,
    const float* yz_map, mesh_rasterizer_Parameters* parameters, const HostCallbacks* callbacks);

/**
 * Draws scattered height samples as a surface: a Delaunay triangulation of the points in the plane. Points within one
 * cell of the frame's rim, or beyond it, are moved ten cells outside, so that the surface covers the frame to its edge.
 *
 * - points: in; point_count times x, y, z, 12 bytes each, in frame space. Coordinates that are not numbers count as
 *   beyond the right and lower rim; triangles with such a z draw nothing. Of several points in one place one is used.
 *   May be null if point_count is 0.
 * - height: in and out; cells outside the convex hull of the points keep what they hold.
 * - noise: in and out, not null; receives a random number from 0 to 1 for the triangle over the cell.
 * - red, green, blue: in and out, or null. If all three are given, each triangle gets the one colour that most of
 *   thirteen samples of the image under it are near to, and the image is overwritten with it. Where samples are not
 *   numbers that is 0. If one is null the other two stay as they are.
 * - parameters: reads resolution and point_count.
 *
 * Fewer than three points, or points all on one line, give status_failed and the line "Error: not triangulation".
 * Triangles with bounding boxes of 2^31 cells or more in all fail too, and without colours one of 2^28 cells or more
 * draws nothing. Status 0, 2 or 3: reports progress(0.0) only and cannot be cancelled. Need: 32 * point_count +
 * 8 * cells bytes, and 16 bytes more if red is given; or what the run takes, where that is more: 48 * point_count bytes
 * (with colours 80) and 4 * cells, and on devices other than CPUs the grids.
 */
TARN_API uint32_t MeshRasterizer_RenderPointCloud(SyclQueue* queue, const float* points, float* height, float* noise,
                                                  float* red, float* green, float* blue,
                                                  const mesh_rasterizer_Parameters* parameters,
                                                  const HostCallbacks* callbacks);

/**
 * Bakes the normals of a height grid onto a mesh in unit space that stands in for it. From each cell of the mesh a ray
 * along the interpolated vertex normal (weighted by angle; Thuermer and Wuethrich, 1998) meets the heights: against the
 * normal where the mesh lies above them, along it where it lies below. The normal there is written in the tangent frame
 * of the mesh, whose texture coordinates are x and y.
 *
 * - mesh: should cover the frame, with the winding told at the triplanar function. Cells under no triangle keep their
 *   outputs; under several the last one counts. Triangles without area have no influence, and upright ones none on the
 *   tangents. normals is not read. A triangle number out of range is refused.
 * - height: in; the detailed surface, 1.0 being vertical_scale * width cells. A height that is not finite reaches the
 *   cells whose rays pass within a cell of it or end within two.
 * - red, green, blue: out; the normal, packed from -1..1 to 0..1, with y flipped. Where the heights or the mesh hold no
 *   numbers, neither do they.
 * - hit_positions: out, one entry per cell; where the ray met the surface, in cells, from 0 to width - 1 and
 *   height - 1. A ray that leaves the grid, or has found nothing after 2^24 steps, ends there. One that goes straight
 *   up from the last row or column has no place on the grid: it gets (0, 0).
 * - parameters: reads resolution and vertical_scale, and supersample in the need alone.
 *
 * Status 0, 2 or 3: reports progress(0.0) only and cannot be cancelled. Need: 16 * (vertex_count + triangle_count) +
 * k * cells bytes, with k = 52 with supersample, else 16.
 */
TARN_API uint32_t MeshRasterizer_ComputeTangentSpaceNormals(SyclQueue* queue, const mesh_rasterizer_MeshView* mesh,
                                                            const float* height, float* red, float* green, float* blue,
                                                            TarnFloat2* hit_positions,
                                                            const mesh_rasterizer_Parameters* parameters,
                                                            const HostCallbacks* callbacks);

/* ---------------------------------------------------------------------------------------------------------------------
 * Stamps, median filter and cellular relief
 * ------------------------------------------------------------------------------------------------------------------ */

/** A stamp placed on the terrain. 16 bytes. */
typedef struct stamp_instancer_Instance {
    TarnFloat2 position; /**< in cells of the height grid; may lie outside it, and stamps nothing if it is not finite */
    uint32_t stamp;      /**< number of the stamp */
    float height;        /**< written by a run on a CPU: the terrain's height at the position */
} stamp_instancer_Instance;

/** Parameters of StampInstancer_Populate. 28 bytes. */
typedef struct stamp_instancer_Parameters {
    int32_t width;
    int32_t height;
    int32_t stamps_width; /**< stamps_width * stamps_height is the number of floats in the stamp array */
    int32_t stamps_height;
    int32_t stamp_width; /**< of one stamp, in cells */
    int32_t stamp_height;
    int32_t instance_count;
} stamp_instancer_Parameters;

/**
 * Places copies of small height patches on a terrain. Each stands on the height that the terrain had at its position
 * before any stamp, and raises the cells under it where it is higher. Stamps lie on whole cells, with their centre in
 * the cell of the position.
 *
 * - heights: in and out. NaN stays, and an instance within a cell of one stamps nothing; on an infinite height all its
 *   cells become infinite, or none.
 * - ids: in and out; cells that a stamp raised get a random number of the instance, above 0 and up to 1.
 * - stamps: in; one stamp after the other, each stamp_width * stamp_height cells. A value of exactly 0 is a hole.
 * - instances: in and out, instance_count entries; may be null if that is 0. See stamp_instancer_Instance::height.
 *
 * Refused: stamp sizes below 1, a stamp number past the array, and instance_count * stamp_width * stamp_height above
 * 2^31 - 1. Status 0, 2 or 3: no progress, no cancel. Where instances overlap, the id on a CPU is that of the highest,
 * of equally high ones the first; on other devices that of any which raised the cell may stand. Need:
 * 8 * width * height + 4 * stamps_width * stamps_height + 16 * instance_count bytes.
 */
TARN_API uint32_t StampInstancer_Populate(SyclQueue* queue, float* heights, float* ids, const float* stamps,
                                          stamp_instancer_Instance* instances,
                                          const stamp_instancer_Parameters* parameters, const HostCallbacks* callbacks);

/** Parameters of MedianFilter. 12 bytes. */
typedef struct median_filter_Parameters {
    uint32_t resolution; /**< cells per side, a multiple of 32 */
    int32_t radius;      /**< of the disc, in cells, from 1; above 8 it counts as 8 */
    uint32_t iterations; /**< how often the filter runs; 0 leaves the grid as it is, above 10000 it counts as 10000 */
} median_filter_Parameters;

/**
 * Smooths a square grid by a round median filter: each cell becomes the mean of the three middle samples of the disc
 * dx^2 + dy^2 <= radius^2 + 2 around it. Border cells repeat outwards. The samples are sorted with 1e8 behind them, so
 * values above that do not count as such. The mean is a multiplication by 0.333333, so level ground sinks by a
 * millionth.
 *
 * - data: in and out, resolution * resolution cells. Infinite heights are sorted like any others. Around a NaN, up to
 *   `radius` cells away, the samples are not sorted out, and the result may be any of them or NaN.
 *
 * Always returns 0, and takes no callbacks: with arguments that cannot run (a null pointer, a radius below 1, a
 * resolution that is 0, no multiple of 32 or above 46336) the grid stays as it is. A C++ exception of the SYCL runtime
 * leaves this function.
 */
TARN_API uint32_t MedianFilter(SyclQueue* queue, float* data, const median_filter_Parameters* parameters);

/** Parameters of Cellular3D_Render. 56 bytes. */
typedef struct Cellular3D_Parameters {
    int32_t grid_width;
    int32_t grid_height;
    float cell_density; /**< lattice cells per unit of extent_x and extent_y, above 0; above 512 it counts as 512 */
    /**
     * How far a cell's faces draw back, in lattice units; from 1 on no cell is left. Below 0 they move outwards, and
     * cells overlap.
     */
    float gap;
    float extent_x; /**< width of the block in units, above 0 */
    float extent_y; /**< depth of the block in units, above 0 */
    float extent_z; /**< factor on the block's height */
    /**
     * Jitter of the points as a fraction of a lattice cell; 1 spreads them over the whole cell. Outside -1 to 1 points
     * leave their cells; faces are still drawn against the 26 neighbours alone, so that cells may overlap.
     */
    float jitter_x;
    float jitter_y; /**< as jitter_x */
    float jitter_z;
    uint32_t seed; /**< any value */
    float z_unit;  /**< a height of 1.0 is z_range * cell_density * extent_z / z_unit lattice cells; not 0 */
    float z_range;
    uint32_t hash_variant; /**< 0: linear congruential random numbers; else xorshift (Marsaglia, 2003) */
} Cellular3D_Parameters;

/**
 * Rebuilds a terrain out of three-dimensional Voronoi cells (Worley, 1996): a jittered lattice of points fills the
 * space over the grid, the cells of the points below the input heights become solid, and the new height is the top of
 * the highest solid cell.
 *
 * - queue, height, random: not null; else status_failed, with nothing called back.
 * - height: in and out; from 0.0 to 1.0, which is where the block ends: ground above is cut off about two lattice
 *   cells higher. 0.0 comes back where no cell is solid. NaN counts as the lowest ground, for the cells whose points
 * lie over it.
 * - gap_factor: in, or null; factor on `gap` at each cell; NaN leaves no cell there.
 * - random: out; a random number from 0 to 1 of the cell that gave the height, 0.0 where none did.
 * - parameters: rewritten: cell_density comes back as it was used: at most 512, and lower where the lattice would have
 *   more than 1e8 cells. The lattice has about as many then, and more if the block is but a few cells thick.
 *
 * Refused: extents and a cell_density that are not above 0, a block without height (z_range * extent_z / z_unit above
 * 0), numbers that are not finite, and a block so flat or so thin that its lattice has more than 2^31 - 1 cells at the
 * lowered cell_density too. A lattice that is larger than the memory of a CPU's machine gives status_out_of_memory and
 * one line, before anything is touched.
 *
 * Status 0, 2 or 3: reports progress(0.0) only and cannot be cancelled. Need: 24 * (x + 5) * (y + 5) * (z + 5) bytes,
 * x, y and z being the block's size in lattice cells, and 12 per cell of the grid; or what the run takes, where that is
 * more: 24 bytes per cell of the lattice, 8 per column of it and 12 per cell of the grid.
 */
TARN_API uint32_t Cellular3D_Render(SyclQueue* queue, float* height, const float* gap_factor, float* random,
                                    Cellular3D_Parameters* parameters, const HostCallbacks* callbacks);

#ifdef __cplusplus
}
#endif

/* ---------------------------------------------------------------------------------------------------------------------
 * Layout of the records
 * ------------------------------------------------------------------------------------------------------------------ */

#if defined(__cplusplus)
#define TARN_LAYOUT_CHECK(condition) static_assert(condition, #condition)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define TARN_LAYOUT_CHECK(condition) _Static_assert(condition, #condition)
#else
#define TARN_LAYOUT_CHECK_NAME(line) tarn_layout_check_##line
#define TARN_LAYOUT_CHECK_AT(condition, line) typedef char TARN_LAYOUT_CHECK_NAME(line)[(condition) ? 1 : -1]
#define TARN_LAYOUT_CHECK(condition) TARN_LAYOUT_CHECK_AT(condition, __LINE__)
#endif
#define TARN_SIZE(record, bytes) TARN_LAYOUT_CHECK(sizeof(record) == (bytes))
#define TARN_FIELD(record, field, offset) TARN_LAYOUT_CHECK(offsetof(record, field) == (offset))

#if UINTPTR_MAX > 0xFFFFFFFF
TARN_SIZE(HostCallbacks, 64);
TARN_FIELD(HostCallbacks, progress, 0);
TARN_FIELD(HostCallbacks, is_cancelled, 8);
TARN_FIELD(HostCallbacks, log_info, 16);
TARN_FIELD(HostCallbacks, reserved_1, 24);
TARN_FIELD(HostCallbacks, log_error, 32);
TARN_FIELD(HostCallbacks, acquire_memory, 40);
TARN_FIELD(HostCallbacks, release_memory, 48);
TARN_FIELD(HostCallbacks, reserved_2, 56);
#endif

TARN_SIZE(TarnInt2, 8);
TARN_FIELD(TarnInt2, x, 0);
TARN_FIELD(TarnInt2, y, 4);

TARN_SIZE(TarnFloat2, 8);
TARN_FIELD(TarnFloat2, x, 0);
TARN_FIELD(TarnFloat2, y, 4);

TARN_SIZE(TarnFloat3, 16);
TARN_FIELD(TarnFloat3, x, 0);
TARN_FIELD(TarnFloat3, y, 4);
TARN_FIELD(TarnFloat3, z, 8);
TARN_FIELD(TarnFloat3, padding, 12);

TARN_SIZE(TarnUint3, 16);
TARN_FIELD(TarnUint3, x, 0);
TARN_FIELD(TarnUint3, y, 4);
TARN_FIELD(TarnUint3, z, 8);
TARN_FIELD(TarnUint3, padding, 12);

#if UINTPTR_MAX > 0xFFFFFFFF
TARN_SIZE(DeviceInfo, 56);
TARN_FIELD(DeviceInfo, reserved_text, 0);
TARN_FIELD(DeviceInfo, kind, 8);
TARN_FIELD(DeviceInfo, backend, 16);
TARN_FIELD(DeviceInfo, vendor, 24);
TARN_FIELD(DeviceInfo, name, 32);
TARN_FIELD(DeviceInfo, vendor_id, 40);
TARN_FIELD(DeviceInfo, reserved_flag, 48);
TARN_FIELD(DeviceInfo, needs_driver_update, 49);
#endif

TARN_SIZE(thermal_shaper_Parameters, 32);
TARN_FIELD(thermal_shaper_Parameters, width, 0);
TARN_FIELD(thermal_shaper_Parameters, height, 4);
TARN_FIELD(thermal_shaper_Parameters, level_divisor, 8);
TARN_FIELD(thermal_shaper_Parameters, scale_numerator, 12);
TARN_FIELD(thermal_shaper_Parameters, level_multiplier, 16);
TARN_FIELD(thermal_shaper_Parameters, blend, 20);
TARN_FIELD(thermal_shaper_Parameters, rate, 24);
TARN_FIELD(thermal_shaper_Parameters, detail_gain, 28);

TARN_SIZE(thermal_Parameters, 44);
TARN_FIELD(thermal_Parameters, width, 0);
TARN_FIELD(thermal_Parameters, height, 4);
TARN_FIELD(thermal_Parameters, duration, 8);
TARN_FIELD(thermal_Parameters, erosion_rate, 12);
TARN_FIELD(thermal_Parameters, curvature_bias, 16);
TARN_FIELD(thermal_Parameters, repose_angle, 20);
TARN_FIELD(thermal_Parameters, feature_size, 24);
TARN_FIELD(thermal_Parameters, terrain_size, 28);
TARN_FIELD(thermal_Parameters, terrain_height, 32);
TARN_FIELD(thermal_Parameters, absorption, 36);
TARN_FIELD(thermal_Parameters, use_erosion_mask, 40);
TARN_FIELD(thermal_Parameters, use_absorption_mask, 41);

TARN_SIZE(parallel_erosion_Resolution, 8);
TARN_FIELD(parallel_erosion_Resolution, width, 0);
TARN_FIELD(parallel_erosion_Resolution, height, 4);

TARN_SIZE(parallel_erosion_Parameters, 84);
TARN_FIELD(parallel_erosion_Parameters, Resolution, 0);
TARN_FIELD(parallel_erosion_Parameters, terrain_size, 8);
TARN_FIELD(parallel_erosion_Parameters, terrain_height, 12);
TARN_FIELD(parallel_erosion_Parameters, feature_size, 16);
TARN_FIELD(parallel_erosion_Parameters, reserved_1, 20);
TARN_FIELD(parallel_erosion_Parameters, iterations, 24);
TARN_FIELD(parallel_erosion_Parameters, reserved_2, 28);
TARN_FIELD(parallel_erosion_Parameters, seed, 32);
TARN_FIELD(parallel_erosion_Parameters, erosion_strength, 36);
TARN_FIELD(parallel_erosion_Parameters, reserved_3, 40);
TARN_FIELD(parallel_erosion_Parameters, shaping_strength, 44);
TARN_FIELD(parallel_erosion_Parameters, shaping_sharpness, 48);
TARN_FIELD(parallel_erosion_Parameters, shaping_detail, 52);
TARN_FIELD(parallel_erosion_Parameters, fill_slope_scale, 56);
TARN_FIELD(parallel_erosion_Parameters, fill_angle, 60);
TARN_FIELD(parallel_erosion_Parameters, plain_deposition, 64);
TARN_FIELD(parallel_erosion_Parameters, plain_angle, 68);
TARN_FIELD(parallel_erosion_Parameters, terrace_deposition, 72);
TARN_FIELD(parallel_erosion_Parameters, terrace_angle, 76);
TARN_FIELD(parallel_erosion_Parameters, constant_capacity, 80);

TARN_SIZE(arrakis_Parameters, 36);
TARN_FIELD(arrakis_Parameters, width, 0);
TARN_FIELD(arrakis_Parameters, height, 4);
TARN_FIELD(arrakis_Parameters, duration, 8);
TARN_FIELD(arrakis_Parameters, reserved_1, 12);
TARN_FIELD(arrakis_Parameters, reserved_2, 16);
TARN_FIELD(arrakis_Parameters, repose_angle, 20);
TARN_FIELD(arrakis_Parameters, feature_size, 24);
TARN_FIELD(arrakis_Parameters, terrain_size, 28);
TARN_FIELD(arrakis_Parameters, terrain_height, 32);

TARN_SIZE(debris_Parameters, 48);
TARN_FIELD(debris_Parameters, resolution, 0);
TARN_FIELD(debris_Parameters, terrain_size, 4);
TARN_FIELD(debris_Parameters, terrain_height, 8);
TARN_FIELD(debris_Parameters, count, 12);
TARN_FIELD(debris_Parameters, max_size, 16);
TARN_FIELD(debris_Parameters, min_size, 20);
TARN_FIELD(debris_Parameters, friction, 24);
TARN_FIELD(debris_Parameters, restitution, 28);
TARN_FIELD(debris_Parameters, reserved, 32);
TARN_FIELD(debris_Parameters, draw_unmoved, 36);
TARN_FIELD(debris_Parameters, favour_small, 40);
TARN_FIELD(debris_Parameters, seed, 44);

TARN_SIZE(flow_Parameters, 20);
TARN_FIELD(flow_Parameters, width, 0);
TARN_FIELD(flow_Parameters, height, 4);
TARN_FIELD(flow_Parameters, flow_length, 8);
TARN_FIELD(flow_Parameters, spread, 12);
TARN_FIELD(flow_Parameters, seed, 16);

TARN_SIZE(color_transport_Parameters, 36);
TARN_FIELD(color_transport_Parameters, width, 0);
TARN_FIELD(color_transport_Parameters, height, 4);
TARN_FIELD(color_transport_Parameters, flow_length, 8);
TARN_FIELD(color_transport_Parameters, persistence, 12);
TARN_FIELD(color_transport_Parameters, blend, 16);
TARN_FIELD(color_transport_Parameters, spread, 20);
TARN_FIELD(color_transport_Parameters, transport, 24);
TARN_FIELD(color_transport_Parameters, straight_trails, 28);
TARN_FIELD(color_transport_Parameters, seed, 32);

TARN_SIZE(lighting_Resolution, 8);
TARN_FIELD(lighting_Resolution, width, 0);
TARN_FIELD(lighting_Resolution, height, 4);

TARN_SIZE(lighting_Parameters, 120);
TARN_FIELD(lighting_Parameters, resolution, 0);
TARN_FIELD(lighting_Parameters, terrain_size, 8);
TARN_FIELD(lighting_Parameters, terrain_height, 12);
TARN_FIELD(lighting_Parameters, sun_direction, 16);
TARN_FIELD(lighting_Parameters, sun_rings, 28);
TARN_FIELD(lighting_Parameters, sun_diameter, 32);
TARN_FIELD(lighting_Parameters, hybrid_ao, 36);
TARN_FIELD(lighting_Parameters, ao_subdivisions, 40);
TARN_FIELD(lighting_Parameters, hybrid_ao_subdivisions, 44);
TARN_FIELD(lighting_Parameters, hybrid_ao_levels, 48);
TARN_FIELD(lighting_Parameters, exposure, 52);
TARN_FIELD(lighting_Parameters, sun_intensity, 56);
TARN_FIELD(lighting_Parameters, ambient_intensity, 60);
TARN_FIELD(lighting_Parameters, sun_color, 64);
TARN_FIELD(lighting_Parameters, ambient_color, 76);
TARN_FIELD(lighting_Parameters, albedo, 88);
TARN_FIELD(lighting_Parameters, first_day, 92);
TARN_FIELD(lighting_Parameters, last_day, 96);
TARN_FIELD(lighting_Parameters, latitude, 100);
TARN_FIELD(lighting_Parameters, north_offset, 104);
TARN_FIELD(lighting_Parameters, haze, 108);
TARN_FIELD(lighting_Parameters, direct_light, 112);
TARN_FIELD(lighting_Parameters, ambient_light, 113);
TARN_FIELD(lighting_Parameters, shadows, 114);
TARN_FIELD(lighting_Parameters, ambient_occlusion, 115);
TARN_FIELD(lighting_Parameters, ao_supplied, 116);

TARN_SIZE(mesh_rasterizer_Parameters, 56);
TARN_FIELD(mesh_rasterizer_Parameters, resolution, 0);
TARN_FIELD(mesh_rasterizer_Parameters, point_count, 8);
TARN_FIELD(mesh_rasterizer_Parameters, vertical_scale, 12);
TARN_FIELD(mesh_rasterizer_Parameters, rotation_x, 16);
TARN_FIELD(mesh_rasterizer_Parameters, rotation_y, 20);
TARN_FIELD(mesh_rasterizer_Parameters, rotation_z, 24);
TARN_FIELD(mesh_rasterizer_Parameters, scale, 28);
TARN_FIELD(mesh_rasterizer_Parameters, offset_x, 32);
TARN_FIELD(mesh_rasterizer_Parameters, offset_y, 36);
TARN_FIELD(mesh_rasterizer_Parameters, offset_z, 40);
TARN_FIELD(mesh_rasterizer_Parameters, displacement_amount, 44);
TARN_FIELD(mesh_rasterizer_Parameters, displacement_bias, 48);
TARN_FIELD(mesh_rasterizer_Parameters, horizontal_displacement, 52);
TARN_FIELD(mesh_rasterizer_Parameters, rest_on_floor, 53);
TARN_FIELD(mesh_rasterizer_Parameters, supersample, 54);

#if UINTPTR_MAX > 0xFFFFFFFF
TARN_SIZE(mesh_rasterizer_MeshView, 40);
TARN_FIELD(mesh_rasterizer_MeshView, vertices, 0);
TARN_FIELD(mesh_rasterizer_MeshView, vertex_count, 8);
TARN_FIELD(mesh_rasterizer_MeshView, triangles, 16);
TARN_FIELD(mesh_rasterizer_MeshView, triangle_count, 24);
TARN_FIELD(mesh_rasterizer_MeshView, normals, 32);
#endif

TARN_SIZE(stamp_instancer_Instance, 16);
TARN_FIELD(stamp_instancer_Instance, position, 0);
TARN_FIELD(stamp_instancer_Instance, stamp, 8);
TARN_FIELD(stamp_instancer_Instance, height, 12);

TARN_SIZE(stamp_instancer_Parameters, 28);
TARN_FIELD(stamp_instancer_Parameters, width, 0);
TARN_FIELD(stamp_instancer_Parameters, height, 4);
TARN_FIELD(stamp_instancer_Parameters, stamps_width, 8);
TARN_FIELD(stamp_instancer_Parameters, stamps_height, 12);
TARN_FIELD(stamp_instancer_Parameters, stamp_width, 16);
TARN_FIELD(stamp_instancer_Parameters, stamp_height, 20);
TARN_FIELD(stamp_instancer_Parameters, instance_count, 24);

TARN_SIZE(median_filter_Parameters, 12);
TARN_FIELD(median_filter_Parameters, resolution, 0);
TARN_FIELD(median_filter_Parameters, radius, 4);
TARN_FIELD(median_filter_Parameters, iterations, 8);

TARN_SIZE(Cellular3D_Parameters, 56);
TARN_FIELD(Cellular3D_Parameters, grid_width, 0);
TARN_FIELD(Cellular3D_Parameters, grid_height, 4);
TARN_FIELD(Cellular3D_Parameters, cell_density, 8);
TARN_FIELD(Cellular3D_Parameters, gap, 12);
TARN_FIELD(Cellular3D_Parameters, extent_x, 16);
TARN_FIELD(Cellular3D_Parameters, extent_y, 20);
TARN_FIELD(Cellular3D_Parameters, extent_z, 24);
TARN_FIELD(Cellular3D_Parameters, jitter_x, 28);
TARN_FIELD(Cellular3D_Parameters, jitter_y, 32);
TARN_FIELD(Cellular3D_Parameters, jitter_z, 36);
TARN_FIELD(Cellular3D_Parameters, seed, 40);
TARN_FIELD(Cellular3D_Parameters, z_unit, 44);
TARN_FIELD(Cellular3D_Parameters, z_range, 48);
TARN_FIELD(Cellular3D_Parameters, hash_variant, 52);
#undef TARN_FIELD
#undef TARN_SIZE
#undef TARN_LAYOUT_CHECK
#undef TARN_LAYOUT_CHECK_AT
#undef TARN_LAYOUT_CHECK_NAME
#undef TARN_ALIGNED

#endif /* TARN_ONEAPI_H */
