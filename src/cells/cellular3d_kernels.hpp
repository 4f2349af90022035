// What one lattice cell, one lattice column and one grid cell do.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "cells/cellular3d.hpp"
#include "grid/launch_lanes.hpp"
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

/// What a render finds the surface from.
struct SolidCells {
    Lattice lattice;
    const Point* points;
    const float* solidity;
    const float* cell_random;

    bool is_solid(int x, int y, int z) const { return solidity[lattice.index(x, y, z)] != 0.0f; }

    Plane plane(int cell, int neighbour) const {
        return bisector(points[cell], points[neighbour], 1.0f - solidity[cell]);
    }

    /// Calls `visit(plane)` for the planes of a candidate cell in a layer until it answers false, first for those that
    /// most likely bound it from above. `row` is the lattice row of the grid cell that is looked at. Neighbours are
    /// told by their distance from that row, so a candidate beside it has none on its far side: planes there face away
    /// from the column.
    template <class Visit>
    void for_planes(int candidate_x, int candidate_y, int z, int row, Visit visit) const {
        const int candidate = lattice.index(candidate_x, candidate_y, z);
        for (int nz = z + 1; nz >= z - 1; --nz)
            for (int ny = candidate_y - 1; ny <= candidate_y + 1; ++ny)
                for (int nx = candidate_x - 1; nx <= candidate_x + 1; ++nx) {
                    const int ax = nx - candidate_x, ay = ny - row, az = nz - z;
                    if (ax * ax + ay * ay + az * az > 3)
                        continue;
                    const int neighbour = lattice.index(nx, ny, nz);
                    if (neighbour != candidate && !visit(plane(candidate, neighbour)))
                        return;
                }
    }
};

/// The layer in which the search over a lattice column starts.
inline int start_layer(const Lattice& lattice, const int* top_layer_spread, int ix, int iy) {
    const int column = clamp_index(ix - Lattice::first, lattice.size_x);
    const int row = clamp_index(iy - Lattice::first, lattice.size_y);
    return minimum(top_layer_spread[row * lattice.size_x + column], lattice.last_z - 1);
}

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
                if (!cells.is_solid(cx, cy, z))
                    continue;
                float low = 0.0f, high = unbounded;
                bool rises = true;
                cells.for_planes(cx, cy, z, iy, [&](const Plane& plane) {
                    // A vertical plane bounds no height: the column is on one side of it or the other.
                    if (plane.normal_z == 0.0f)
                        low = overhang(plane, px, py) > 0.0f ? HUGE_VALF : low;
                    else if (plane.normal_z > 0.0f)
                        high = minimum(high, crossing(plane, px, py, cells.lattice.inverse_z));
                    else
                        low = maximum(low, crossing(plane, px, py, cells.lattice.inverse_z));
                    rises = low <= high && high > best.height;
                    return rises;
                });
                if (rises)
                    best = {high, cells.cell_random[cells.lattice.index(cx, cy, z)]};
            }
        if (found)
            break;
        found = best.height > 0.0f;
    }
    return best;
}

/// What `surface_at` does, for a square of grid cells side by side.
class SurfaceTile {
  public:
    static constexpr int side = 4;
    static constexpr int lanes = side * side;
    static_assert(lanes == cpu_lanes);

    /// Puts the square at (x, y). Cells of it from (end_x, end_y) on are those before these once more.
    void place(const Lattice& lattice, int x, int y, int end_x, int end_y) {
        x_ = x;
        y_ = y;
        columns_ = minimum(side, end_x - x);
        rows_ = minimum(side, end_y - y);
        is_finished_ = false;
        for (int lane = 0; lane < lanes; ++lane) {
            px_[lane] = static_cast<float>(x + minimum(lane % side, columns_ - 1)) * lattice.scale_x;
            py_[lane] = static_cast<float>(y + minimum(lane / side, rows_ - 1)) * lattice.scale_y;
            height_[lane] = random_[lane] = least_[lane] = 0.0f;
            is_found_[lane] = 0;
        }
    }

    bool is_finished() const { return is_finished_; }

    /// A candidate of which no plane has been looked at.
    void begin() {
        for (int lane = 0; lane < lanes; ++lane) {
            low_[lane] = 0.0f;
            high_[lane] = unbounded;
        }
    }

    /// Clips the candidate by a plane. False if it raises no cell's surface any more.
    bool clip(Plane plane, float inverse_z) {
        std::int32_t rises = 0;
        if (plane.normal_z == 0.0f) {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < lanes; ++lane) {
                const float low = overhang(plane, px_[lane], py_[lane]) > 0.0f ? HUGE_VALF : low_[lane];
                low_[lane] = low;
                rises |= does_rise(lane) ? 1 : 0;
            }
        } else if (plane.normal_z > 0.0f) {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < lanes; ++lane) {
                high_[lane] = minimum(high_[lane], crossing(plane, px_[lane], py_[lane], inverse_z));
                rises |= does_rise(lane) ? 1 : 0;
            }
        } else {
            TARN_INDEPENDENT_ITERATIONS
            for (int lane = 0; lane < lanes; ++lane) {
                low_[lane] = maximum(low_[lane], crossing(plane, px_[lane], py_[lane], inverse_z));
                rises |= does_rise(lane) ? 1 : 0;
            }
        }
        return rises != 0;
    }

    /// Raises the surface to what is left of the candidate.
    void raise(float random) {
        TARN_INDEPENDENT_ITERATIONS
        for (int lane = 0; lane < lanes; ++lane) {
            const Mask rises = mask_of(does_rise(lane));
            height_[lane] = blend(rises, high_[lane], height_[lane]);
            least_[lane] = blend(rises, high_[lane], least_[lane]);
            random_[lane] = blend(rises, random, random_[lane]);
        }
    }

    void end_layer() {
        is_finished_ = true;
        for (int lane = 0; lane < lanes; ++lane) {
            // One layer more is looked at after the first that has a surface.
            if (is_found_[lane] != 0)
                least_[lane] = HUGE_VALF;
            else
                is_finished_ = false;
            is_found_[lane] = height_[lane] > 0.0f ? 1 : 0;
        }
    }

    void write(float* height, float* random, int grid_width) const {
        for (int row = 0; row < rows_; ++row)
            for (int column = 0; column < columns_; ++column) {
                const std::ptrdiff_t cell = static_cast<std::ptrdiff_t>(y_ + row) * grid_width + x_ + column;
                height[cell] = height_[row * side + column];
                random[cell] = random_[row * side + column];
            }
    }

  private:
    bool does_rise(int lane) const { return (low_[lane] <= high_[lane]) & (high_[lane] > least_[lane]); }

    int x_, y_, columns_, rows_;
    bool is_finished_;
    float px_[lanes], py_[lanes];
    float height_[lanes], random_[lanes];
    /// What a candidate has to lie above: the surface, or infinity once that is final.
    float least_[lanes];
    std::int32_t is_found_[lanes];
    /// The heights inside the candidate.
    float low_[lanes], high_[lanes];
};

/// A rectangle of grid cells over one lattice column, so that the candidates and all their planes are the same.
class SurfaceBlock {
  public:
    /// Most cells in either direction.
    static constexpr int side = 16;

    SurfaceBlock(const SolidCells& cells, int x, int y, int end_x, int end_y)
        : cells_(cells), ix_(static_cast<int>(static_cast<float>(x) * cells.lattice.scale_x)),
          iy_(static_cast<int>(static_cast<float>(y) * cells.lattice.scale_y)) {
        for (int tile_y = y; tile_y < end_y; tile_y += SurfaceTile::side)
            for (int tile_x = x; tile_x < end_x; tile_x += SurfaceTile::side)
                tiles_[count_++].place(cells.lattice, tile_x, tile_y, end_x, end_y);
    }

    void find(const int* top_layer_spread) {
        int unfinished = count_;
        for (int z = start_layer(cells_.lattice, top_layer_spread, ix_, iy_); z > Lattice::first && unfinished > 0;
             --z) {
            for (int cy = iy_ - 1; cy <= iy_ + 1; ++cy)
                for (int cx = ix_ - 1; cx <= ix_ + 1; ++cx)
                    if (cells_.is_solid(cx, cy, z))
                        look_at(cx, cy, z);
            unfinished = 0;
            for (int n = 0; n < count_; ++n) {
                tiles_[n].end_layer();
                unfinished += tiles_[n].is_finished() ? 0 : 1;
            }
        }
    }

    void write(float* height, float* random, int grid_width) const {
        for (int n = 0; n < count_; ++n)
            tiles_[n].write(height, random, grid_width);
    }

  private:
    void look_at(int cx, int cy, int z) {
        const float inverse_z = cells_.lattice.inverse_z;
        const int candidate = cells_.lattice.index(cx, cy, z), middle = cells_.lattice.index(ix_, iy_, z);
        // The plane towards the column alone shows that most candidates beside it do not reach most tiles.
        SurfaceTile* reached[tile_count];
        int reached_count = 0;
        const Plane towards = candidate == middle ? Plane{} : cells_.plane(candidate, middle);
        for (int n = 0; n < count_; ++n) {
            if (tiles_[n].is_finished())
                continue;
            tiles_[n].begin();
            if (candidate == middle || tiles_[n].clip(towards, inverse_z))
                reached[reached_count++] = &tiles_[n];
        }
        if (reached_count == 0)
            return;
        Plane planes[26];
        int plane_count = 0;
        cells_.for_planes(cx, cy, z, iy_, [&](const Plane& plane) {
            planes[plane_count++] = plane;
            return true;
        });
        for (int n = 0; n < reached_count; ++n) {
            bool rises = true;
            for (int k = 0; k < plane_count && rises; ++k)
                rises = reached[n]->clip(planes[k], inverse_z);
            if (rises)
                reached[n]->raise(cells_.cell_random[candidate]);
        }
    }

    static constexpr int tile_count = (side / SurfaceTile::side) * (side / SurfaceTile::side);

    const SolidCells& cells_;
    int ix_, iy_;
    SurfaceTile tiles_[tile_count];
    int count_ = 0;
};

} // namespace tarn::cellular3d
