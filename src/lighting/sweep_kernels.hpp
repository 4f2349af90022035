// How light travels over a grid. For each ray, parallel lines run over the terrain, away from the light, one cell per
// step along the major axis of the ray, and carry a horizon that sinks by the ray's slope. A cell that comes out above
// the horizon sees the light: it is credited in the photon map, and the horizon jumps up to it. Lines that leave the
// grid come in again on the other side and start afresh there.
//
// A ray has one line for each cell of the grid along its minor axis, and a line takes one step for each cell along the
// major axis. Coordinates are 16.16 fixed point, in cells, so all lines of a ray run exactly parallel: after the same
// number of steps they have the same major coordinate, and minor coordinates that are whole cells apart. Hence no two
// lines of a ray ever meet in a cell, a ray visits each cell once, and lines that start side by side stay side by side
// in memory.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "grid/atomic.hpp"
#include "grid/launch_cells.hpp"
#include "grid/numeric.hpp"

namespace tarn::lighting {

using Fixed = std::int32_t;

inline constexpr int fixed_bits = 16;
inline constexpr Fixed fixed_one = Fixed{1} << fixed_bits;

/// A ray as its lines follow it. The major axis is the one along which a step goes a whole cell.
struct ScanRay {
    /// Whether the major axis is x.
    bool along_x;
    /// Where the line 0 starts. Line n starts n cells further along the minor axis.
    Fixed major;
    Fixed minor;
    Fixed major_step;
    Fixed minor_step;
    /// How much higher a line gets with each step; below 0 for light from above.
    float rise;
    /// The direction towards the light, for the cosine, and the factor that makes it a credit.
    float x;
    float y;
    float z;
    float factor;
};

/// Wraps a coordinate that has left the grid by less than the grid's size. True if it had left.
inline bool wrap(Fixed& coordinate, Fixed size) {
    const bool is_below = coordinate < 0, is_beyond = coordinate >= size;
    coordinate += is_below ? size : is_beyond ? -size : 0;
    return is_below || is_beyond;
}

/// The two cells of an axis that a coordinate lies between. Off the grid `weight` is below 0 or above 1.
struct Taps {
    int first;
    int second;
    float weight; ///< of the second
};

inline Taps taps_at(Fixed coordinate, int size) {
    const float place = static_cast<float>(coordinate) * 1.5258789e-05f - 0.5f;
    const int cell = static_cast<int>(maximum(place, 0.0f));
    const int first = minimum(cell, size - 1);
    return {first, minimum(cell + 1, size - 1), place - static_cast<float>(first)};
}

/// Along x first, then along y.
inline float mix(float upper_left, float upper_right, float lower_left, float lower_right, float x, float y) {
    const float upper = upper_left * (1.0f - x) + upper_right * x;
    const float lower = lower_left * (1.0f - x) + lower_right * x;
    return upper + y * (lower - upper);
}

/// The same on cells that are named by the axes of a ray: `near` and `far` along the major axis, `first` and `second`
/// along the minor one.
inline float mix_by_axes(bool along_x, float near_first, float near_second, float far_first, float far_second,
                         float major, float minor) {
    return along_x ? mix(near_first, far_first, near_second, far_second, major, minor)
                   : mix(near_first, near_second, far_first, far_second, minor, major);
}

/// A grid as a ray goes over it.
struct ScanShape {
    int steps; ///< cells along the major axis
    int lines; ///< cells along the minor axis
    /// How far apart in memory neighbours along either axis are.
    std::ptrdiff_t major_stride;
    std::ptrdiff_t minor_stride;

    std::ptrdiff_t index(int major_cell, int minor_cell) const {
        return major_cell * major_stride + minor_cell * minor_stride;
    }
    /// The periods of the coordinates.
    Fixed major_size() const { return steps << fixed_bits; }
    Fixed minor_size() const { return lines << fixed_bits; }
};

inline float interpolate_bilinear(Fixed major, Fixed minor, const float* heights, bool along_x,
                                  const ScanShape& shape) {
    const Taps far = taps_at(major, shape.steps), side = taps_at(minor, shape.lines);
    return mix_by_axes(along_x, heights[shape.index(far.first, side.first)],
                       heights[shape.index(far.first, side.second)], heights[shape.index(far.second, side.first)],
                       heights[shape.index(far.second, side.second)], far.weight, side.weight);
}

/// Moves a line's horizon one step on, to a cell at height `h`. True if the cell sees the light.
inline bool pass(float& horizon, float rise, float h) {
    const float z = horizon + rise;
    const bool is_lit = z < h;
    horizon = is_lit ? h : z;
    return is_lit;
}

/// The heights that the sun's rays meet, smooth between cells so that shadows have smooth edges. Each ray counts 1.
struct SunGround {
    const float* heights;
    ScanShape shape;

    float height(const ScanRay& ray, Fixed major, Fixed minor) const {
        return interpolate_bilinear(major, minor, heights, ray.along_x, shape);
    }

    /// The horizon that a line has at its start: the height one step back.
    float start(const ScanRay& ray, Fixed major, Fixed minor) const {
        return height(ray, major - ray.major_step, minor - ray.minor_step);
    }

    std::int32_t credit(const ScanRay&, std::ptrdiff_t) const { return 1; }
};

/// The heights that the rays of the sky meet: those of the nearest cells. A ray counts by the cosine between it and the
/// normal.
struct SkyGround {
    const float* heights;
    const float* normal_x;
    const float* normal_y;
    const float* normal_z;
    ScanShape shape;

    float height(const ScanRay&, Fixed major, Fixed minor) const {
        return heights[shape.index(major >> fixed_bits, minor >> fixed_bits)];
    }

    /// The horizon that a line has at its start: the height right there.
    float start(const ScanRay&, Fixed major, Fixed minor) const {
        return heights[shape.index(clamp_index(major >> fixed_bits, shape.steps),
                                   clamp_index(minor >> fixed_bits, shape.lines))];
    }

    /// A NaN counts nothing.
    std::int32_t credit(const ScanRay& ray, std::ptrdiff_t cell) const {
        const float credit = (normal_x[cell] * ray.x + normal_y[cell] * ray.y + normal_z[cell] * ray.z) * ray.factor;
        constexpr float limit = 0x1p30f;
        return static_cast<std::int32_t>(credit > -limit && credit < limit ? credit : 0.0f);
    }
};

/// One line of a ray. Many work-items do this at once and credit the same photon map.
template <class Ground>
inline void march_line(const Ground& ground, const ScanRay& ray, int line, std::int32_t* photons) {
    const ScanShape& shape = ground.shape;
    Fixed major = ray.major, minor = (line << fixed_bits) + ray.minor;
    float horizon = ground.start(ray, major, minor);
    for (int step = 0; step < shape.steps; ++step) {
        const bool major_wraps = wrap(major, shape.major_size()), minor_wraps = wrap(minor, shape.minor_size());
        if (major_wraps || minor_wraps)
            horizon = ground.start(ray, major, minor);
        if (pass(horizon, ray.rise, ground.height(ray, major, minor))) {
            const std::ptrdiff_t cell = shape.index(major >> fixed_bits, minor >> fixed_bits);
            atomic_add(photons[cell], ground.credit(ray, cell));
        }
        major += ray.major_step;
        minor += ray.minor_step;
    }
}

/// Moves `count` lines one step on. Their cells follow one another in memory.
template <bool along_x>
inline void advance(const SkyGround& ground, const ScanRay& ray, Fixed major, Fixed minor, int count, float* horizon,
                    std::int32_t* photons) {
    const std::ptrdiff_t cell = ground.shape.index(major >> fixed_bits, minor >> fixed_bits);
    TARN_INDEPENDENT_ITERATIONS
    for (int k = 0; k < count; ++k) {
        const std::int32_t credit = ground.credit(ray, cell + k);
        photons[cell + k] += pass(horizon[k], ray.rise, ground.heights[cell + k]) ? credit : 0;
    }
}

/// From `column` up to this one, coordinates with the same fraction have the same taps relative to their cell. A float
/// holds coordinates exactly up to cell 256, and rounds them all alike between two powers of two.
inline int end_of_equal_taps(int column) {
    return column == 0 ? 1 : column < 256 ? 256 : 2 * static_cast<int>(std::bit_floor(static_cast<unsigned>(column)));
}

template <bool along_x>
inline void advance(const SunGround& ground, const ScanRay& ray, Fixed major, Fixed minor, int count, float* horizon,
                    std::int32_t* photons) {
    const ScanShape& shape = ground.shape;
    const Taps far = taps_at(major, shape.steps);
    const float* const near_row = ground.heights + shape.index(far.first, 0);
    const float* const far_row = ground.heights + shape.index(far.second, 0);
    std::int32_t* const photon_row = photons + shape.index(major >> fixed_bits, 0);
    const int first = minor >> fixed_bits;
    for (int column = first; column < first + count;) {
        const int end = minimum(end_of_equal_taps(column), first + count);
        const Taps side = taps_at(minor + ((column - first) << fixed_bits), shape.lines);
        const int shift = side.first - column;
        // The last column may have no neighbour to mix with but itself.
        const int last = minimum(end, shape.lines - 1 - shift);
        TARN_INDEPENDENT_ITERATIONS
        for (int x = column; x < last; ++x) {
            const float* const near = near_row + shift;
            const float* const beyond = far_row + shift;
            const float h =
                mix_by_axes(along_x, near[x], near[x + 1], beyond[x], beyond[x + 1], far.weight, side.weight);
            photon_row[x] += pass(horizon[x - first], ray.rise, h) ? 1 : 0;
        }
        for (int x = maximum(column, last); x < end; ++x) {
            const float h = ground.height(ray, major, minor + ((x - first) << fixed_bits));
            photon_row[x] += pass(horizon[x - first], ray.rise, h) ? 1 : 0;
        }
        column = end;
    }
}

/// Where the lines of a ray are before a step: the coordinates of line 0, not yet wrapped, and the column in which the
/// step before left it.
struct FrontPosition {
    Fixed major;
    Fixed minor;
    int shift;
};

inline FrontPosition position_before(const ScanRay& ray, int step, const ScanShape& shape) {
    if (step == 0)
        return {ray.major, ray.minor, 0};
    const auto wrapped_before = [=](Fixed start, Fixed by, std::int64_t size) {
        const std::int64_t coordinate = (start + std::int64_t{step - 1} * by) % size;
        return static_cast<Fixed>(coordinate < 0 ? coordinate + size : coordinate);
    };
    const Fixed minor = wrapped_before(ray.minor, ray.minor_step, shape.minor_size());
    return {wrapped_before(ray.major, ray.major_step, shape.major_size()) + ray.major_step, minor + ray.minor_step,
            minor >> fixed_bits};
}

/// Lines of a ray, and the steps they are to march.
struct Front {
    int first_line;
    int last_line;
    int first_step;
    int last_step;
};

/// Marches lines side by side, from the position of line 0 before the first step. Cells that are neighbours along the
/// minor axis must be neighbours in memory. `horizons` has one horizon for each line of the ray. Gives the bits of
/// `march_line`, but nobody else may credit the same cells at the same time.
template <bool along_x, class Ground>
inline void march_front(const Ground& ground, const ScanRay& ray, FrontPosition position, const Front& front,
                        float* horizons, std::int32_t* photons) {
    const int columns = ground.shape.lines;
    const int first = front.first_line, last = front.last_line;
    const auto at = [](int column, Fixed fraction) {
        return (column << fixed_bits) + fraction;
    };
    if (front.first_step == 0)
        for (int line = first; line < last; ++line)
            horizons[line] = ground.start(ray, ray.major, at(line, ray.minor));

    auto [major, minor, shift] = position;
    for (int step = front.first_step; step < front.last_step; ++step) {
        const bool major_wraps = wrap(major, ground.shape.major_size());
        const int moved = (minor >> fixed_bits) - shift;
        wrap(minor, ground.shape.minor_size());
        shift = minor >> fixed_bits;
        const Fixed fraction = minor & (fixed_one - 1);
        // Lines from this one on have gone over the edge of the minor axis.
        const int edge = columns - shift;
        if (major_wraps) {
            for (int line = first; line < last; ++line)
                horizons[line] = ground.start(ray, major, at(line + shift - (line >= edge ? columns : 0), fraction));
        } else if (moved != 0) {
            // A step moves lines by one column at most, so only one of them can come in on the other side.
            const int column = moved > 0 ? 0 : columns - 1;
            const int line = column - shift + (column < shift ? columns : 0);
            if (line >= first && line < last)
                horizons[line] = ground.start(ray, major, at(column, fraction));
        }
        const int before_edge = minimum(last, edge), after_edge = maximum(first, edge);
        if (first < before_edge)
            advance<along_x>(ground, ray, major, at(first + shift, fraction), before_edge - first, horizons + first,
                             photons);
        if (after_edge < last)
            advance<along_x>(ground, ray, major, at(after_edge + shift - columns, fraction), last - after_edge,
                             horizons + after_edge, photons);
        major += ray.major_step;
        minor += ray.minor_step;
    }
}

/// Marches some steps of those lines of a ray that are in the columns from `first_column` to `last_column` before the
/// first of these steps.
template <bool along_x, class Ground>
inline void march_strip(const Ground& ground, const ScanRay& ray, int first_column, int last_column, int first_step,
                        int last_step, float* horizons, std::int32_t* photons) {
    const int columns = ground.shape.lines;
    const FrontPosition position = position_before(ray, first_step, ground.shape);
    const int first = first_column - position.shift + (first_column < position.shift ? columns : 0);
    const int last = first + last_column - first_column;
    march_front<along_x>(ground, ray, position, {first, minimum(last, columns), first_step, last_step}, horizons,
                         photons);
    if (last > columns)
        march_front<along_x>(ground, ray, position, {0, last - columns, first_step, last_step}, horizons, photons);
}

} // namespace tarn::lighting
