// Vectors of three with their operations written out, so that every SYCL implementation rounds them alike.
#pragma once

#include <cmath>

#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

inline float scalar_product(const vec3& a, const vec3& b) {
    return a.x() * b.x() + a.y() * b.y() + a.z() * b.z();
}

inline vec3 vector_product(const vec3& a, const vec3& b) {
    return vec3(a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(), a.x() * b.y() - a.y() * b.x());
}

/// `v` in its direction with length 1; a zero vector stays zero.
inline vec3 unit_vector(const vec3& v) {
    const float length = sycl::sqrt(scalar_product(v, v));
    return length == 0.0f ? v : vec3(v.x() / length, v.y() / length, v.z() / length);
}

} // namespace tarn::mesh_rasterizer
