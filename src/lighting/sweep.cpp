#include "lighting/sweep.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>
#include <utility>

#include "grid/access.hpp"
#include "grid/fill.hpp"
#include "grid/launch_cells.hpp"
#include "lighting/sweep_kernels.hpp"

namespace tarn::lighting {

namespace {

/// How a ray's lines go over a grid. `z_scale` is a cell's width in units of height. Not for vertical rays.
ScanRay scan_ray(const Ray& ray, const Resolution& resolution, float z_scale) {
    const Vector& d = ray.direction;
    const float ax = std::fabs(d.x), ay = std::fabs(d.y);
    const bool along_x = ax > ay;
    const float longest = along_x ? ax : ay;
    const float step_x = -d.x / longest, step_y = -d.y / longest;
    const auto fixed = [](float value) {
        return static_cast<Fixed>(value * 65536.0f);
    };
    // Lines enter at the edge that the light comes from.
    const int steps = along_x ? resolution.width : resolution.height;
    const Fixed start = (along_x ? step_x : step_y) > 0.0f ? 0 : (steps << fixed_bits) - fixed_one;
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

/// Leaves out the rays that have no way along the ground, and those whose direction is no number.
std::vector<ScanRay> scan_rays(const Parameters& p, const std::vector<Ray>& rays) {
    const float z_scale = p.terrain_size / (static_cast<float>(p.resolution.width) * p.terrain_height);
    std::vector<ScanRay> result;
    for (const Ray& ray : rays)
        if (squared_ground_length(ray.direction) > 0.0f)
            result.push_back(scan_ray(ray, p.resolution, z_scale));
    return result;
}

/// Side of the squares that are transposed at a time: two of them lie in the innermost cache.
constexpr int tile_side = 16;

/// Calls `cell(index, transposed_index)` for every cell of a grid, square by square, so that both the rows that are
/// read and the columns that are written stay in the cache.
template <class Cell>
void launch_transposition(sycl::handler& handler, const sycl::range<2>& extent, Cell cell) {
    const int rows = static_cast<int>(extent[0]), columns = static_cast<int>(extent[1]);
    const int tiles = (rows + tile_side - 1) / tile_side;
    handler.parallel_for(sycl::range<1>(static_cast<std::size_t>(tiles)), [=](sycl::id<1> index) {
        const int top = static_cast<int>(index[0]) * tile_side;
        const int bottom = minimum(top + tile_side, rows);
        for (int left = 0; left < columns; left += tile_side) {
            const int right = minimum(left + tile_side, columns);
            for (int y = top; y < bottom; ++y)
                for (int x = left; x < right; ++x)
                    cell(static_cast<std::ptrdiff_t>(y) * columns + x, static_cast<std::ptrdiff_t>(x) * rows + y);
        }
    });
}

sycl::range<2> transposed(const sycl::range<2>& extent) {
    return {extent[1], extent[0]};
}

Grid transposed(Grid& source, sycl::queue& queue) {
    Grid result(transposed(source.get_range()));
    queue.submit([&](sycl::handler& handler) {
        const auto from = read(source, handler);
        const auto to = overwrite(result, handler);
        launch_transposition(handler, result.get_range(), [=](std::ptrdiff_t i, std::ptrdiff_t source_index) {
            cells_of(to)[i] = cells_of(from)[source_index];
        });
    });
    return result;
}

void add_transposed(PhotonMap& source, PhotonMap& target, sycl::queue& queue) {
    queue.submit([&](sycl::handler& handler) {
        const auto from = read(source, handler);
        const auto to = update(target, handler);
        launch_transposition(handler, target.get_range(), [=](std::ptrdiff_t i, std::ptrdiff_t source_index) {
            cells_of(to)[i] += cells_of(from)[source_index];
        });
    });
}

/// What the lines of a sweep go over: the heights, and for the sky the normals. In the order of the ground's fields.
using SunGrids = std::array<Grid, 1>;
using SkyGrids = std::array<Grid, 4>;

template <std::size_t count>
std::array<Grid, count> transposed(std::array<Grid, count> grids, sycl::queue& queue) {
    for (Grid& grid : grids)
        grid = transposed(grid, queue);
    return grids;
}

template <std::size_t count>
std::array<Reader<float>, count> read_all(std::array<Grid, count>& grids, sycl::handler& handler) {
    return std::apply([&](auto&... grid) { return std::array{read(grid, handler)...}; }, grids);
}

inline SunGround ground_of(const std::array<Reader<float>, 1>& grids, const ScanShape& shape) {
    return {cells_of(grids[0]), shape};
}

inline SkyGround ground_of(const std::array<Reader<float>, 4>& grids, const ScanShape& shape) {
    return {cells_of(grids[0]), cells_of(grids[1]), cells_of(grids[2]), cells_of(grids[3]), shape};
}

/// The shape for GPUs: all lines of all rays at once, one work-item a line. Each ray has as many items as the longer
/// side has cells, so that an item finds its ray by one division.
template <class Grids>
void sweep_by_lines(Grids& grids, PhotonMap& photonmap, const std::vector<ScanRay>& rays, sycl::queue& queue) {
    constexpr std::size_t group = 16;
    const int height = static_cast<int>(photonmap.get_range()[0]), width = static_cast<int>(photonmap.get_range()[1]);
    const auto longer = static_cast<std::size_t>(std::max(width, height));
    const std::size_t items = longer * rays.size();
    const sycl::range<1> global((items + group - 1) / group * group), local(group);
    sycl::buffer<ScanRay, 1> table(rays.data(), sycl::range<1>(rays.size()));
    queue.submit([&](sycl::handler& handler) {
        const auto readers = read_all(grids, handler);
        const auto ray_table = read(table, handler);
        const auto photons = update(photonmap, handler);
        handler.parallel_for(sycl::nd_range<1>(global, local), [=](sycl::nd_item<1> item) {
            const std::size_t number = item.get_global_id(0);
            if (number >= items)
                return;
            const ScanRay ray = ray_table[number / longer];
            const ScanShape shape =
                ray.along_x ? ScanShape{width, height, 1, width} : ScanShape{height, width, width, 1};
            const int line = static_cast<int>(number % longer);
            if (line < shape.lines)
                march_line(ground_of(readers, shape), ray, line, cells_of(photons));
        });
    });
}

/// Steps that lines march before the next strip has its turn, and the least width of a strip. A line drifts by at most
/// one column a step, so lines of two strips do not meet if a strip of this width lies between them.
constexpr int band_steps = 16;
constexpr int strip_width = 64;
static_assert(strip_width >= 2 * band_steps);

/// How many strips so many lines are cut into: 1, or an even number, since the first is the neighbour of the last.
int strip_count(int lines) {
    return std::max(lines / strip_width / 2 * 2, 1);
}

/// All rays with the same major axis, over grids whose rows run along the minor one.
template <class Grids>
struct Layout {
    Layout(Grids layout_grids, const PhotonMap& photonmap, const std::vector<ScanRay>& rays)
        : grids(std::move(layout_grids)), photons(photonmap), table(rays.data(), sycl::range<1>(rays.size())),
          horizons(sycl::range<2>(rays.size(), photons.get_range()[1])), along_x(rays.front().along_x) {
        const auto columns = static_cast<int>(photons.get_range()[1]);
        shape = {static_cast<int>(photons.get_range()[0]), columns, columns, 1};
        strips = strip_count(columns);
    }

    /// How many strips march the band from `step` on in a turn, which is 0 or 1.
    std::size_t strips_in_turn(int turn, int step) const {
        return step < shape.steps ? static_cast<std::size_t>((strips + 1 - turn) / 2) : 0;
    }

    struct Access {
        decltype(read_all(std::declval<Grids&>(), std::declval<sycl::handler&>())) grids;
        Updater<std::int32_t> photons;
        Reader<ScanRay, 1> table;
        Updater<float> horizons;
        std::size_t rays;
        ScanShape shape;
        int strips;
        bool along_x;
    };
    Access access(sycl::handler& handler) {
        return {read_all(grids, handler),
                update(photons, handler),
                read(table, handler),
                update(horizons, handler),
                table.size(),
                shape,
                strips,
                along_x};
    }

    Grids grids;
    PhotonMap photons;
    sycl::buffer<ScanRay, 1> table;
    /// A row for each ray, with the horizon of each of its lines.
    Grid horizons;
    ScanShape shape;
    int strips;
    bool along_x;
};

/// Marches all rays of a layout over a strip for the steps of a band.
template <bool along_x, class Access>
inline void march_rays(const Access& access, int strip, int first_step) {
    const auto column = [&](int number) {
        return static_cast<int>(std::int64_t{access.shape.lines} * number / access.strips);
    };
    const auto ground = ground_of(access.grids, access.shape);
    for (std::size_t r = 0; r < access.rays; ++r) {
        const ScanRay ray = access.table[r];
        march_strip<along_x>(ground, ray, column(strip), column(strip + 1), first_step,
                             minimum(first_step + band_steps, access.shape.steps), &access.horizons[sycl::id<2>(r, 0)],
                             cells_of(access.photons));
    }
}

/// The shape for CPUs. Lines march side by side, and the grid is cut into strips of columns. All rays march a band of
/// some steps over a strip while its cells are in the cache. Strips that run at the same time are never neighbours, so
/// they credit different cells, and nothing has to be atomic. Rays along x run over transposed grids and have a photon
/// map of their own, which is added at the end.
template <class Grids>
void sweep_by_strips(Grids& grids, PhotonMap& photonmap, std::vector<ScanRay> rays, sycl::queue& queue) {
    // Rays that go through the rows in the same order stand together: they share the rows in the cache.
    std::sort(rays.begin(), rays.end(), [](const ScanRay& a, const ScanRay& b) {
        return a.along_x != b.along_x ? b.along_x : a.major_step < b.major_step;
    });
    const auto across = std::find_if(rays.begin(), rays.end(), [](const ScanRay& ray) { return ray.along_x; });
    std::vector<Layout<Grids>> layouts;
    if (across != rays.begin())
        layouts.emplace_back(grids, photonmap, std::vector<ScanRay>(rays.begin(), across));
    if (across != rays.end()) {
        PhotonMap photons(transposed(photonmap.get_range()));
        fill(queue, photons, std::int32_t{0});
        layouts.emplace_back(transposed(grids, queue), photons, std::vector<ScanRay>(across, rays.end()));
    }

    int steps = 0;
    for (const Layout<Grids>& layout : layouts)
        steps = std::max(steps, layout.shape.steps);
    for (int step = 0; step < steps; step += band_steps)
        for (const int turn : {0, 1}) {
            const std::size_t firsts = layouts.front().strips_in_turn(turn, step);
            const std::size_t seconds = layouts.size() > 1 ? layouts.back().strips_in_turn(turn, step) : 0;
            if (firsts + seconds == 0)
                continue;
            queue.submit([&](sycl::handler& handler) {
                const auto first = layouts.front().access(handler), second = layouts.back().access(handler);
                handler.parallel_for(sycl::range<1>(firsts + seconds), [=](sycl::id<1> item) {
                    const bool is_first = item[0] < firsts;
                    const int strip = static_cast<int>(is_first ? item[0] : item[0] - firsts) * 2 + turn;
                    const auto& access = is_first ? first : second;
                    if (access.along_x)
                        march_rays<true>(access, strip, step);
                    else
                        march_rays<false>(access, strip, step);
                });
            });
        }
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
        return squared_ground_length(ray.direction) == 0.0f && ray.direction.z > 0.0f;
    }));
}

void sweep_sky(const Parameters& parameters, Grid& heights, NormalGrid& normals, PhotonMap& photonmap,
               const std::vector<Ray>& rays, sycl::queue& queue) {
    sweep(SkyGrids{heights, normals.x, normals.y, normals.z}, photonmap, scan_rays(parameters, rays), queue);
}

} // namespace tarn::lighting
