// What one rock and one pixel of it do.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "debris/debris.hpp"
#include "debris/noise.hpp"
#include "device/backend.hpp"
#include "grid/atomic.hpp"
#include "grid/bilinear.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

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

/// Moves a rock through all its time steps, or until it leaves the terrain, where it stays. The step over the map is
/// divided by the width of a cell.
inline void simulate(const GlobalContext& context, const float* height, float* speed, ParticlePos& pos,
                     ParticleSim& sim) {
    constexpr int steps = 1000;
    const float size = context.parameters.terrain_size;
    Inclination inclination;
    for (int step = 0; step < steps && sim.alive != 0; ++step) {
        slide(context, height, speed, pos, sim, inclination);
        pos.x += (sim.direction_x * context.time_step) / context.units_per_cell;
        pos.y += (sim.direction_y * context.time_step) / context.units_per_cell;
        pos.z = 0.0f;
        if (pos.x < 0.0f || pos.y < 0.0f || pos.x > size || pos.y > size)
            sim.alive = 0;
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Bodies

/// A point over the unit square.
struct BodyPoint {
    float u;
    float v;
    float z;
};

/// The plane through three points, by G. Cramer's rule.
inline SharpRock::Plane plane_through(const BodyPoint& p, const BodyPoint& q, const BodyPoint& r) {
    const float determinant = ((q.u - p.u) * r.v + (p.v - q.v) * r.u) + p.u * q.v - p.v * q.u;
    return {((q.z - p.z) * r.v + (p.v - q.v) * r.z + p.z * q.v - p.v * q.z) / determinant,
            ((q.u - p.u) * r.z + (p.z - q.z) * r.u + p.u * q.z - p.z * q.u) / determinant,
            ((p.u * q.v - q.u * p.v) * r.z + (q.u * p.z - p.u * q.z) * r.v + (p.v * q.z - q.v * p.z) * r.u) /
                determinant};
}

inline void SharpRock::init(std::uint32_t seed, float phase) {
    std::uint32_t state = nonzero_state(seed + 47u);
    const auto draw = [&](float scale) {
        state = xorshift(state);
        return random_number(state) * scale;
    };
    constexpr float to_tenth = 2.3283065e-11f, to_fifth = 4.656613e-11f, to_four_fifths = 1.8626452e-10f;

    // Four corners about a quarter of a turn apart, on a circle by a parabolic sine.
    const float start = draw(to_tenth) + phase;
    BodyPoint corners[4];
    for (int i = 0; i < 4; ++i) {
        const float turn = (start + 0.25f * static_cast<float>(i)) + draw(to_fifth);
        const auto sine = [](float t) {
            const float f = (t - sycl::floor(t)) * 2.0f - 1.0f;
            return f * 4.0f * (1.0f - sycl::fabs(f));
        };
        corners[i] = {sine(turn - 0.25f) * 0.5f + 0.5f, -sine(turn) * 0.5f + 0.5f, 0.0f};
    }
    const float w1 = draw(to_four_fifths), w2 = draw(to_four_fifths);
    const auto between = [=](float a, float b, float c, float d) {
        return (a * (w1 + 0.1f) + b * (0.9f - w1)) * (w2 + 0.1f) + (c * (w1 + 0.1f) + d * (0.9f - w1)) * (0.9f - w2);
    };
    const BodyPoint peak{between(corners[0].u, corners[1].u, corners[2].u, corners[3].u),
                         between(corners[0].v, corners[1].v, corners[2].v, corners[3].v), 2.0f};
    for (int i = 0; i < 4; ++i)
        planes[i] = plane_through(corners[i], corners[(i + 1) % 4], peak);

    // The cut goes through three points at heights from 0.3 to 2.
    constexpr float to_span = 3.958121e-10f;
    const float h0 = draw(to_span) + 0.3f, h1 = draw(to_span) + 0.3f, h2 = draw(to_span) + 0.3f;
    if (draw(unit_scale) < 0.5f)
        planes[4] = plane_through({0.5f, 1.0f, h0}, {0.0669873f, 0.25f, h1}, {0.9330127f, 0.25f, h2});
    else
        planes[4] = plane_through({0.5f, 0.0f, h0}, {0.9330127f, 0.75f, h1}, {0.0669873f, 0.75f, h2});
}

/// Height of a body: above 0 over its base, below it everywhere else.
inline float body_height(const SharpRock& rock, float u, float v) {
    const auto at = [=](const SharpRock::Plane& plane) {
        return plane.a * u + plane.b * v + plane.c;
    };
    float height = at(rock.planes[0]);
    for (int i = 1; i < 5; ++i)
        height = minimum(height, at(rock.planes[i]));
    return height;
}

/// What a rock lies on, how large it comes out, and how many work-items it takes. Large rocks are flatter, and so are
/// rocks on twisted ground; rocks sink into rough ground.
inline void lay_down(const GlobalContext& context, const float* height, const ParticlePos& pos, ParticleRen& ren) {
    ren.x = pos.x * context.cells_per_unit;
    ren.y = pos.y * context.cells_per_unit;
    ren.radius = context.cells_per_unit * pos.radius;
    const std::uint32_t window = static_cast<std::uint32_t>(ren.radius) * 3u + 1u;
    const bool unmoved = pos.x == ren.birthplace_x && pos.y == ren.birthplace_y;
    ren.pixel_count = unmoved && context.parameters.draw_unmoved == 0 ? 0u : window * window;

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

// ---------------------------------------------------------------------------------------------------------------------
// Pixels

/// The noise of both coordinates that a rock is roughened with.
struct Warp {
    const float* a;
    const float* b;
};

/// The row of a warp grid, or its column, at a coordinate that the noise may not reach to.
inline float warp_coordinate(float coordinate) {
    return minimum(maximum(0.0f, coordinate), static_cast<float>(Debris::warp_columns) - 1.0f);
}

inline std::uint32_t warp_index(float column, float row) {
    constexpr auto columns = static_cast<std::uint32_t>(Debris::warp_columns);
    constexpr auto rows = static_cast<std::uint32_t>(Debris::warp_rows);
    return minimum(static_cast<std::uint32_t>(row), rows - 1u) * columns +
           minimum(static_cast<std::uint32_t>(column), columns - 1u);
}

/// A rock as its pixels see it. `along` runs up the slope, `across` along it.
struct RockFrame {
    RockFrame(const ParticleRen& ren, float cell)
        : x(ren.x), y(ren.y), radius(ren.radius), gradient_x(ren.gradient_x), gradient_y(ren.gradient_y),
          tilt(ren.gradient_length / cell), along_x(ren.gradient_x / ren.gradient_length),
          along_y(ren.gradient_y / ren.gradient_length), across_x(-along_y), across_y(along_x),
          side(static_cast<std::uint32_t>(ren.radius) + 1u), half(static_cast<float>(side >> 1)),
          size_ratio(ren.size_ratio), height_scale(ren.height_scale), base_height(ren.base_height),
          state(nonzero_state(ren.rock_seed)) {}

    float x, y;
    float radius;
    float gradient_x, gradient_y;
    /// True slope.
    float tilt;
    float along_x, along_y;
    float across_x, across_y;
    /// Pixels in a row of the rock's window. There are more rows than the body reaches over.
    std::uint32_t side;
    float half;
    float size_ratio;
    float height_scale;
    float base_height;
    std::uint32_t state;
};

/// The body with facets: two sharp ones, mixed, where the lower one cuts more than it adds.
struct SharpBody {
    SharpBody(const RockFrame& frame, const RockBodies& bodies, float, const Warp& warp_grids)
        : rock(bodies), warp(warp_grids) {
        const std::uint32_t s1 = xorshift(frame.state);
        warp_start = random_number(s1) * unit_scale * static_cast<float>(Debris::warp_columns);
        id = random_number(xorshift(xorshift(s1))) * unit_scale;
    }

    /// The height over the centre of the cell at (wx, wy).
    float height(const RockFrame& f, float wx, float wy) const {
        constexpr auto columns = static_cast<float>(Debris::warp_columns);
        constexpr auto half_columns = static_cast<float>(Debris::warp_columns >> 1);
        const float dx = sycl::floor(wx) + 0.5f - f.x;
        const float dy = sycl::floor(wy) + 0.5f - f.y;
        // On a slope the body is squeezed towards its lower side.
        const float t = 0.5f - ((f.along_x * dx + f.along_y * dy) * (f.tilt * 0.255f + 1.0f)) / f.radius;
        const float e = (0.5f - (((t * t - t) * (1.0f - 1.0f / (f.tilt * 6.0f + 1.0f))) + t)) * f.radius;
        const float q = f.across_x * dx + f.across_y * dy;

        const float column = warp_coordinate(q * (columns - 1.0f) / f.radius + half_columns);
        const float row = warp_coordinate(e * (columns - 1.0f) / f.radius + half_columns);
        const std::uint32_t i = warp_index(column, row + warp_start);
        const float roughness = (warp.a[i] + warp.b[i]) * 0.025f;

        const float ex = q * f.across_x + e * f.along_x;
        const float ey = q * f.across_y + e * f.along_y;
        const float scale = 1.2f / f.radius;
        const float u = 0.5f - ex * scale;
        const float v = 0.5f - ey * scale;
        const float h1 = body_height(rock.first, u, v), h2 = body_height(rock.second, u, v);
        const float mixed = ((h1 + h2) + minimum(h1, h2)) * 0.22f;
        // Flanks fall off steeply below the base, so that they meet the terrain at a sharp edge.
        const float fallen = mixed > -1.0f ? mixed / (mixed + 1.0f) : -99999.9f;
        const float body = mixed < 0.0f ? fallen : mixed;
        return f.base_height + ((body + roughness) * (f.tilt * 0.7f + 1.0f)) * f.height_scale +
               (ex * f.gradient_x + ey * f.gradient_y);
    }

    RockBodies rock;
    Warp warp;
    /// Where the rock's band of the noise starts.
    float warp_start;
    float id;
};

/// A round body, warped by noise. No run draws it.
struct RoundedBody {
    RoundedBody(const RockFrame& frame, const RockBodies&, float cell, const Warp& warp_grids) : warp(warp_grids) {
        std::uint32_t state = frame.state;
        const auto draw = [&](float unit) {
            state = xorshift(state);
            return random_number(state) * unit;
        };
        constexpr float to_hundred = 2.3283064e-08f;
        noise_x1 = draw(to_hundred), noise_y1 = draw(to_hundred);
        noise_x2 = draw(to_hundred), noise_y2 = draw(to_hundred);
        warp_start = draw(unit_scale) * static_cast<float>(Debris::warp_columns) * 7.0f;
        id = draw(unit_scale);
        scale = (0.3f - frame.size_ratio * 0.1f) * frame.radius * cell;
    }

    float height(const RockFrame& f, float wx, float wy) const {
        constexpr auto columns = static_cast<float>(Debris::warp_columns);
        const float dx = sycl::floor(wx) + 0.5f - f.x;
        const float dy = sycl::floor(wy) + 0.5f - f.y;
        const float flattening = f.tilt * 0.5f;
        const float a = (f.along_x * dx + f.along_y * dy) * (f.tilt * 0.55f + 1.0f);
        const float q = f.across_x * dx + f.across_y * dy;
        const float nx = q / f.radius, ny = a / f.radius;
        const float n1 = noise::value(noise_x1 + nx * 1.5f, noise_y1 + ny * 1.5f);
        const float n2 = noise::value(noise_x2 + nx * 1.5f, noise_y2 + ny * 1.5f);
        const std::uint32_t i = warp_index(warp_coordinate(nx * columns + columns * 0.5f),
                                           warp_coordinate(ny * columns + columns * 0.5f) + warp_start);
        const float w1 = warp.a[i], w2 = warp.b[i];
        // The place on the body, warped on the map and then seen from the body's centre.
        const float bx = (q * f.across_x + a * f.along_x + f.x) + (n1 + w1 * 0.7f) * f.radius * 0.1f - f.x;
        const float by = (q * f.across_y + a * f.along_y + f.y) + (n2 + w2 * 0.7f) * f.radius * 0.1f - f.y;
        const float distance = (bx * bx + by * by) / (f.radius * f.radius * 0.1f);
        const float z = distance <= 1.0f ? sycl::sqrt(1.0f - distance) : -10.0f;
        return f.base_height +
               ((z + (w1 + w2) * 0.13f) * (flattening + 1.0f) - flattening) * (f.tilt * 0.7f + 1.0f) * scale +
               (bx * f.gradient_x + by * f.gradient_y);
    }

    Warp warp;
    float noise_x1, noise_y1, noise_x2, noise_y2;
    float warp_start;
    float scale;
    float id;
};

/// The grids that a pixel raises.
struct Ground {
    float* height;
    float* rock_id;
    int resolution;
};

/// Draws the pixels from `first` to before `last` of a rock's window: as many side by side as `lanes`.
template <int lanes, class Body>
inline void draw_pixels(const RockFrame& frame, const Body& body, std::uint32_t first, std::uint32_t last,
                        const Ground& ground) {
    const auto resolution = static_cast<float>(ground.resolution);
    std::uint32_t row = first / frame.side, column = first - row * frame.side;
    while (first < last) {
        const int count = static_cast<int>(minimum(last - first, static_cast<std::uint32_t>(lanes)));
        float wx[lanes], wy[lanes], height[lanes];
        for (int lane = 0; lane < count; ++lane) {
            wx[lane] = (frame.x - frame.half) + static_cast<float>(column);
            wy[lane] = (frame.y - frame.half) + static_cast<float>(row);
            if (++column == frame.side) {
                column = 0;
                ++row;
            }
        }
        TARN_INDEPENDENT_ITERATIONS
        for (int lane = 0; lane < count; ++lane)
            height[lane] = body.height(frame, wx[lane], wy[lane]);
        for (int lane = 0; lane < count; ++lane) {
            if (!(0.0f <= wx[lane] && wx[lane] < resolution && 0.0f <= wy[lane] && wy[lane] < resolution))
                continue;
            const std::ptrdiff_t cell =
                static_cast<std::ptrdiff_t>(wy[lane]) * ground.resolution + static_cast<std::ptrdiff_t>(wx[lane]);
            // Not tied to the raise: where two rocks raise a cell at the same moment, the id of either may stand.
            if (atomic_raise(ground.height[cell], height[lane]))
                SharedCell<float>(ground.rock_id[cell]).store(body.id);
        }
        first += static_cast<std::uint32_t>(count);
    }
}

} // namespace tarn::debris
