// What one rock does from its birth to its rest, and how its pixels are drawn.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "debris/bodies.hpp"
#include "debris/debris.hpp"
#include "debris/noise.hpp"
#include "device/backend.hpp"
#include "grid/atomic.hpp"
#include "grid/bilinear.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"
#include "grid/search.hpp"

namespace tarn::debris {

/// The row or column of the grid at a coordinate of any value.
inline int grid_index(float coordinate, int resolution) {
    return clamp_index(cell_of(coordinate), resolution);
}

// ---------------------------------------------------------------------------------------------------------------------
// Birth

/// Puts rock `i` of a batch down. It keeps the velocity and the direction that the rock before it in its place had.
inline void place_particle(std::uint32_t i, std::uint32_t batch_seed, const GlobalContext& context, ParticlePos& pos,
                           ParticleRen& ren, ParticleSim& sim) {
    constexpr std::uint32_t basis = 0x811C9DC5u, prime = 16777619u; // of the FNV-1a hash
    const std::uint32_t hash = (i ^ basis) * prime;
    const std::uint32_t s1 = xorshift(nonzero_state((hash ^ batch_seed) * prime));
    const std::uint32_t s2 = xorshift(s1), s3 = xorshift(s2), s4 = xorshift(s3), s5 = xorshift(s4), s6 = xorshift(s5);
    const Parameters& p = context.parameters;
    float share = random_number(s3) * unit_scale;
    if (p.favour_small != 0) {
        // The eighth power of the mean of four numbers.
        float mean = (share + ((random_number(s4) + random_number(s5)) + random_number(s6)) * unit_scale) * 0.25f;
        mean *= mean;
        mean *= mean;
        mean *= mean;
        share = mean;
    }
    const float x = random_number(s1) * unit_scale * p.terrain_size;
    const float y = random_number(s2) * unit_scale * p.terrain_size;
    const float size = share * (p.max_size - p.min_size) + p.min_size;
    pos = {x, y, 0.0f, size};
    ren.birthplace_x = x;
    ren.birthplace_y = y;
    ren.rock_seed = (xorshift(s6) * 0x2545F381u + 0x7FFFFFFFu) & 0x7FFFFFFFu;
    ren.size_ratio = size / p.max_size;
    sim.alive = 1;
}

/// One cell of the noise that roughens the rocks: six octaves, each seen at a place of its own.
inline float warp_noise(std::uint32_t x, std::uint32_t y, std::uint32_t seed) {
    float frequency = 6.0f / static_cast<float>(Debris::warp_columns);
    float amplitude = 0.8f;
    float sum = 0.0f;
    for (std::uint32_t octave = 0; octave < 6; ++octave) {
        sum += noise::gradient(static_cast<float>(octave * (seed + 7u) + x) * frequency,
                               static_cast<float>(octave * (seed + 3u) + y) * frequency) *
               amplitude;
        frequency *= 2.0f;
        amplitude *= octave == 0 ? 1.0f : 0.5f;
    }
    return sum;
}

// ---------------------------------------------------------------------------------------------------------------------
// Sliding

struct Gradient {
    float x;
    float y;
};

/// The slope at a position in world units, from four cells around it, the further apart the larger the rock. The radius
/// in world units counts as cells.
inline Gradient sample_landscape(const GlobalContext& context, const float* height, float x, float y, float radius) {
    const float gx = x * context.cells_per_unit;
    const float gy = y * context.cells_per_unit;
    const float reach = maximum(radius, 0.501f) * 1.5f + 1.5f;
    const int resolution = context.resolution;
    const int x0 = grid_index(gx - reach, resolution), x1 = grid_index(gx + reach, resolution);
    const int y0 = grid_index(gy - reach, resolution), y1 = grid_index(gy + reach, resolution);
    const float* upper = height + static_cast<std::ptrdiff_t>(y0) * resolution;
    const float* lower = height + static_cast<std::ptrdiff_t>(y1) * resolution;
    const float a = upper[x0], b = upper[x1], c = lower[x0], d = lower[x1];
    return {((b + d) - (a + c)) / static_cast<float>(maximum(x1 - x0, 1)) * context.slope_scale,
            ((c + d) - (a + b)) / static_cast<float>(maximum(y1 - y0, 1)) * context.slope_scale};
}

/// The angle whose tangent is the length of the surface normal, which is 1 up to rounding: all slopes have the same.
/// What it is worth is kept from step to step, since the length hardly ever changes.
struct Inclination {
    void update(float normal_length) {
        if (normal_length == tangent)
            return;
        tangent = normal_length;
        const float angle = sycl::atan(normal_length);
        sine = sycl::sin(angle);
        cosine = sycl::cos(angle);
    }

    float tangent = -1.0f;
    float sine = 0.0f;
    float cosine = 0.0f;
};

/// One time step of a rock: gravity along the slope, friction, and a bounce where the rock runs into the surface. Then
/// the velocity is laid into the plane of the surface, at the same speed.
inline void slide(const GlobalContext& context, const float* height, float* speed, const ParticlePos& pos,
                  ParticleSim& sim, Inclination& inclination) {
    const Parameters& p = context.parameters;
    float vx = sim.velocity_x, vy = sim.velocity_y;
    const int column = grid_index(pos.x * context.cells_per_unit, context.resolution);
    const int row = grid_index(pos.y * context.cells_per_unit, context.resolution);
    SharedCell<float>(speed[static_cast<std::ptrdiff_t>(row) * context.resolution + column])
        .store(length(vx, vy) * 0.001f);

    const Gradient slope = sample_landscape(context, height, pos.x, pos.y, pos.radius);
    const float steepness = length(-slope.x, -slope.y, 1.0f);
    const float nx = -slope.x / steepness, ny = -slope.y / steepness, nz = 1.0f / steepness;
    const float normal_length = length(nx, ny, nz);
    inclination.update(normal_length);
    const float ex = normal_length > 0.0f ? slope.x / normal_length : 0.0f;
    const float ey = normal_length > 0.0f ? slope.y / normal_length : 0.0f;
    const float pull = (context.gravity * inclination.sine) * context.time_step;
    vx -= ex * pull;
    vy -= ey * pull;

    const float before = length(vx, vy);
    if (before > 0.0f) {
        const float brake = ((p.friction * -context.gravity) * inclination.cosine) * context.time_step;
        const float kept = maximum(0.0f, before + brake) / before;
        vx *= kept;
        vy *= kept;
    }

    const float way = length(sim.direction_x, sim.direction_y, sim.direction_z);
    const bool moves = way > 0.0f;
    const float tx = moves ? sim.direction_x / way : sim.direction_x;
    const float ty = moves ? sim.direction_y / way : sim.direction_y;
    const float tz = moves ? sim.direction_z / way : sim.direction_z;
    const float against = tx * nx + ty * ny + tz * nz;
    if (against < 0.0f) {
        const float damping = 1.0f - against * -0.75f;
        const float thrown = against * -2.0f;
        vx = vx * damping * (1.0f - p.restitution) + (vx - thrown * ex) * p.restitution;
        vy = vy * damping * (1.0f - p.restitution) + (vy - thrown * ey) * p.restitution;
    }

    const float into = vx * nx + vy * ny + 0.0f * nz;
    const float qx = vx - into * nx, qy = vy - into * ny, qz = 0.0f - into * nz;
    const float in_plane = length(qx, qy, qz);
    const float after = length(vx, vy);
    const bool rests = in_plane == 0.0f;
    sim.direction_x = rests ? 0.0f : qx * after / in_plane;
    sim.direction_y = rests ? 0.0f : qy * after / in_plane;
    sim.direction_z = rests ? 0.0f : qz * after / in_plane;
    sim.velocity_x = vx;
    sim.velocity_y = vy;
}

inline bool is_same(float a, float b) {
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}

inline bool is_same(const ParticlePos& a, const ParticlePos& b) {
    return is_same(a.x, b.x) && is_same(a.y, b.y);
}

inline bool is_same(const ParticleSim& a, const ParticleSim& b) {
    return is_same(a.velocity_x, b.velocity_x) && is_same(a.velocity_y, b.velocity_y) &&
           is_same(a.direction_x, b.direction_x) && is_same(a.direction_y, b.direction_y) &&
           is_same(a.direction_z, b.direction_z);
}

/// Moves a rock through all its time steps, or until it leaves the terrain, where it stays. The step over the map is
/// divided by the width of a cell.
inline void simulate(const GlobalContext& context, const float* height, float* speed, ParticlePos& pos,
                     ParticleSim& sim) {
    constexpr int steps = 1000;
    const float size = context.parameters.terrain_size;
    Inclination inclination;
    for (int step = 0; step < steps && sim.alive != 0; ++step) {
        const ParticlePos before = pos;
        const ParticleSim motion_before = sim;
        slide(context, height, speed, pos, sim, inclination);
        pos.x += (sim.direction_x * context.time_step) / context.units_per_cell;
        pos.y += (sim.direction_y * context.time_step) / context.units_per_cell;
        pos.z = 0.0f;
        if (pos.x < 0.0f || pos.y < 0.0f || pos.x > size || pos.y > size)
            sim.alive = 0;
        if (is_same(pos, before) && is_same(sim, motion_before))
            return; // at rest: all further steps would be this one again
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Drawing

/// The first of the whole numbers from 0 that brings `start` up to `bound`; `count` if none below it does.
inline std::uint32_t first_at_least(float start, float bound, std::uint32_t count) {
    std::uint32_t first = 0;
    while (first < count) {
        const std::uint32_t middle = first + (count - first) / 2;
        if (start + static_cast<float>(middle) >= bound)
            count = middle;
        else
            first = middle + 1;
    }
    return first;
}

/// Finds the part of a rock's window that lies on the grid, and the number of its pixels. The window is as wide as the
/// rock, and its pixels are those of a square three times as wide: it has about nine times as many rows as columns, the
/// last of them incomplete.
inline void clip_window(ParticleRen& ren, int resolution) {
    const auto side = static_cast<float>(resolution);
    const std::uint32_t columns = window_columns(ren.radius);
    const std::uint32_t square_side = static_cast<std::uint32_t>(ren.radius) * 3u + 1u;
    const std::uint32_t pixels = square_side * square_side;
    const std::uint32_t rows = (pixels - 1u) / columns + 1u;
    const float left = window_start(ren.x, ren.radius), top = window_start(ren.y, ren.radius);

    ren.first_column = first_at_least(left, 0.0f, columns);
    ren.first_row = first_at_least(top, 0.0f, rows);
    const std::uint32_t end_column = first_at_least(left, side, columns), end_row = first_at_least(top, side, rows);
    ren.columns = end_column - ren.first_column;
    ren.pixel_count = ren.columns * (end_row - ren.first_row);
    if (end_row == rows && end_row > ren.first_row) {
        const std::uint32_t last_columns = pixels - (rows - 1u) * columns;
        ren.pixel_count -= end_column - minimum(maximum(last_columns, ren.first_column), end_column);
    }
}

/// What a rock lies on, how large it comes out, and how many work-items it takes. Large rocks are flatter, and so are
/// rocks on twisted ground; rocks sink into rough ground.
inline void lay_down(const GlobalContext& context, const float* height, const ParticlePos& pos, ParticleRen& ren) {
    ren.x = pos.x * context.cells_per_unit;
    ren.y = pos.y * context.cells_per_unit;
    ren.radius = context.cells_per_unit * pos.radius;
    clip_window(ren, context.resolution);
    const bool unmoved = pos.x == ren.birthplace_x && pos.y == ren.birthplace_y;
    if (unmoved && context.parameters.draw_unmoved == 0)
        ren.pixel_count = 0;

    const std::int64_t reach = static_cast<std::int64_t>(ren.radius) + 1;
    const std::int64_t column = cell_of(ren.x), row = cell_of(ren.y), last = context.resolution - 1;
    const auto clamped = [last](std::int64_t index) {
        return minimum(maximum(index, std::int64_t{0}), last);
    };
    const std::int64_t x0 = clamped(column - reach), x1 = clamped(column + reach);
    const std::int64_t y0 = clamped(row - reach), y1 = clamped(row + reach);
    const auto at = [&](std::int64_t x, std::int64_t y) {
        return height[y * context.resolution + x];
    };
    const float a = at(x0, y0), b = at(x1, y0), c = at(x0, y1), d = at(x1, y1);
    const float m = at(clamped(column), clamped(row));

    const float gx = ((((b + d) - (a + c)) * 0.5f) / static_cast<float>(x1 - x0)) * 0.9f;
    const float gy = ((((c + d) - (a + b)) * 0.5f) / static_cast<float>(y1 - y0)) * 0.9f;
    const float steepness = length(gx, gy);
    const bool flat = steepness == 0.0f;
    ren.gradient_x = flat ? 1e-24f : gx;
    ren.gradient_y = flat ? 0.0f : gy;
    ren.gradient_length = flat ? 1e-24f : steepness;
    ren.height_scale = (((0.3f - ren.size_ratio * 0.1f) * ren.radius) * context.cell) /
                       ((sycl::fabs(b + c - a - d) * context.slope_scale) * 0.16667f + 1.0f);
    const float highest = maximum(maximum(maximum(maximum(a, b), c), d), m);
    const float lowest = minimum(minimum(minimum(minimum(a, b), c), d), m);
    const float middle = ((highest + lowest) * 0.5f) - ((a + b + c + d + m) * 0.2f);
    ren.base_height = m - sycl::fabs(middle) * 0.25f;
}

/// The grids that a pixel raises.
struct Ground {
    float* height;
    float* rock_id;
    int resolution;
};

/// Draws the pixels from `first` to before `last` of a rock's window on the grid: as many side by side as `lanes`.
template <int lanes, class Body>
inline void draw_pixels(const RockFrame& frame, const Body& body, std::uint32_t first, std::uint32_t last,
                        const Ground& ground) {
    std::uint32_t row = first / frame.columns, column = first - row * frame.columns;
    while (first < last) {
        const int count = static_cast<int>(minimum(last - first, static_cast<std::uint32_t>(lanes)));
        float wx[lanes], wy[lanes], height[lanes];
        for (int lane = 0; lane < count; ++lane) {
            wx[lane] = frame.left + static_cast<float>(frame.first_column + column);
            wy[lane] = frame.top + static_cast<float>(frame.first_row + row);
            if (++column == frame.columns) {
                column = 0;
                ++row;
            }
        }
        TARN_INDEPENDENT_ITERATIONS
        for (int lane = 0; lane < count; ++lane)
            height[lane] = body.height(frame, wx[lane], wy[lane]);
        for (int lane = 0; lane < count; ++lane) {
            const std::ptrdiff_t cell =
                static_cast<std::ptrdiff_t>(wy[lane]) * ground.resolution + static_cast<std::ptrdiff_t>(wx[lane]);
            // Not tied to the raise: where two rocks raise a cell at the same moment, the id of either may stand.
            if (atomic_raise(ground.height[cell], height[lane]))
                SharedCell<float>(ground.rock_id[cell]).store(body.id);
        }
        first += static_cast<std::uint32_t>(count);
    }
}

/// Rocks with the running sums of their work-items; `first` and `last` are the numbers of those to be drawn.
struct RockList {
    const ParticleRen* rocks;
    const RockBodies* bodies;
    const std::uint64_t* sums;
    std::uint32_t first;
    std::uint32_t last;
};

/// Draws the work-items from `item` to before `end`. They share one search for the first rock, and one set-up of each
/// rock.
template <int lanes, class Body>
inline void draw_items(const RockList& list, std::uint64_t item, std::uint64_t end, float cell, const Warp& warp,
                       const Ground& ground) {
    for (std::uint32_t p = first_above(list.sums, item, list.first, list.last); item < end; ++p) {
        const std::uint64_t before = p == 0 ? 0 : list.sums[p - 1];
        const std::uint64_t stop = minimum(list.sums[p], end);
        if (item >= stop)
            continue; // a rock without pixels
        const RockFrame frame(list.rocks[p], cell);
        const Body body(frame, list.bodies[p], cell, warp);
        draw_pixels<lanes>(frame, body, static_cast<std::uint32_t>(item - before),
                           static_cast<std::uint32_t>(stop - before), ground);
        item = stop;
    }
}

} // namespace tarn::debris
