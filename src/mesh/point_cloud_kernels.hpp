// Where a point goes that lies on the rim of the frame, and how a triangle finds its colour in an image.
#pragma once

#include <cstddef>
#include <cstdint>

#include "grid/bilinear.hpp"
#include "grid/launch_lanes.hpp"
#include "grid/numeric.hpp"
#include "mesh/mesh_rasterizer.hpp"

namespace tarn::mesh_rasterizer {

/// Moves a coordinate within one cell of the frame's rim ten cells out, so that the surface covers the rim's cells to
/// their edge. What lies further out moves there as well, and what is not a number.
inline float moved_off_rim(float coordinate, std::int32_t size) {
    if (coordinate < 1.0f)
        coordinate = -10.0f;
    if (!(coordinate < static_cast<float>(size - 1)))
        coordinate = static_cast<float>(std::int64_t{size} + 9);
    return coordinate;
}

/// The colour of a triangle from the image under it: a vote among samples, in which each counts for those of a colour
/// near its own. So a triangle across a sharp border takes the colour of the larger side, and no mixture.
struct ColourVote {
    static constexpr int samples = 13;
    /// Room for the samples in whole vectors.
    static constexpr int lanes = cpu_lanes;
    static_assert(samples <= lanes);

    /// 0 where colours are not numbers.
    vec3 operator()(const vec3& a, const vec3& b, const vec3& c) const {
        float r[lanes] = {}, g[lanes] = {}, bl[lanes] = {}, densities[lanes] = {};
        for (int n = 0; n < samples; ++n) {
            const std::ptrdiff_t i = cell(n, a, b, c);
            r[n] = red[i];
            g[n] = green[i];
            bl[n] = blue[i];
        }
        for (int other = 0; other < samples; ++other) {
            for (int n = 0; n < lanes; ++n) {
                const float dr = r[n] - r[other], dg = g[n] - g[other], db = bl[n] - bl[other];
                densities[n] += 1.0f / (dr * dr + dg * dg + db * db + 0.001f);
            }
        }
        vec3 colour(0.0f, 0.0f, 0.0f);
        float highest = 0.0f;
        for (int n = 0; n < samples; ++n) {
            if (densities[n] > highest) {
                highest = densities[n];
                colour = vec3(r[n], g[n], bl[n]);
            }
        }
        return colour;
    }

    const float* red;
    const float* green;
    const float* blue;
    int width, height;

  private:
    /// The cell under a sample.
    std::ptrdiff_t cell(int n, const vec3& a, const vec3& b, const vec3& c) const {
        constexpr float weights[samples][3] = {{1.0f, 1.0f, 1.0f},   {0.6f, 0.2f, 0.2f},   {0.2f, 0.6f, 0.2f},
                                               {0.2f, 0.2f, 0.6f},   {0.4f, 0.4f, 0.2f},   {0.4f, 0.2f, 0.4f},
                                               {0.2f, 0.4f, 0.4f},   {0.7f, 0.15f, 0.15f}, {0.15f, 0.7f, 0.15f},
                                               {0.15f, 0.15f, 0.7f}, {0.5f, 0.25f, 0.25f}, {0.25f, 0.5f, 0.25f},
                                               {0.25f, 0.25f, 0.5f}};
        const float scale = n == 0 ? 0.333f : 1.0f;
        const auto& w = weights[n];
        const float x = (a.x() * w[0] + b.x() * w[1] + c.x() * w[2]) * scale;
        const float y = (a.y() * w[0] + b.y() * w[1] + c.y() * w[2]) * scale;
        return static_cast<std::ptrdiff_t>(clamp_index(cell_of(y), height)) * width + clamp_index(cell_of(x), width);
    }
};

} // namespace tarn::mesh_rasterizer
