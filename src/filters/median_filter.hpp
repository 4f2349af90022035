// A round median filter over a square grid: each cell becomes the mean of the three middle samples of a disc around it.
#pragma once

#include <cstdint>

#include <sycl/sycl.hpp>
#include <tarn/oneapi.h>

namespace tarn::median_filter {

using Parameters = median_filter_Parameters;

/// Side of the square of cells that a work-group filters; the grid's side must be a multiple of it.
inline constexpr int tile_side = 32;
/// Larger radii count as this one: its 213 samples are the most that the sorting network of 256 entries leaves room
/// for.
inline constexpr int largest_radius = 8;
/// More iterations count as this many: nothing can end a run before its time.
inline constexpr std::uint32_t most_iterations = 10000;

/// Runs the filter over `data` in place. `capacity` is the number of entries that are sorted in each cell, the samples
/// and what they are padded with; a power of two. The grid holds its result when this returns.
template <int capacity>
void filter(sycl::queue& queue, float* data, const Parameters& parameters);

extern template void filter<256>(sycl::queue& queue, float* data, const Parameters& parameters);

} // namespace tarn::median_filter
