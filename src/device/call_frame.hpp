// The frame that every computing export runs in: probe the device's memory, tell the host how much memory the run
// takes, run the work inside an exception barrier, wait for the device, turn what happened into a status, give the
// memory back. What the exports do differently is data, in `frames` below.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

#include "device/callbacks.hpp"

namespace tarn {

/// How an export waits for the device after its work.
enum class FinalWait {
    throwing, ///< wait_and_throw: late device errors reach the handler
    plain,    ///< wait: late device errors stay in the queue
    none,     ///< no wait beyond the one in the buffers' destructors
};

/// What one export does at the steps where exports differ.
struct ExportFrame {
    const char* name;
    /// Device memory that a run needs for each cell of its grid; 0 where the export has a formula of its own.
    std::uint64_t bytes_per_cell = 0;
    bool probe = true;
    bool acquire = true;
    bool barrier = true;
    FinalWait final_wait = FinalWait::throwing;
    /// A cancelled run ends with status_cancelled.
    bool cancel_shows = false;
    /// An asynchronous device error ends with status_failed.
    bool failure_shows = true;
    bool logs_execution_time = false;
};

namespace frames {
inline constexpr ExportFrame thermal_shaper_process{.name = "ThermalShaper_Process"};
inline constexpr ExportFrame thermal_simulation{
    .name = "ThermalSimulation", .bytes_per_cell = 68, .cancel_shows = true};
inline constexpr ExportFrame dune_simulation{
    .name = "DuneSimulation", .bytes_per_cell = 68, .logs_execution_time = true};
inline constexpr ExportFrame parallel_erosion_simulation{
    .name = "ParallelErosionSimulation", .bytes_per_cell = 20, .cancel_shows = true};
inline constexpr ExportFrame flow_simulation{.name = "FlowSimulation", .bytes_per_cell = 28, .cancel_shows = true};
inline constexpr ExportFrame color_transport_simulation{
    .name = "ColorTransportSimulation", .bytes_per_cell = 64, .cancel_shows = true};
inline constexpr ExportFrame shade{.name = "Shade", .bytes_per_cell = 72, .cancel_shows = true};
inline constexpr ExportFrame sun_light_integral{.name = "SunLightIntegral", .bytes_per_cell = 72, .acquire = false};
inline constexpr ExportFrame cellular3d_render{.name = "Cellular3D_Render"};
inline constexpr ExportFrame stamp_instancer_populate{.name = "StampInstancer_Populate"};
inline constexpr ExportFrame compute_tangent_space_normals{.name = "MeshRasterizer_ComputeTangentSpaceNormals"};
inline constexpr ExportFrame render_mesh{.name = "MeshRasterizer_RenderMesh"};
inline constexpr ExportFrame render_mesh_with_triplanar_displacement{
    .name = "MeshRasterizer_RenderMeshWithTriplanarDisplacement"};
inline constexpr ExportFrame render_point_cloud{.name = "MeshRasterizer_RenderPointCloud"};
inline constexpr ExportFrame debris_simulation{.name = "DebrisSimulation",
                                               .probe = false,
                                               .acquire = false,
                                               .barrier = false,
                                               .final_wait = FinalWait::plain,
                                               .failure_shows = false};
inline constexpr ExportFrame median_filter{.name = "MedianFilter",
                                           .probe = false,
                                           .acquire = false,
                                           .barrier = false,
                                           .final_wait = FinalWait::none,
                                           .failure_shows = false};
} // namespace frames

/// As call_frame below, for work that is called through a reference.
std::uint32_t run_in_frame(const ExportFrame& frame, sycl::queue& queue, ModuleCallbacks& module,
                           const HostCallbacks* callbacks, std::uint64_t need, const std::function<bool()>& work);

/// Runs an export's `work` in its frame and returns the status. `need` is the device memory of the run in bytes. `work`
/// builds the simulation object, runs it, destroys it (which writes the results back) and returns whether the host
/// cancelled it. `callbacks` is copied into the module's record; it is null only for an export that takes none.
template <class Work>
std::uint32_t call_frame(const ExportFrame& frame, sycl::queue& queue, ModuleCallbacks& module,
                         const HostCallbacks* callbacks, std::uint64_t need, Work work) {
    // By reference: a std::function that holds the work itself may have to allocate, outside the barrier.
    return run_in_frame(frame, queue, module, callbacks, need, std::ref(work));
}

/// True if `need` bytes and a reserve of 256 MiB can be allocated on the queue's device now. Always true on a CPU.
/// Leaves `allocation_probe_active` set: a late error of the trial must not count as a failure of the run.
bool is_memory_sufficient(sycl::queue& queue, std::uint64_t need);

/// The error handler of every queue: sets `failure_flag` and logs a line for each asynchronous error, or drops them all
/// while an allocation is under way that may fail.
void handle_asynchronous_errors(const sycl::exception_list& errors);

/// The device's name for messages.
std::string device_display_name(sycl::queue& queue);

/// The text for the device's back end: "OpenCL", "Level Zero", "CUDA", "HIP", "Native" or "Unknown".
std::string backend_name(const sycl::device& device);

} // namespace tarn
