// What one lattice cell, one lattice column and one grid cell do.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "cells/cellular3d.hpp"
#include "device/backend.hpp"
#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::cellular3d {

/// The hash of Fowler, Noll and Vo (FNV-1a) with a coordinate in place of a byte, offset by the seed.
inline std::uint32_t lattice_hash(int x, int y, int z, std::uint32_t seed) {
    constexpr std::uint32_t basis = 0x811C9DC5u, prime = 0x1000193u;
    std::uint32_t hash = (static_cast<std::uint32_t>(x) ^ basis) * prime;
    hash = (hash ^ static_cast<std::uint32_t>(y)) * prime;
    hash = (hash ^ static_cast<std::uint32_t>(z)) * prime;
    return hash + seed;
}

/// Four random numbers from 0 to 1: three for a lattice cell's point, one for the cell itself.
struct CellRandoms {
    float x, y, z, cell;
};

template <int variant>
inline CellRandoms cell_randoms(std::uint32_t hash) {
    if constexpr (variant == 0) {
        constexpr float scale = 1.5259022e-05f;
        const auto low_half = [](std::uint32_t state) {
            return static_cast<float>(state & 0xFFFFu) * scale;
        };
        const auto next = [](std::uint32_t state) {
            return state * 0x5391313Du + 0x22FC2945u;
        };
        const std::uint32_t s1 = next(hash), s2 = next(s1), s3 = next(s2);
        return {low_half(s1), low_half(s2), low_half(s3), low_half(s3 * 12605u + 10565u)};
    } else {
        const auto unit = [](std::uint32_t state) {
            return random_number(state) * unit_scale;
        };
        const std::uint32_t s1 = xorshift(nonzero_state(hash)), s2 = xorshift(s1), s3 = xorshift(s2), s4 = xorshift(s3);
        return {unit(s1), unit(s2), unit(s3), unit(s4)};
    }
}

inline float jittered(float random, float jitter, int coordinate) {
    return (random - 0.5f) * jitter + static_cast<float>(coordinate) + 0.5f;
}

/// The row or column of the grid at a coordinate, which may be any float.
inline int grid_index(float coordinate, int size) {
    if (!(coordinate > 0.0f))
        return 0;
    return coordinate < static_cast<float>(size) ? minimum(static_cast<int>(coordinate), size - 1) : size - 1;
}

/// How solid a cell with this gap is. A gap of 1 or more removes the cell: its planes would lie past its point on all
/// sides and enclose nothing. So does a gap that is not a number.
inline float solidity_of(float gap) {
    const float solidity = 1.0f - gap;
    return solidity > 0.0f ? solidity : 0.0f;
}

/// The plane that bounds a cell towards a neighbour.
struct Plane {
    float normal_x, normal_y, normal_z;
    float x, y, z; ///< a point on it
};

/// The bisecting plane of a cell's point and a neighbour's, drawn back towards the cell by `gap`.
inline Plane bisector(const Point& cell, const Point& neighbour, float gap) {
    const float dx = neighbour.x - cell.x, dy = neighbour.y - cell.y, dz = neighbour.z - cell.z;
    const float length = sycl::sqrt(dx * dx + dy * dy + dz * dz);
    const float nx = dx / length, ny = dy / length, nz = dz / length;
    return {nx,
            ny,
            nz,
            (neighbour.x + cell.x) * 0.5f - nx * gap,
            (neighbour.y + cell.y) * 0.5f - ny * gap,
            (neighbour.z + cell.z) * 0.5f - nz * gap};
}

/// How far outside a plane a column would lie if the plane were vertical.
inline float overhang(const Plane& plane, float px, float py) {
    return plane.normal_x * (px - plane.x) + plane.normal_y * (py - plane.y);
}

/// The height at which a column meets a plane that is not vertical.
inline float crossing(const Plane& plane, float px, float py, float inverse_z) {
    return (plane.z - overhang(plane, px, py) / plane.normal_z) * inverse_z;
}

inline constexpr float unbounded = 3.4028235e+38f;

/// The parts of a render that find the surface.
struct SolidCells {
    Lattice lattice;
    const Point* points;
    const float* solidity;
    const float* cell_random;

    /// Calls `visit(plane)` for the planes of a candidate cell in a layer until it answers false. `row` is the lattice
    /// row of the grid cell that is looked at. Neighbours are told by their distance from that row, so a candidate
    /// beside it has none on its far side: planes there face away from the column.
    template <class Visit>
    void for_planes(int candidate_x, int candidate_y, int z, int row, Visit visit) const {
        const int candidate = lattice.index(candidate_x, candidate_y, z);
        const Point point = points[candidate];
        const float gap = 1.0f - solidity[candidate];
        for (int nz = z - 1; nz <= z + 1; ++nz)
            for (int ny = candidate_y - 1; ny <= candidate_y + 1; ++ny)
                for (int nx = candidate_x - 1; nx <= candidate_x + 1; ++nx) {
                    const int ax = nx - candidate_x, ay = ny - row, az = nz - z;
                    if (ax * ax + ay * ay + az * az > 3)
                        continue;
                    const int neighbour = lattice.index(nx, ny, nz);
                    if (neighbour == candidate)
                        continue;
                    if (!visit(bisector(point, points[neighbour], gap)))
                        return;
                }
    }
};

/// The surface over one cell of the grid.
struct Surface {
    float height = 0.0f;
    float random = 0.0f;
};

/// Where the column over a grid cell leaves a solid cell: the top of the highest one in the first layer that has any,
/// and in the one below it. The shape for GPUs.
inline Surface surface_at(const SolidCells& cells, int top, float px, float py) {
    const int ix = static_cast<int>(px), iy = static_cast<int>(py);
    Surface best;
    bool found = false;
    for (int z = top; z > Lattice::first; --z) {
        for (int cy = iy - 1; cy <= iy + 1; ++cy)
            for (int cx = ix - 1; cx <= ix + 1; ++cx) {
                const int candidate = cells.lattice.index(cx, cy, z);
                if (cells.solidity[candidate] == 0.0f)
                    continue;
                float low = 0.0f, high = unbounded;
                bool inside = true;
                cells.for_planes(cx, cy, z, iy, [&](const Plane& plane) {
                    // A vertical plane bounds no height: the column is on one side of it or the other.
                    if (plane.normal_z == 0.0f)
                        inside = !(overhang(plane, px, py) > 0.0f);
                    else if (plane.normal_z > 0.0f)
                        high = minimum(high, crossing(plane, px, py, cells.lattice.inverse_z));
                    else
                        low = maximum(low, crossing(plane, px, py, cells.lattice.inverse_z));
                    inside = inside && low <= high;
                    return inside;
                });
                if (inside && high > best.height)
                    best = {high, cells.cell_random[candidate]};
            }
        if (found)
            break;
        found = best.height > 0.0f;
    }
    return best;
}

/// As many grid cells of a row as a CPU takes side by side. They stand over the same lattice column, so their
/// candidates and all planes are the same.
struct SurfaceRun {
    static constexpr int lanes = 32;

    float px[lanes];
    float height[lanes], random[lanes];
    std::int32_t found[lanes], finished[lanes];
};

/// The interval of heights inside a cell, for each lane. A bound is written beside the old one and then takes its
/// place: that loop has no store that depends on a comparison.
class Intervals {
  public:
    explicit Intervals(int count) : count_(count) {
        for (int lane = 0; lane < count; ++lane) {
            low_[lane] = 0.0f;
            high_[lane] = unbounded;
        }
    }

    /// Clips by a plane. False if no lane has anything left.
    bool clip(const Plane& plane, const float* px, float py, float inverse_z) {
        std::int32_t alive = 0;
        if (plane.normal_z == 0.0f) {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < count_; ++lane) {
                const float low = overhang(plane, px[lane], py) > 0.0f ? HUGE_VALF : low_[lane];
                next_[lane] = low;
                alive |= low <= high_[lane] ? 1 : 0;
            }
            swap_pointers(low_, next_);
        } else if (plane.normal_z > 0.0f) {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < count_; ++lane) {
                const float high = minimum(high_[lane], crossing(plane, px[lane], py, inverse_z));
                next_[lane] = high;
                alive |= low_[lane] <= high ? 1 : 0;
            }
            swap_pointers(high_, next_);
        } else {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < count_; ++lane) {
                const float low = maximum(low_[lane], crossing(plane, px[lane], py, inverse_z));
                next_[lane] = low;
                alive |= low <= high_[lane] ? 1 : 0;
            }
            swap_pointers(low_, next_);
        }
        return alive != 0;
    }

    bool holds(int lane) const { return low_[lane] <= high_[lane]; }
    float high(int lane) const { return high_[lane]; }

  private:
    static void swap_pointers(float*& a, float*& b) {
        float* const c = a;
        a = b;
        b = c;
    }

    int count_;
    float storage_[3][SurfaceRun::lanes];
    float* low_ = storage_[0];
    float* high_ = storage_[1];
    float* next_ = storage_[2];
};

/// What `surface_at` does, for the first `count` lanes of a run in lattice column (ix, iy).
inline void surface_run(const SolidCells& cells, int top, int ix, float py, int count, SurfaceRun& run) {
    const int iy = static_cast<int>(py);
    for (int lane = 0; lane < count; ++lane) {
        run.height[lane] = run.random[lane] = 0.0f;
        run.found[lane] = run.finished[lane] = 0;
    }
    int left = count;
    for (int z = top; z > Lattice::first && left > 0; --z) {
        for (int cy = iy - 1; cy <= iy + 1; ++cy)
            for (int cx = ix - 1; cx <= ix + 1; ++cx) {
                const int candidate = cells.lattice.index(cx, cy, z);
                if (cells.solidity[candidate] == 0.0f)
                    continue;
                Intervals intervals(count);
                bool inside = true;
                cells.for_planes(cx, cy, z, iy, [&](const Plane& plane) {
                    inside = intervals.clip(plane, run.px, py, cells.lattice.inverse_z);
                    return inside;
                });
                if (!inside)
                    continue;
                const float random = cells.cell_random[candidate];
                for (int lane = 0; lane < count; ++lane)
                    if (run.finished[lane] == 0 && intervals.holds(lane) && intervals.high(lane) > run.height[lane]) {
                        run.height[lane] = intervals.high(lane);
                        run.random[lane] = random;
                    }
            }
        left = 0;
        for (int lane = 0; lane < count; ++lane) {
            run.finished[lane] = run.found[lane];
            run.found[lane] = run.height[lane] > 0.0f ? 1 : 0;
            left += run.finished[lane] == 0 ? 1 : 0;
        }
    }
}

/// The layer in which the search over a lattice column starts.
inline int start_layer(const Lattice& lattice, const int* top_layer_spread, int ix, int iy) {
    const int column = clamp_index(ix - Lattice::first, lattice.size_x);
    const int row = clamp_index(iy - Lattice::first, lattice.size_y);
    return minimum(top_layer_spread[row * lattice.size_x + column], lattice.last_z - 1);
}

} // namespace tarn::cellular3d
