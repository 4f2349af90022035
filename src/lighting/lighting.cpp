#include "lighting/lighting.hpp"

#include <algorithm>
#include <deque>
#include <future>
#include <system_error>
#include <utility>

#include "device/backend.hpp"
#include "grid/access.hpp"
#include "grid/launch_cells.hpp"
#include "grid/resampling.hpp"
#include "grid/upsample.hpp"
#include "lighting/lighting_kernels.hpp"

namespace tarn::lighting {

namespace {

/// Calls `cell(i)` with the index of every cell.
template <class Cell>
void launch_indices(sycl::handler& handler, sycl::queue& queue, const sycl::range<2>& extent, Cell cell) {
    launch_cells(launch_on(handler, queue), Extent<2>(extent), 0,
                 [=, columns = static_cast<std::ptrdiff_t>(extent[1])](int x, int y, auto) { cell(y * columns + x); });
}

sycl::range<2> extent_of(const Resolution& resolution) {
    return {static_cast<std::size_t>(resolution.height), static_cast<std::size_t>(resolution.width)};
}

sycl::range<2> half(const sycl::range<2>& extent) {
    return {extent[0] >> 1, extent[1] >> 1};
}

/// The parameters for a grid of another size that covers the same ground.
Parameters resized(const Parameters& parameters, const sycl::range<2>& extent) {
    Parameters result = parameters;
    result.resolution = {static_cast<std::int32_t>(extent[1]), static_cast<std::int32_t>(extent[0])};
    return result;
}

/// Starts a task beside this thread. Where no thread can be had, it runs when its result is asked for.
template <class Task>
std::future<void> start(Task task) {
    if (!has_threads)
        return std::async(std::launch::deferred, task);
    try {
        return std::async(std::launch::async, task);
    } catch (const std::system_error&) {
        return std::async(std::launch::deferred, task);
    }
}

struct Colour {
    float red;
    float green;
    float blue;
};

Colour scaled(float factor, const float (&colour)[3]) {
    return {factor * colour[0], factor * colour[1], factor * colour[2]};
}

} // namespace

void compute_normals_and_init_photonmap(const Parameters& p, Grid& heights, PhotonMap& photonmap, NormalGrid& normals,
                                        sycl::queue& queue) {
    const int columns = p.resolution.width, rows = p.resolution.height;
    const NormalScale scale{-p.terrain_height, p.terrain_height, p.terrain_size * 32.0f / static_cast<float>(columns)};
    queue.submit([&](sycl::handler& handler) {
        const auto ground = read(heights, handler);
        const auto photons = overwrite(photonmap, handler);
        const auto normal_x = overwrite(normals.x, handler), normal_y = overwrite(normals.y, handler),
                   normal_z = overwrite(normals.z, handler);
        launch_with_neighbours(
            launch_on(handler, queue), Extent<2>(heights.get_range()), [=](int x, int y, auto interior) {
                const std::ptrdiff_t i = static_cast<std::ptrdiff_t>(y) * columns + x;
                const Normal n = normal_at(neighbourhood<interior.value>(cells_of(ground), columns, rows, x, y), scale);
                cells_of(normal_x)[i] = n.x;
                cells_of(normal_y)[i] = n.y;
                cells_of(normal_z)[i] = n.z;
                cells_of(photons)[i] = 0;
            });
    });
}

void raytrace_ao(const Parameters& parameters, Grid& heights, NormalGrid& normals, Grid& ao, PhotonMap& photonmap,
                 const AmbientRays& rays, sycl::queue& queue) {
    sweep_sky(parameters, heights, normals, photonmap, rays.rays, queue);
    // Under a free sky the credits come to a quarter of the sphere's vertices.
    const float scale = 1.5258789e-05f / static_cast<float>(rays.total);
    queue.submit([&](sycl::handler& handler) {
        const auto photons = read(photonmap, handler);
        const auto out = overwrite(ao, handler);
        launch_indices(handler, queue, ao.get_range(), [=](std::ptrdiff_t i) {
            cells_of(out)[i] = maximum(static_cast<float>(cells_of(photons)[i]) * scale, 0.0f);
        });
    });
}

void raytrace_ao_sl(const Parameters& parameters, Grid& heights, NormalGrid& normals, Grid& result,
                    PhotonMap& photonmap, const SunSamples& samples, sycl::queue& queue) {
    sweep_sky(parameters, heights, normals, photonmap, samples.rays, queue);
    // Samples below the horizon count as darkness.
    const float scale = 0.67f / static_cast<float>(samples.total << 16);
    queue.submit([&](sycl::handler& handler) {
        const auto photons = read(photonmap, handler);
        const auto out = overwrite(result, handler);
        launch_indices(handler, queue, result.get_range(),
                       [=](std::ptrdiff_t i) { cells_of(out)[i] = static_cast<float>(cells_of(photons)[i]) * scale; });
    });
}

void sun_light_integral(const Parameters& parameters, const float* heights, float* result, sycl::queue& queue) {
    const sycl::range<2> extent = extent_of(parameters.resolution);
    Grid full_heights = create_input(heights, extent, queue);
    Grid full_result = create_buffer(result, extent, queue, true);
    const SunSamples samples = sun_samples(parameters);

    Grid half_heights = resampling::downsample_magic(full_heights, queue);
    const sycl::range<2> half_extent = half_heights.get_range();
    const Parameters half_parameters = resized(parameters, half_extent);
    NormalGrid half_normals(half_extent);
    PhotonMap half_photonmap(half_extent);
    Grid half_result(half_extent);
    compute_normals_and_init_photonmap(half_parameters, half_heights, half_photonmap, half_normals, queue);
    raytrace_ao_sl(half_parameters, half_heights, half_normals, half_result, half_photonmap, samples, queue);
    queue.submit([&](sycl::handler& handler) {
        const auto coarse = read(half_result, handler);
        const auto out = overwrite(full_result, handler);
        launch_upsampled(launch_on(handler, queue), Extent<2>(extent), coarse, Extent<2>(half_extent),
                         [=](std::ptrdiff_t row, int x, float up) { cells_of(out)[row + x] = maximum(up, 0.0f); });
    });
}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, Grid level_heights, Grid level_normal_z, Grid level_ao)
    : queue(&level_queue), extent(level_heights.get_range()), parent(nullptr), heights(std::move(level_heights)),
      smooth_heights(extent), normal_z(std::move(level_normal_z)), ao(std::move(level_ao)) {}

LaplacianLevel::LaplacianLevel(sycl::queue& level_queue, LaplacianLevel& finer)
    : queue(&level_queue), extent(half(finer.extent)), parent(&finer),
      heights(resampling::downsample_magic(finer.heights, level_queue)), smooth_heights(extent),
      normal_z(sycl::range<2>(1, 1)), ao(extent) {
    const int columns = static_cast<int>(finer.extent[1]), rows = static_cast<int>(finer.extent[0]);
    queue->submit([&](sycl::handler& handler) {
        const auto fine = read(finer.heights, handler);
        const auto coarse = update(heights, handler);
        launch_pieces_with_neighbours(
            launch_on(handler, *queue), Extent<2>(extent),
            [=, width = static_cast<std::ptrdiff_t>(extent[1])](int first, int last, int y, auto) {
                float* const row = cells_of(coarse) + y * width;
                int holes = 0; // counted first, since rows without a hole are then gone through as vectors
                for (int x = first; x < last; ++x)
                    holes += is_finite(row[x]) ? 0 : 1;
                for (int x = first; x < last && holes > 0; ++x)
                    if (!is_finite(row[x]))
                        row[x] = mean_of_finite(cells_of(fine), x, y, columns, rows);
            });
    });
}

void LaplacianLevel::reconstruct(const Parameters& p) {
    LaplacianLevel& fine = *parent;
    queue->submit([&](sycl::handler& handler) {
        const auto coarse_ao = read(ao, handler), coarse_heights = read(smooth_heights, handler);
        const auto fine_ao = overwrite(fine.ao, handler), fine_heights = overwrite(fine.smooth_heights, handler);
        launch_fine_cells(launch_on(handler, *queue), Extent<2>(fine.extent), Extent<2>(extent),
                          [=](std::ptrdiff_t row, int x, const CoarseTaps& taps) {
                              cells_of(fine_ao)[row + x] = sample_9331(cells_of(coarse_ao), taps);
                              cells_of(fine_heights)[row + x] = sample_9331(cells_of(coarse_heights), taps);
                          });
    });
    if (fine.parent != nullptr)
        return;

    const float coarse_width = static_cast<float>(extent[1]), per_size = 1.0f / p.terrain_size;
    const DetailScale scale{coarse_width * p.terrain_height * per_size,
                            coarse_width * p.terrain_height * 0.04f * per_size,
                            maximum(static_cast<float>(p.hybrid_ao_levels - 1) * 0.3f, 0.0f)};
    const int columns = static_cast<int>(fine.extent[1]), rows = static_cast<int>(fine.extent[0]);
    queue->submit([&](sycl::handler& handler) {
        const auto ground = read(fine.heights, handler), smooth = read(fine.smooth_heights, handler);
        const auto slope = read(fine.normal_z, handler);
        const auto occlusion = update(fine.ao, handler);
        launch_with_neighbours(launch_on(handler, *queue), Extent<2>(fine.extent), [=](int x, int y, auto interior) {
            const std::ptrdiff_t i = static_cast<std::ptrdiff_t>(y) * columns + x;
            const float factor = detail_factor(neighbourhood<interior.value>(cells_of(ground), columns, rows, x, y),
                                               cells_of(smooth)[i], cells_of(slope)[i], scale);
            cells_of(occlusion)[i] = minimum(cells_of(occlusion)[i] * factor, 1.0f);
        });
    });
}

LightingSYCL::LightingSYCL(const Parameters& parameters, sycl::queue& caller_queue, const HostCallbacks& record,
                           const CallerGrids& grids)
    : tracker_(record, caller_queue), queue_(caller_queue), parameters_(parameters), stages_(parameters),
      extent_(extent_of(parameters.resolution)), heights_(create_input(grids.heights, extent_, queue_)),
      red_(create_buffer(grids.red, extent_, queue_, true)), green_(create_buffer(grids.green, extent_, queue_, true)),
      blue_(create_buffer(grids.blue, extent_, queue_, true)),
      albedo_red_(create_input(grids.albedo_red, extent_, queue_)),
      albedo_green_(create_input(grids.albedo_green, extent_, queue_)),
      albedo_blue_(create_input(grids.albedo_blue, extent_, queue_)), normals_(extent_),
      diffuse_(create_buffer(stages_.diffuse ? grids.diffuse : nullptr, extent_, queue_, true)),
      shadow_(create_buffer(stages_.shadows ? grids.shadow : nullptr, extent_, queue_, true)), photonmap_(extent_),
      ao_(create_buffer(stages_.reads_ao ? grids.ao : nullptr, extent_, queue_, stages_.traces_ao)),
      has_albedo_(grids.has_albedo()) {}

void LightingSYCL::run() {
    // The host builds the tables of rays while the device works on the normals. A failure of either shows at its get.
    std::future<void> surface = start([this] {
        compute_normals_and_init_photonmap(parameters_, heights_, photonmap_, normals_, queue_);
        if (stages_.diffuse)
            compute_diffuse_light();
    });
    std::future<void> tables = start([this] {
        if (stages_.shadows)
            direct_sun_rays();
        if (stages_.traces_ao)
            direct_ambient_rays();
    });
    surface.get();
    tables.get();

    if (stages_.shadows)
        raytrace_shadows();
    if (stages_.traces_ao) {
        if (parameters_.hybrid_ao != 0)
            compute_hybrid_ao();
        else
            raytrace_ao(parameters_, heights_, normals_, ao_, photonmap_, ambient_rays_, queue_);
    }
    compose_light();
}

void LightingSYCL::compute_diffuse_light() {
    const float sun_x = parameters_.sun_direction[0], sun_y = parameters_.sun_direction[1],
                sun_z = parameters_.sun_direction[2];
    queue_.submit([&](sycl::handler& handler) {
        const auto normal_x = read(normals_.x, handler), normal_y = read(normals_.y, handler),
                   normal_z = read(normals_.z, handler);
        const auto out = overwrite(diffuse_, handler);
        launch_indices(handler, queue_, extent_, [=](std::ptrdiff_t i) {
            cells_of(out)[i] = maximum(
                sun_x * cells_of(normal_x)[i] + sun_y * cells_of(normal_y)[i] + sun_z * cells_of(normal_z)[i], 0.0f);
        });
    });
}

void LightingSYCL::direct_sun_rays() {
    sun_rays_ = sun_rays(parameters_);
}

void LightingSYCL::direct_ambient_rays() {
    ambient_rays_ = ambient_rays(ambient_subdivisions(parameters_));
}

void LightingSYCL::raytrace_shadows() {
    const int overhead = sweep_sun(parameters_, heights_, photonmap_, sun_rays_, queue_);
    const float share = 1.0f / static_cast<float>(sun_rays_.size());
    queue_.submit([&](sycl::handler& handler) {
        const auto photons = update(photonmap_, handler);
        const auto out = overwrite(shadow_, handler);
        launch_indices(handler, queue_, extent_, [=](std::ptrdiff_t i) {
            cells_of(out)[i] = static_cast<float>(cells_of(photons)[i] + overhead) * share;
            cells_of(photons)[i] = 0;
        });
    });
}

void LightingSYCL::compute_hybrid_ao() {
    LaplacianLevel finest(queue_, heights_, normals_.z, ao_);
    std::deque<LaplacianLevel> coarser;
    LaplacianLevel* coarsest = &finest;
    for (int n = 1; n < parameters_.hybrid_ao_levels; ++n)
        coarsest = &coarser.emplace_back(queue_, *coarsest);

    const Parameters traced = resized(parameters_, coarsest->extent);
    PhotonMap photonmap(coarsest->extent);
    NormalGrid normals(coarsest->extent);
    compute_normals_and_init_photonmap(traced, coarsest->heights, photonmap, normals, queue_);
    raytrace_ao(traced, coarsest->heights, normals, coarsest->ao, photonmap, ambient_rays_, queue_);
    coarsest->smooth_heights = coarsest->heights;
    for (; !coarser.empty(); coarser.pop_back())
        coarser.back().reconstruct(parameters_);
}

void LightingSYCL::compose_light() {
    const Parameters& p = parameters_;
    const Colour sun = scaled(p.sun_intensity * p.exposure, p.sun_color);
    const Colour sky = scaled(p.exposure * p.ambient_intensity, p.ambient_color);
    const bool has_sun = p.direct_light != 0, has_sky = p.ambient_light != 0;
    // A stage that has not run counts as a constant. Its grid has one cell, which nothing reads.
    const float constant_visibility = has_sun ? 1.0f : 0.0f, constant_occlusion = has_sky ? 1.0f : 0.0f;
    queue_.submit([&](sycl::handler& handler) {
        const auto shadow = read(shadow_, handler), ao = read(ao_, handler), diffuse = read(diffuse_, handler);
        const auto red = overwrite(red_, handler), green = overwrite(green_, handler), blue = overwrite(blue_, handler);
        const auto compose = [&](auto albedo_of) {
            launch_indices(handler, queue_, extent_,
                           [=, has_shadow = stages_.shadows, has_ao = stages_.reads_ao](std::ptrdiff_t i) {
                               const float visibility = has_shadow ? cells_of(shadow)[i] : constant_visibility;
                               const float occlusion = has_ao ? cells_of(ao)[i] : constant_occlusion;
                               const float cosine = has_sun ? cells_of(diffuse)[i] : 1.0f;
                               const float direct = cosine * visibility;
                               const Colour albedo = albedo_of(i);
                               cells_of(red)[i] = albedo.red * (direct * sun.red + sky.red * occlusion);
                               cells_of(green)[i] = albedo.green * (direct * sun.green + sky.green * occlusion);
                               cells_of(blue)[i] = albedo.blue * (direct * sun.blue + sky.blue * occlusion);
                           });
        };
        if (has_albedo_) {
            const auto albedo_red = read(albedo_red_, handler), albedo_green = read(albedo_green_, handler),
                       albedo_blue = read(albedo_blue_, handler);
            compose([=](std::ptrdiff_t i) {
                return Colour{cells_of(albedo_red)[i], cells_of(albedo_green)[i], cells_of(albedo_blue)[i]};
            });
        } else {
            compose([grey = p.albedo](std::ptrdiff_t) { return Colour{grey, grey, grey}; });
        }
    });
}

} // namespace tarn::lighting
