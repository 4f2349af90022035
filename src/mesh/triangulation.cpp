// Dividing and merging is fast, but tests in doubles; the sweep line is exact where points lie on one circle. A
// triangle's number is a random number's seed, so both have to number triangles alike.
#include "mesh/triangulation.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <tuple>

#include <boost/sort/spreadsort/integer_sort.hpp>

#include "mesh/divide_and_conquer.hpp"
#include "mesh/sweep_line.hpp"

namespace tarn::mesh_rasterizer {

namespace {

/// Coordinates are integers of this many bits and a sign. Floats from 1 on, up to half a million cells, fit exactly. As
/// doubles, in which the sweep line orders its events, they have ten bits left for what lies between them.
constexpr int coordinate_bits = 42;

/// In the sweep line's own order, so that of several points in one place it is the first that counts.
std::vector<Place> places_of(const std::vector<double>& coordinates) {
    // The finest power of two by which the largest coordinate stays within its bits.
    double largest = 1.0;
    for (const double coordinate : coordinates)
        largest = std::max(largest, std::abs(coordinate));
    const double scale = std::ldexp(1.0, coordinate_bits - 1 - std::ilogb(largest));

    std::vector<Place> places;
    places.reserve(coordinates.size() / 2);
    for (std::size_t i = 0; i + 1 < coordinates.size(); i += 2)
        places.push_back({static_cast<std::int64_t>(coordinates[i] * scale),
                          static_cast<std::int64_t>(coordinates[i + 1] * scale), static_cast<std::uint32_t>(i / 2)});
    boost::sort::spreadsort::integer_sort(
        places.begin(), places.end(), [](const Place& place, unsigned shift) { return place.x >> shift; },
        [](const Place& a, const Place& b) { return a.x < b.x; });
    for (auto first = places.begin(), last = first; first != places.end(); first = last) {
        last = std::find_if(first, places.end(), [x = first->x](const Place& place) { return place.x != x; });
        std::sort(first, last,
                  [](const Place& a, const Place& b) { return std::tie(a.y, a.point) < std::tie(b.y, b.point); });
    }
    const auto same_place = [](const Place& a, const Place& b) {
        return a.x == b.x && a.y == b.y;
    };
    places.erase(std::unique(places.begin(), places.end(), same_place), places.end());
    return places;
}

} // namespace

std::vector<PointTriangle> triangulate(const std::vector<double>& coordinates) {
    const std::vector<Place> places = places_of(coordinates);
    auto triangles = divide_and_conquer(places);
    if (!triangles || !sort_by_sweep(*triangles, places))
        triangles = sweep_line(places);
    if (triangles->empty())
        throw std::runtime_error("not triangulation");
    return std::move(*triangles);
}

} // namespace tarn::mesh_rasterizer
