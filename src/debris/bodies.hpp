// The bodies of rocks: what height a rock has over a point of the map.
#pragma once

#include <cstdint>

#include <sycl/sycl.hpp>

#include "debris/debris.hpp"
#include "debris/noise.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::debris {

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

/// Pixels in a row of a rock's window.
inline std::uint32_t window_columns(float radius) {
    return static_cast<std::uint32_t>(radius) + 1u;
}

/// Where the window of a rock begins, along either axis.
inline float window_start(float centre, float radius) {
    return centre - static_cast<float>(window_columns(radius) >> 1);
}

/// A rock as its pixels see it. `along` runs up the slope, `across` along it.
struct RockFrame {
    RockFrame(const ParticleRen& ren, float cell)
        : x(ren.x), y(ren.y), radius(ren.radius), gradient_x(ren.gradient_x), gradient_y(ren.gradient_y),
          tilt(ren.gradient_length / cell), along_x(ren.gradient_x / ren.gradient_length),
          along_y(ren.gradient_y / ren.gradient_length), across_x(-along_y), across_y(along_x),
          left(window_start(ren.x, ren.radius)), top(window_start(ren.y, ren.radius)), first_column(ren.first_column),
          columns(ren.columns), first_row(ren.first_row), size_ratio(ren.size_ratio), height_scale(ren.height_scale),
          base_height(ren.base_height), state(nonzero_state(ren.rock_seed)) {}

    float x, y;
    float radius;
    float gradient_x, gradient_y;
    /// True slope.
    float tilt;
    float along_x, along_y;
    float across_x, across_y;
    /// Where the rock's window begins, and the part of it that lies on the grid.
    float left, top;
    std::uint32_t first_column, columns, first_row;
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

} // namespace tarn::debris
