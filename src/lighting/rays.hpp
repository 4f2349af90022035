// The rays that light comes along, as tables: the sun's disc, the sphere of the sky, the sun's way over a span of days.
// All of it is host code.
#pragma once

#include <cstdint>
#include <vector>

#include "lighting/parameters.hpp"

namespace tarn::lighting {

struct Vector {
    float x;
    float y;
    float z;
};

/// The square of how far a direction goes along the ground. 0 for those that count as straight up or down: in float
/// their cross product with the vertical has no length. A NaN for those that are no direction at all.
inline float squared_ground_length(const Vector& direction) {
    return direction.x * direction.x + direction.y * direction.y;
}

/// A direction towards the light, and where in a cell the lines along it start, as (x, y) from 0 to 1.
struct Ray {
    Vector direction;
    float offset_x = 0.5f;
    float offset_y = 0.5f;
    float weight = 1.0f;
};

/// Most rings that the sun is cut into, and the finest sphere of the sky.
inline constexpr int most_sun_rings = 17;
inline constexpr int most_subdivisions = 3;

/// Rays towards the disc of the sun: `sun_rings` rings around its centre, 3n^2 + 3n + 1 in all, or -4 or -8 parallel
/// ones at different points of a cell. A sun straight above or below is its centre alone.
std::vector<Ray> sun_rays(const Parameters& parameters);

struct AmbientRays {
    /// Rays that come from above or from a little below the horizon.
    std::vector<Ray> rays;
    /// Vertices of the whole sphere.
    int total = 0;
};

/// Rays to the vertices of an icosahedron whose edges are halved `subdivisions` times.
AmbientRays ambient_rays(int subdivisions);

struct SunPosition {
    float elevation; ///< degrees
    /// Towards the sun, with east as +x, south as +y and up as +z.
    Vector direction;
};

/// Where the sun stands at `time`: the day of the year, with the time since midnight as its fraction. NaN where
/// rounding takes a sine or cosine beyond 1.
SunPosition sun_position(float time, const Parameters& parameters);

struct SunSamples {
    /// Where the sun stands above or close below the horizon.
    std::vector<Ray> rays;
    /// All samples, the night's as well.
    int total = 0;
};

/// Length in days of the span from `first_day` to `last_day`. Below 1 if `first_day` lies over a year after `last_day`.
std::int64_t days_of(const Parameters& parameters);

/// Positions of the sun over the span, evenly spread with a jitter, weighed by what the air lets through.
SunSamples sun_samples(const Parameters& parameters);

} // namespace tarn::lighting
