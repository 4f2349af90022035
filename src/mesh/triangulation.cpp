// The triangulation is the dual of the points' Voronoi diagram, which Boost.Polygon's sweep line finds (S. Fortune, A
// Sweepline Algorithm for Voronoi Diagrams, 1987). It computes in integers and tests orientations exactly, so points on
// one line, on one circle and in one place, which the rim of a frame is full of, are no special cases: the hull is
// always covered. The license, unlike that of other triangulators with exact tests, allows any use.

#include "mesh/triangulation.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <deque>
#include <stdexcept>
#include <tuple>
#include <utility>

#if defined(__GNUC__) && !defined(__clang__)
// GCC cannot tell that Boost's integers copy only the words that they have.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <boost/polygon/voronoi_builder.hpp>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace tarn::mesh_rasterizer {

namespace {

/// Coordinates are integers of this many bits and a sign. Floats from 1 on, up to half a million cells, fit exactly. As
/// doubles, in which the sweep line orders its events, they have ten bits left for what lies between them.
constexpr int coordinate_bits = 42;

/// Whole numbers that hold the product of two differences of coordinates. Boost's own of that size are kept in words,
/// which takes a third of the sweep line's time.
class Wide {
  public:
    Wide() = default;
    Wide(std::int64_t value) : value_(value) {}

    /// For numbers that an int64_t holds, as differences and sums of coordinates are.
    operator boost::polygon::detail::extended_int<16>() const { return static_cast<std::int64_t>(value_); }

    /// For numbers of up to 96 bits, rounded word by word as Boost rounds its own.
    explicit operator double() const {
        constexpr double word = 4294967296.0; // 2^32
        const bool is_negative = value_ < 0;
        const auto size = static_cast<unsigned_int128>(is_negative ? -value_ : value_);
        const auto bits = [&](int shift) {
            return static_cast<double>(static_cast<std::uint32_t>(size >> shift));
        };
        const double result = (bits(64) * word + bits(32)) * word + bits(0);
        return is_negative ? -result : result;
    }

    friend Wide operator-(Wide a) { return from(-a.value_); }
    friend Wide operator+(Wide a, Wide b) { return from(a.value_ + b.value_); }
    friend Wide operator-(Wide a, Wide b) { return from(a.value_ - b.value_); }
    friend Wide operator*(Wide a, Wide b) { return from(a.value_ * b.value_); }
    friend bool operator<(Wide a, Wide b) { return a.value_ < b.value_; }
    friend bool operator>(Wide a, Wide b) { return a.value_ > b.value_; }

  private:
    __extension__ using int128 = __int128;
    __extension__ using unsigned_int128 = unsigned __int128;

    static Wide from(int128 value) {
        Wide wide;
        wide.value_ = value;
        return wide;
    }

    int128 value_ = 0;
};

/// The sweep line's number types for such coordinates.
struct SweepNumbers {
    using int_type = std::int64_t;
    using int_x2_type = Wide;
    using uint_x2_type = Wide;
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

    struct Place {
        std::int64_t x, y;
        std::uint32_t point;
    };
    std::vector<Place> places;
    places.reserve(coordinates.size() / 2);
    for (std::size_t i = 0; i + 1 < coordinates.size(); i += 2)
        places.push_back({static_cast<std::int64_t>(coordinates[i] * scale),
                          static_cast<std::int64_t>(coordinates[i + 1] * scale), static_cast<std::uint32_t>(i / 2)});

    // In the sweep line's own order, so that of several points in one place it is the first that counts.
    std::sort(places.begin(), places.end(),
              [](const Place& a, const Place& b) { return std::tie(a.x, a.y, a.point) < std::tie(b.x, b.y, b.point); });
    const auto same_place = [](const Place& a, const Place& b) {
        return a.x == b.x && a.y == b.y;
    };
    places.erase(std::unique(places.begin(), places.end(), same_place), places.end());

    boost::polygon::voronoi_builder<std::int64_t, SweepNumbers> sweep_line;
    std::vector<std::uint32_t> points;
    points.reserve(places.size());
    for (const Place& place : places) {
        sweep_line.insert_point(place.x, place.y);
        points.push_back(place.point);
    }
    TriangleCollector triangles(points);
    sweep_line.construct(&triangles);
    std::vector<PointTriangle> result = triangles.take();
    if (result.empty())
        throw std::runtime_error("not triangulation");
    return result;
}

} // namespace tarn::mesh_rasterizer
