// What one cell of the thermal shaper does: the slope rule that takes material off cells that stand above their
// neighbours.
#pragma once

#include <cstddef>
#include <cstdint>

#include <sycl/sycl.hpp>

#include "device/backend.hpp"
#include "grid/neighbourhood.hpp"
#include "grid/numeric.hpp"
#include "grid/power.hpp"

namespace tarn::thermal_shaper {

/// Gradient of the heights by the 3-10-3 operator of H. Scharr, normalised by 32. `inverse_scale` turns a difference of
/// heights between neighbours into a slope. Out come `slope`, the gradient's length; `drop`, the largest fall to a
/// neighbour, the diagonal ones shortened to unit distance; and `curvature`, how far the cell stands above the
/// distance-weighted mean of its neighbours. All three are in units of slope.
inline sycl::vec<float, 2> gradient(const Neighbourhood& n, float inverse_scale, float& slope, float& drop,
                                    float& curvature) {
    const float normalisation = inverse_scale * 0.03125f;
    const float gx = (((n.c + n.i) - (n.a + n.g)) * 3.0f + (n.f - n.d) * 10.0f) * normalisation;
    const float gy = -(((n.a + n.c) - (n.g + n.i)) * 3.0f + (n.b - n.h) * 10.0f) * normalisation;
    slope = length(gx, gy);
    curvature =
        (n.e - (((n.d + n.b) + n.h + n.f) * 0.14644662f + (((n.a + n.c) + n.g) + n.i) * 0.10355339f)) * inverse_scale;
    drop = maximum(maximum(maximum(n.e - n.a, n.e - n.c), maximum(n.e - n.g, n.e - n.i)) * 0.7071f,
                   maximum(maximum(n.e - n.b, n.e - n.d), maximum(n.e - n.f, n.e - n.h))) *
           inverse_scale;
    return {gx, gy};
}

/// What the slope rule finds out about a cell from its surroundings.
struct CellState {
    /// How far the cell is pushed down before the slope has its say; never positive.
    float push;
    float slope;
    float drop;
};

inline CellState cell_state(const Neighbourhood& n, float inverse_scale, float curvature_weight) {
    CellState cell;
    float curvature;
    gradient(n, inverse_scale, cell.slope, cell.drop, curvature);
    cell.push = minimum(-(cell.slope + curvature_weight * curvature), 0.0f);
    return cell;
}

constexpr float steepness_scale = 0.1f;
constexpr float steepness_exponent = 0.7071f;

inline float steepness_of_power(float power) {
    return 1.0f - 1.0f / (power + 1.0f);
}

/// The share of the push that a slope above 0 lets through: little on gentle ground, towards 1 on steep faces.
inline float steepness(float slope) {
    return steepness_of_power(sycl::pow(slope * steepness_scale, steepness_exponent));
}

/// The new height. A cell loses at most its fall to its lowest neighbour, and one below all its neighbours rises by it.
inline float shed(float height, float push, float drop, float scale) {
    return height + maximum(push, -drop) * scale;
}

/// The constants of one iteration.
struct Iteration {
    float scale;
    float inverse_scale;
    float curvature_weight;
    float strength;
};

template <bool has_mask>
inline float shaped_push(float push, float steep, float strength, float mask) {
    const float p = push * (strength * steep);
    return has_mask ? p * mask : p;
}

/// One iteration at one cell.
template <bool has_mask>
inline float process_cell(const Neighbourhood& n, const Iteration& iteration, float mask) {
    const CellState cell = cell_state(n, iteration.inverse_scale, iteration.curvature_weight);
    const float steep = cell.slope > 0.0f ? steepness(cell.slope) : 0.0f;
    return shed(n.e, shaped_push<has_mask>(cell.push, steep, iteration.strength, mask), cell.drop, iteration.scale);
}

/// One iteration over the columns `first` to `last` of a row, none of them at a border, for CPUs. The power function is
/// estimated for many cells at once and asked for the few where the estimate is not sure; both loops around that are
/// plain ones that vectorise.
template <bool has_mask>
inline void process_interior(float* destination, const NeighbourRows& rows, int width, int first, int last,
                             const Iteration& iteration, const float* mask) {
    constexpr int piece = 256;
    float push[piece], slope[piece], drop[piece], power[piece];
    std::int32_t ask[piece];
    for (int start = first; start < last; start += piece) {
        const int count = minimum(piece, last - start);
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count; ++k) {
            const CellState cell = cell_state(neighbourhood<true>(rows, width, start + k), iteration.inverse_scale,
                                              iteration.curvature_weight);
            push[k] = cell.push;
            slope[k] = cell.slope;
            drop[k] = cell.drop;
        }
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count; ++k) {
            const PowerEstimate estimate = estimate_power(slope[k] * steepness_scale, steepness_exponent);
            power[k] = estimate.value;
            // No steepness matters where nothing is pushed.
            ask[k] = (slope[k] > 0.0f) & (push[k] != 0.0f) & !estimate.sure;
        }
        for (int k = 0; k < count; ++k)
            if (ask[k] != 0)
                power[k] = sycl::pow(slope[k] * steepness_scale, steepness_exponent);
        TARN_INDEPENDENT_ITERATIONS
        for (int k = 0; k < count; ++k) {
            const int x = start + k;
            const float steep = slope[k] > 0.0f ? steepness_of_power(power[k]) : 0.0f;
            const float p = shaped_push<has_mask>(push[k], steep, iteration.strength, has_mask ? mask[x] : 1.0f);
            destination[x] = shed(rows.middle[x], p, drop[k], iteration.scale);
        }
    }
}

} // namespace tarn::thermal_shaper
