// The triangulation is the dual of the points' Voronoi diagram, which Boost.Polygon's sweep line finds (S. Fortune, A
// Sweepline Algorithm for Voronoi Diagrams, 1987). It computes in integers and tests orientations exactly, so points on
// one line, on one circle and in one place, which the rim of a frame is full of, are no special cases: the hull is
// always covered. The license, unlike that of other triangulators with exact tests, allows any use.

#include "mesh/triangulation.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <deque>
#include <numeric>
#include <stdexcept>
#include <utility>

#if defined(__GNUC__) && !defined(__clang__)
// GCC cannot tell that Boost's integers copy only the words that they have.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <boost/polygon/voronoi_builder.hpp>
#pragma GCC diagnostic pop
#else
#include <boost/polygon/voronoi_builder.hpp>
#endif

namespace tarn::mesh_rasterizer {

namespace {

/// Coordinates are integers of this many bits and a sign. Floats from 1 on, up to half a million cells, fit exactly. As
/// doubles, in which the sweep line orders its events, they have ten bits left for what lies between them.
constexpr int coordinate_bits = 42;

/// The sweep line's number types for such coordinates.
struct SweepNumbers {
    using int_type = std::int64_t;
    using int_x2_type = boost::polygon::detail::extended_int<3>; // products of two differences, in words of 32 bits
    using uint_x2_type = int_x2_type;
    using big_int_type = boost::polygon::detail::extended_int<16>;
    using fpt_type = double;
    using efpt_type = boost::polygon::detail::extended_exponent_fpt<double>;
    using ulp_cmp_type = boost::polygon::detail::ulp_comparison<double>;
    using to_fpt_converter_type = boost::polygon::detail::type_converter_fpt;
    using to_efpt_converter_type = boost::polygon::detail::type_converter_efpt;
};

/// Takes what the sweep line finds, in place of a Voronoi diagram: pairs of points that become neighbours on the beach
/// line, and a triangle whenever the point between two neighbours drops out of it.
class TriangleCollector {
  public:
    explicit TriangleCollector(const std::vector<std::uint32_t>& points) : points_(points) {}

    void _reserve(std::size_t sites) { triangles_.reserve(2 * sites); }

    template <class Site>
    void _process_single_site(const Site&) {}

    template <class Site>
    std::pair<void*, void*> _insert_new_edge(const Site& a, const Site& b) {
        return add_neighbours(point(a), point(b));
    }

    template <class Site, class Circle>
    std::pair<void*, void*> _insert_new_edge(const Site& left, const Site& right, const Circle&, void* left_neighbours,
                                             void*) {
        const std::uint32_t a = point(left), c = point(right);
        const auto& pair = *static_cast<const Neighbours*>(left_neighbours);
        triangles_.push_back({a, pair[0] == a ? pair[1] : pair[0], c});
        return add_neighbours(a, c);
    }

    void _build() {}

    std::vector<PointTriangle> take() { return std::move(triangles_); }

  private:
    using Neighbours = std::array<std::uint32_t, 2>;

    template <class Site>
    std::uint32_t point(const Site& site) const {
        return points_[site.initial_index()];
    }

    std::pair<void*, void*> add_neighbours(std::uint32_t a, std::uint32_t b) {
        Neighbours* const added = &neighbours_.emplace_back(Neighbours{a, b});
        return {added, added};
    }

    const std::vector<std::uint32_t>& points_;
    std::deque<Neighbours> neighbours_; // its elements stay where they are
    std::vector<PointTriangle> triangles_;
};

} // namespace

std::vector<PointTriangle> triangulate(const std::vector<double>& coordinates) {
    // The finest power of two by which the largest coordinate stays within its bits.
    double largest = 1.0;
    for (const double coordinate : coordinates)
        largest = std::max(largest, std::abs(coordinate));
    const double scale = std::ldexp(1.0, coordinate_bits - 1 - std::ilogb(largest));

    using Position = std::array<std::int64_t, 2>;
    std::vector<Position> positions;
    positions.reserve(coordinates.size() / 2);
    for (std::size_t i = 0; i + 1 < coordinates.size(); i += 2)
        positions.push_back(
            {static_cast<std::int64_t>(coordinates[i] * scale), static_cast<std::int64_t>(coordinates[i + 1] * scale)});

    // In the sweep line's own order, so that of several points in one place it is the first that counts.
    std::vector<std::uint32_t> points(positions.size());
    std::iota(points.begin(), points.end(), 0u);
    std::sort(points.begin(), points.end(), [&](std::uint32_t a, std::uint32_t b) {
        return positions[a] != positions[b] ? positions[a] < positions[b] : a < b;
    });
    const auto same_place = [&](std::uint32_t a, std::uint32_t b) {
        return positions[a] == positions[b];
    };
    points.erase(std::unique(points.begin(), points.end(), same_place), points.end());

    boost::polygon::voronoi_builder<std::int64_t, SweepNumbers> sweep_line;
    for (const std::uint32_t point : points)
        sweep_line.insert_point(positions[point][0], positions[point][1]);
    TriangleCollector triangles(points);
    sweep_line.construct(&triangles);
    std::vector<PointTriangle> result = triangles.take();
    if (result.empty())
        throw std::runtime_error("not triangulation");
    return result;
}

} // namespace tarn::mesh_rasterizer
