#include "lighting/sweep.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "lighting/sweep_kernels.hpp"

namespace tarn::lighting {

namespace {

using PhotonUpdater = Updater<std::int32_t>;

/// The way of a ray's lines over a grid of `size` cells a side. `z_scale` is a cell's width in units of height.
/// Not for rays straight up or down.
ScanRay scan_ray(const Ray& ray, int size, float z_scale) {
    const Vector& d = ray.direction;
    const float ax = std::fabs(d.x), ay = std::fabs(d.y);
    const bool along_x = ax > ay;
    const float longest = along_x ? ax : ay;
    const float step_x = -d.x / longest, step_y = -d.y / longest;
    const auto fixed = [](float value) {
        return static_cast<Fixed>(value * 65536.0f);
    };
    // Lines enter at the edge that the light comes from.
    const Fixed start = (along_x ? step_x : step_y) > 0.0f ? 0 : (size << fixed_bits) - fixed_one;
    ScanRay result{};
    result.along_x = along_x;
    result.major = start + fixed(along_x ? ray.offset_x : ray.offset_y);
    result.minor = fixed(along_x ? ray.offset_y : ray.offset_x);
    result.major_step = fixed(along_x ? step_x : step_y);
    result.minor_step = fixed(along_x ? step_y : step_x);
    result.rise = -d.z * z_scale / longest;
    result.x = d.x;
    result.y = d.y;
    result.z = d.z;
    result.factor = ray.weight * full_credit;
    return result;
}

/// Whether a ray has a direction along the ground. Not so where it is no direction at all.
bool can_scan(const Ray& ray) {
    return std::fabs(ray.direction.x) > 0.0f || std::fabs(ray.direction.y) > 0.0f;
}

std::vector<ScanRay> scan_rays(const Parameters& p, const std::vector<Ray>& rays) {
    const int size = p.resolution.width;
    const float z_scale = p.terrain_size / (static_cast<float>(size) * p.terrain_height);
    std::vector<ScanRay> result;
    for (const Ray& ray : rays)
        if (can_scan(ray))
            result.push_back(scan_ray(ray, size, z_scale));
    return result;
}

/// Side of the squares that are transposed at a time: two of them lie in the innermost cache.
constexpr int tile_side = 16;

/// Calls `cell(x, y)` for every cell, square by square: what reads along one axis and writes along the other stays in
/// the cache.
template <class Cell>
void launch_tiles(sycl::handler& handler, int size, Cell cell) {
    const int tiles = (size + tile_side - 1) / tile_side;
    handler.parallel_for(sycl::range<1>(static_cast<std::size_t>(tiles)), [=](sycl::id<1> index) {
        const int top = static_cast<int>(index[0]) * tile_side;
        const int bottom = minimum(top + tile_side, size);
        for (int left = 0; left < size; left += tile_side) {
            const int right = minimum(left + tile_side, size);
            for (int y = top; y < bottom; ++y)
                for (int x = left; x < right; ++x)
                    cell(x, y);
        }
    });
}

int side_of(const sycl::range<2>& extent) {
    return static_cast<int>(extent[0]);
}

Grid transposed(Grid& source, sycl::queue& queue) {
    const int size = side_of(source.get_range());
    Grid result(source.get_range());
    queue.submit([&](sycl::handler& handler) {
        const auto from = read(source, handler);
        const auto to = overwrite(result, handler);
        launch_tiles(handler, size, [=](int x, int y) {
            cells_of(to)[static_cast<std::ptrdiff_t>(y) * size + x] =
                cells_of(from)[static_cast<std::ptrdiff_t>(x) * size + y];
        });
    });
    return result;
}

void add_transposed(PhotonMap& source, PhotonMap& target, sycl::queue& queue) {
    const int size = side_of(source.get_range());
    queue.submit([&](sycl::handler& handler) {
        const auto from = read(source, handler);
        const auto to = update(target, handler);
        launch_tiles(handler, size, [=](int x, int y) {
            cells_of(to)[static_cast<std::ptrdiff_t>(y) * size + x] +=
                cells_of(from)[static_cast<std::ptrdiff_t>(x) * size + y];
        });
    });
}

/// Grids of a sweep of the sun, which the kernels see as SunGround.
struct SunGrids {
    Grid heights;

    SunGrids transposed(sycl::queue& queue) { return {lighting::transposed(heights, queue)}; }

    /// The grids in a command group, from which a kernel takes its ground.
    struct Access {
        Reader<float> heights;

        SunGround ground(int size, const Strides& strides) const { return {cells_of(heights), size, strides}; }
    };
    Access access(sycl::handler& handler) { return {read(heights, handler)}; }
};

/// Grids of a sweep of the sky.
struct SkyGrids {
    Grid heights;
    NormalGrid normals;

    SkyGrids transposed(sycl::queue& queue) {
        SkyGrids result{lighting::transposed(heights, queue), normals};
        result.normals.x = lighting::transposed(normals.x, queue);
        result.normals.y = lighting::transposed(normals.y, queue);
        result.normals.z = lighting::transposed(normals.z, queue);
        return result;
    }

    struct Access {
        Reader<float> heights, normal_x, normal_y, normal_z;

        SkyGround ground(int size, const Strides& strides) const {
            return {cells_of(heights), cells_of(normal_x), cells_of(normal_y), cells_of(normal_z), size, strides};
        }
    };
    Access access(sycl::handler& handler) {
        return {read(heights, handler), read(normals.x, handler), read(normals.y, handler), read(normals.z, handler)};
    }
};

/// The shape for GPUs: all lines of all rays at once, one work-item a line.
template <class Grids>
void sweep_by_lines(Grids& grids, PhotonMap& photonmap, const std::vector<ScanRay>& rays, sycl::queue& queue) {
    constexpr std::size_t group = 16;
    const int size = side_of(photonmap.get_range());
    const std::size_t lines = static_cast<std::size_t>(size) * rays.size();
    const sycl::range<1> global((lines + group - 1) / group * group), local(group);
    sycl::buffer<ScanRay, 1> table(rays.data(), sycl::range<1>(rays.size()));
    queue.submit([&](sycl::handler& handler) {
        const auto access = grids.access(handler);
        const auto ray_table = read(table, handler);
        const auto photons = update(photonmap, handler);
        handler.parallel_for(sycl::nd_range<1>(global, local), [=](sycl::nd_item<1> item) {
            const std::size_t number = item.get_global_id(0);
            if (number >= lines)
                return;
            const ScanRay ray = ray_table[number / static_cast<std::size_t>(size)];
            const Strides strides = ray.along_x ? Strides{1, size} : Strides{size, 1};
            march_line(access.ground(size, strides), ray, static_cast<int>(number % static_cast<std::size_t>(size)),
                       cells_of(photons));
        });
    });
}

/// Steps that lines march before the next strip has its turn, and the least width of a strip. A line drifts by one
/// column a step at most, so with this width lines from every other strip do not meet.
constexpr int band_steps = 16;
constexpr int strip_width = 64;
static_assert(strip_width >= 2 * band_steps);

/// How many strips a grid is cut into: 1, or an even number, since the first is the neighbour of the last.
int strip_count(int size) {
    return std::max(size / strip_width / 2 * 2, 1);
}

/// All rays with the same major axis, over grids whose rows run along the minor one.
template <class Grids>
struct Layout {
    Layout(Grids layout_grids, const PhotonMap& photonmap, const std::vector<ScanRay>& rays)
        : grids(std::move(layout_grids)), photons(photonmap), table(rays.data(), sycl::range<1>(rays.size())),
          horizons(sycl::range<2>(rays.size(), photonmap.get_range()[1])), along_x(rays.front().along_x) {}

    struct Access {
        typename Grids::Access grids;
        PhotonUpdater photons;
        Reader<ScanRay, 1> table;
        Updater<float> horizons;
        std::size_t rays;
        bool along_x;
    };
    Access access(sycl::handler& handler) {
        return {grids.access(handler), update(photons, handler),
                read(table, handler),  update(horizons, handler),
                table.size(),          along_x};
    }

    Grids grids;
    PhotonMap photons;
    sycl::buffer<ScanRay, 1> table;
    /// A row for each ray, with the horizon of each of its lines.
    Grid horizons;
    bool along_x;
};

/// Marches all rays of a layout over a strip for the steps of a band.
template <bool along_x, class Access>
inline void march_rays(const Access& access, int size, int strip, int strips, int first_step) {
    const auto column = [=](int number) {
        return static_cast<int>(std::int64_t{size} * number / strips);
    };
    const auto ground = access.grids.ground(size, {size, 1});
    for (std::size_t r = 0; r < access.rays; ++r) {
        const ScanRay ray = access.table[r];
        march_strip<along_x>(ground, ray, column(strip), column(strip + 1), first_step,
                             minimum(first_step + band_steps, size), &access.horizons[sycl::id<2>(r, 0)],
                             cells_of(access.photons));
    }
}

/// The shape for CPUs: lines side by side, in strips; all rays of a strip march some steps together while its cells are
/// in the cache. Every other strip at a time, nobody meets anybody and nothing is atomic. Rays along x run over
/// transposed grids, with a photon map of their own.
template <class Grids>
void sweep_by_strips(Grids& grids, PhotonMap& photonmap, std::vector<ScanRay> rays, sycl::queue& queue) {
    const int size = side_of(photonmap.get_range());
    // Rays that go the same way down the rows next to one another: they share these.
    std::sort(rays.begin(), rays.end(), [](const ScanRay& a, const ScanRay& b) {
        return a.along_x != b.along_x ? b.along_x : a.major_step < b.major_step;
    });
    const auto across = std::find_if(rays.begin(), rays.end(), [](const ScanRay& ray) { return ray.along_x; });
    std::vector<Layout<Grids>> layouts;
    if (across != rays.begin())
        layouts.emplace_back(grids, photonmap, std::vector<ScanRay>(rays.begin(), across));
    if (across != rays.end()) {
        PhotonMap photons(photonmap.get_range());
        fill(queue, photons, std::int32_t{0});
        layouts.emplace_back(grids.transposed(queue), photons, std::vector<ScanRay>(across, rays.end()));
    }

    const int strips = strip_count(size), turns = std::min(strips, 2);
    const auto strips_a_turn = static_cast<std::size_t>(strips / turns);
    for (int step = 0; step < size; step += band_steps)
        for (int turn = 0; turn < turns; ++turn)
            queue.submit([&](sycl::handler& handler) {
                const auto first = layouts.front().access(handler), second = layouts.back().access(handler);
                handler.parallel_for(sycl::range<1>(layouts.size() * strips_a_turn), [=](sycl::id<1> item) {
                    const bool is_first = item[0] < strips_a_turn;
                    const int strip = static_cast<int>(is_first ? item[0] : item[0] - strips_a_turn) * turns + turn;
                    const auto& access = is_first ? first : second;
                    if (access.along_x)
                        march_rays<true>(access, size, strip, strips, step);
                    else
                        march_rays<false>(access, size, strip, strips, step);
                });
            });
    if (across != rays.end())
        add_transposed(layouts.back().photons, photonmap, queue);
}

template <class Grids>
void sweep(Grids grids, PhotonMap& photonmap, const std::vector<ScanRay>& rays, sycl::queue& queue) {
    if (rays.empty())
        return;
    if (queue.get_device().is_cpu())
        sweep_by_strips(grids, photonmap, rays, queue);
    else
        sweep_by_lines(grids, photonmap, rays, queue);
}

} // namespace

int sweep_sun(const Parameters& parameters, Grid& heights, PhotonMap& photonmap, const std::vector<Ray>& rays,
              sycl::queue& queue) {
    sweep(SunGrids{heights}, photonmap, scan_rays(parameters, rays), queue);
    return static_cast<int>(std::count_if(rays.begin(), rays.end(), [](const Ray& ray) {
        return ray.direction.x == 0.0f && ray.direction.y == 0.0f && ray.direction.z > 0.0f;
    }));
}

void sweep_sky(const Parameters& parameters, Grid& heights, NormalGrid& normals, PhotonMap& photonmap,
               const std::vector<Ray>& rays, sycl::queue& queue) {
    sweep(SkyGrids{heights, normals}, photonmap, scan_rays(parameters, rays), queue);
}

} // namespace tarn::lighting
