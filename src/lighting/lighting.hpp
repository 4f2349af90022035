// Lighting: a height grid rendered into a lit image, with the sun's shadows and the occlusion of the sky, and a sum of
// the sunlight that it receives over a span of days.
#pragma once

#include <memory>

#include <sycl/sycl.hpp>

#include "device/progress_tracker.hpp"
#include "lighting/parameters.hpp"
#include "lighting/rays.hpp"
#include "lighting/sweep.hpp"

namespace tarn::lighting {

/// Makes the normals of a grid and clears its photon map. The parameters' resolution is that of the grid.
void compute_normals_and_init_photonmap(const Parameters& parameters, Grid& heights, PhotonMap& photonmap,
                                        NormalGrid& normals, sycl::queue& queue);

/// Ambient occlusion of a grid: 1 under a free sky. The photon map comes in clear, and keeps the sums.
void raytrace_ao(const Parameters& parameters, Grid& heights, NormalGrid& normals, Grid& ao, PhotonMap& photonmap,
                 const AmbientRays& rays, sycl::queue& queue);

/// The same with weighted rays, and a scale of the caller's for the sums, which are not clamped.
void raytrace_ao_sl(const Parameters& parameters, Grid& heights, NormalGrid& normals, Grid& result,
                    PhotonMap& photonmap, const SunSamples& samples, sycl::queue& queue);

/// Sums the sunlight of a span of days, traced at half the size, into `result`.
void sun_light_integral(const Parameters& parameters, const float* heights, float* result, sycl::queue& queue);

/// One level of the pyramid that hybrid ambient occlusion is traced on.
struct LaplacianLevel {
    /// The finest level.
    LaplacianLevel(sycl::queue& level_queue, Grid level_heights, Grid level_normal_z, Grid level_ao);
    /// The next coarser level, half the size rounded down.
    LaplacianLevel(sycl::queue& level_queue, LaplacianLevel& finer);

    /// Brings the occlusion up to the parent. At the finest level it also gets what its own relief adds.
    void reconstruct(const Parameters& parameters);

    sycl::queue* queue;
    sycl::range<2> extent;
    /// The next finer level; null at the finest.
    LaplacianLevel* parent;
    Grid heights;
    /// The heights without the relief that is too fine for the coarsest level. There it is `heights` itself.
    Grid smooth_heights;
    /// Only at the finest level.
    Grid normal_z;
    Grid ao;
};

/// The caller's grids. The albedo may be null, and so may what no stage of the run writes.
struct CallerGrids {
    const float* heights;
    float* diffuse;
    float* shadow;
    float* ao;
    float* red;
    float* green;
    float* blue;
    const float* albedo_red;
    const float* albedo_green;
    const float* albedo_blue;

    bool has_albedo() const { return albedo_red != nullptr && albedo_green != nullptr && albedo_blue != nullptr; }
};

/// Which stages a run has.
struct Stages {
    explicit Stages(const Parameters& p)
        : diffuse(p.direct_light != 0), shadows(diffuse && p.shadows != 0),
          reads_ao(p.ambient_light != 0 && p.ambient_occlusion != 0), traces_ao(reads_ao && p.ao_supplied == 0) {}

    bool diffuse;
    bool shadows;
    bool reads_ao;
    bool traces_ao;
};

/// Subdivisions of the sphere of ambient rays that a run asks for.
inline int ambient_subdivisions(const Parameters& p) {
    return p.hybrid_ao != 0 ? p.hybrid_ao_subdivisions : p.ao_subdivisions;
}

class LightingSYCL {
  public:
    /// Reports 0 %, then takes the caller's grids in; they receive the results when the object ends.
    LightingSYCL(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
                 const CallerGrids& grids);

    void run();

  private:
    void compute_diffuse_light();
    void direct_sun_rays();
    void direct_ambient_rays();
    void raytrace_shadows();
    void compute_hybrid_ao();
    void compose_light();

    ProgressTracker tracker_;
    sycl::queue queue_;
    Parameters parameters_;
    Stages stages_;
    sycl::range<2> extent_;
    Grid heights_;
    Grid red_, green_, blue_;
    Grid albedo_red_, albedo_green_, albedo_blue_;
    NormalGrid normals_;
    Grid diffuse_;
    Grid shadow_;
    /// Credits of the rays that reach a cell, summed up.
    PhotonMap photonmap_;
    Grid ao_;
    std::vector<Ray> sun_rays_;
    AmbientRays ambient_rays_;
    bool has_albedo_;
};

} // namespace tarn::lighting
