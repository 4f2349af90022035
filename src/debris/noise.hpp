// Noise over the plane, from hashes alone, without tables.
#pragma once

#include <sycl/sycl.hpp>

namespace tarn::debris::noise {

inline float fract(float x) {
    return x - sycl::floor(x);
}

/// 6 t^5 - 15 t^4 + 10 t^3: flat to the second derivative at both ends (K. Perlin, Improving Noise, 2002).
inline float fade(float t) {
    return t * t * t * (t * (t * 6.0f - 15.0f) + 10.0f);
}

inline float mix(float a, float b, float t) {
    return a + (b - a) * t;
}

inline float mod289(float x) {
    return x - sycl::floor(x * 0.0034602077f) * 289.0f;
}

/// A permutation of 0 to 288.
inline float permute(float x) {
    return mod289((x * 34.0f + 10.0f) * x);
}

/// What a lattice corner adds at a place that lies (x, y) from it: the rise along the corner's random gradient.
inline float corner_rise(float corner_x, float corner_y, float x, float y) {
    const float p = permute(permute(corner_x) + corner_y);
    float gx = fract(p * 0.024390243f) * 2.0f - 1.0f; // 1 / 41
    const float gy = sycl::fabs(gx) - 0.5f;
    gx -= sycl::floor(gx + 0.5f);
    // The inverse square root of a Taylor series brings the gradient close to length 1.
    const float norm = 1.7928429f - 0.85373473f * (gx * gx + gy * gy);
    return gx * norm * x + gy * norm * y;
}

/// Gradient noise in two dimensions, about -1 to 1 (K. Perlin, An Image Synthesizer, 1985), with a permutation
/// polynomial in place of tables (S. Gustavson and I. McEwan, Efficient computational noise in GLSL, 2012).
inline float gradient(float x, float y) {
    const float left = sycl::floor(x), top = sycl::floor(y);
    const float fx = x - left, fy = y - top;
    const float x0 = mod289(left), x1 = mod289(left + 1.0f);
    const float y0 = mod289(top), y1 = mod289(top + 1.0f);
    const float u = fade(fx), v = fade(fy);
    const float upper = mix(corner_rise(x0, y0, fx, fy), corner_rise(x1, y0, fx - 1.0f, fy), u);
    const float lower = mix(corner_rise(x0, y1, fx, fy - 1.0f), corner_rise(x1, y1, fx - 1.0f, fy - 1.0f), u);
    return 2.3f * mix(upper, lower, v);
}

/// A number from 0 to 1 for a lattice corner.
inline float corner_value(float x, float y) {
    float a = fract(x * 0.1031f), b = fract(y * 0.1031f), c = fract(x * 0.1031f);
    const float shift = a * (b + 33.33f) + b * (c + 33.33f) + c * (a + 33.33f);
    a += shift;
    b += shift;
    c += shift;
    return fract((a + b) * c);
}

/// Value noise in two dimensions, -1 to 1.
inline float value(float x, float y) {
    const float left = sycl::floor(x), top = sycl::floor(y);
    const float u = fade(x - left), v = fade(y - top);
    const float upper = mix(corner_value(left, top), corner_value(left + 1.0f, top), u);
    const float lower = mix(corner_value(left, top + 1.0f), corner_value(left + 1.0f, top + 1.0f), u);
    return mix(upper, lower, v) * 2.0f - 1.0f;
}

} // namespace tarn::debris::noise
