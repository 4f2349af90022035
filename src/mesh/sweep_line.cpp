// The triangulation as the dual of the points' Voronoi diagram, which Boost.Polygon's sweep line finds (S. Fortune, A
// Sweepline Algorithm for Voronoi Diagrams, 1987). It computes in integers and tests orientations exactly, so points on
// one line, on one circle and in one place, which the rim of a frame is full of, are no special cases: the hull is
// always covered. The license, unlike that of other triangulators with exact tests, allows any use.
#include "mesh/sweep_line.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <deque>
#include <queue>
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
#include <boost/sort/spreadsort/float_sort.hpp>

namespace boost::polygon::detail {

/// The sweep line's queue of circles. Boost's own is a heap of places in a list: each comparison looks up two of them,
/// and each circle is an allocation. This one compares what lies in the heap and uses the memory of circles again.
/// Equal ones come in the same order.
template <class Node, class Comparison>
class ordered_queue<std::pair<circle_event<double>, Node>, Comparison> {
  public:
    using Event = std::pair<circle_event<double>, Node>;

    bool empty() const { return heap_.empty(); }
    const Event& top() const { return *heap_.top().event; }

    void pop() {
        unused_.push_back(heap_.top().event);
        heap_.pop();
    }

    Event& push(const Event& event) {
        Event* place = nullptr;
        if (unused_.empty()) {
            place = &events_.emplace_back(event);
        } else {
            place = unused_.back();
            unused_.pop_back();
            *place = event;
        }
        heap_.push({event.first.lower_x(), event.first.y(), place});
        return *place;
    }

  private:
    struct Entry {
        double x, y;
        Event* event;

        bool operator<(const Entry& other) const { return x != other.x ? x > other.x : y > other.y; }
    };

    std::priority_queue<Entry> heap_;
    std::deque<Event> events_; // they stay where they are
    std::vector<Event*> unused_;
};

} // namespace boost::polygon::detail

namespace tarn::mesh_rasterizer {

namespace {

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
    friend int sign(Wide a) { return a.value_ > 0 ? 1 : a.value_ < 0 ? -1 : 0; }
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
    explicit TriangleCollector(const std::vector<Place>& places) : places_(places) {}

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
        return places_[site.initial_index()].point;
    }

    std::pair<void*, void*> add_neighbours(std::uint32_t a, std::uint32_t b) {
        Neighbours* const added = &neighbours_.emplace_back(Neighbours{a, b});
        return {added, added};
    }

    const std::vector<Place>& places_;
    std::deque<Neighbours> neighbours_; // its elements stay where they are
    std::vector<PointTriangle> triangles_;
};

using Site = boost::polygon::detail::site_event<std::int64_t>;
using Circle = boost::polygon::detail::circle_event<double>;
using Predicates = boost::polygon::detail::voronoi_predicates<SweepNumbers>;

/// When the sweep line, which moves to the right, has passed the circle through a triangle's corners: then it finds the
/// triangle.
struct Event {
    double x;
    PointTriangle triangle; // numbers of places
};

/// The circle through a triangle as the sweep line works it out, to the bit.
Circle circle_of(const PointTriangle& triangle, const std::vector<Place>& places) {
    std::array<Site, 3> sites;
    for (std::size_t k = 0; k < 3; ++k)
        sites[k] = Site(places[triangle[k]].x, places[triangle[k]].y);
    Predicates::lazy_circle_formation_functor<Site, Circle> work_out;
    Circle circle;
    work_out.ppp(sites[0], sites[1], sites[2], circle);
    return circle;
}

/// How far two events of the sweep line may be apart and be one but for rounding: it is sure of all but six bits.
double rounding(double x) {
    return std::abs(x) * 0x1p-44;
}

/// How far two events may be apart, in whole units, and their order still be in doubt.
double doubt(double x) {
    return std::max(1.0, rounding(x));
}

/// An event, less exact than the sweep line's by a quarter of a unit at most, and much faster.
double event_of(const PointTriangle& triangle, const std::vector<Place>& places) {
    const Place &a = places[triangle[0]], &b = places[triangle[1]], &c = places[triangle[2]];
    const auto bx = static_cast<double>(b.x - a.x), by = static_cast<double>(b.y - a.y);
    const auto cx = static_cast<double>(c.x - a.x), cy = static_cast<double>(c.y - a.y);
    const double b_squared = bx * bx + by * by, c_squared = cx * cx + cy * cy;
    const double half = 0.5 / (bx * cy - by * cx);
    const double x = (cy * b_squared - by * c_squared) * half, y = (bx * c_squared - cx * b_squared) * half;
    const double size =
        std::abs(half) * ((std::abs(cy) + std::abs(cx)) * b_squared + (std::abs(by) + std::abs(bx)) * c_squared);
    const double cancellation = 1.0 + std::abs(half) * (std::abs(bx * cy) + std::abs(by * cx));
    if (!(32.0 * 0x1p-53 * size * cancellation < 0.125))
        return circle_of(triangle, places).lower_x();
    return static_cast<double>(a.x) + (x + std::sqrt(x * x + y * y));
}

Wide squared(const Place& a, const Place& b) {
    const Wide x(b.x - a.x), y(b.y - a.y);
    return x * x + y * y;
}

/// Whether a is below (-1) or above (1) the middle of the circle through a, b and c, which go round counter-clockwise.
/// 0 if it is as high, 2 if that cannot be told.
int side_of_middle(const Place& a, const Place& b, const Place& c) {
    const auto bx = static_cast<double>(b.x - a.x), by = static_cast<double>(b.y - a.y);
    const auto cx = static_cast<double>(c.x - a.x), cy = static_cast<double>(c.y - a.y);
    const double left = bx * (cx * cx + cy * cy), right = cx * (bx * bx + by * by);
    const double height = left - right; // of the middle above a, times a positive number
    if (std::abs(height) > 8.0 * 0x1p-53 * (std::abs(left) + std::abs(right)))
        return height > 0.0 ? -1 : 1;
    constexpr double most = 0x1p40; // so that products of three and their sums have room
    if (std::max({std::abs(bx), std::abs(by), std::abs(cx), std::abs(cy)}) > most)
        return 2;
    return -sign(Wide(b.x - a.x) * squared(a, c) - Wide(c.x - a.x) * squared(a, b));
}

/// Turns a triangle, counter-clockwise, so that it is as the sweep line finds it: its first and last corner, clockwise,
/// are those between which the circle reaches furthest to the right. False if that cannot be told.
bool turn_to_sweep(PointTriangle& triangle, const std::vector<Place>& places) {
    std::array<bool, 3> is_below{};
    for (std::size_t k = 0; k < 3; ++k) {
        const int side =
            side_of_middle(places[triangle[k]], places[triangle[(k + 1) % 3]], places[triangle[(k + 2) % 3]]);
        if (side == 2)
            return false;
        is_below[k] = side <= 0; // a point that hits two arcs of the beach line at once divides the lower one
    }
    std::size_t first = 0;
    if (is_below[0] == is_below[1] && is_below[1] == is_below[2]) { // the circle is widest opposite
        for (std::size_t k = 1; k < 3; ++k) {
            const std::int64_t step = places[triangle[k]].x - places[triangle[first]].x;
            if (is_below[0] ? step > 0 : step < 0)
                first = k;
        }
    } else { // where the way round comes from below the middle to above it
        while (!is_below[first] || is_below[(first + 1) % 3])
            ++first;
    }
    triangle = {triangle[first], triangle[(first + 2) % 3], triangle[(first + 1) % 3]};
    return true;
}

/// Brings events that are close together into the sweep line's order. False if it cannot be told whether it finds these
/// triangles: where two neighbours have almost the same circle, it may have cut their four corners the other way.
bool settle(std::vector<Event>::iterator first, std::vector<Event>::iterator last, const std::vector<Place>& places) {
    struct Exact {
        double x, y; // of the circle's rightmost point
        PointTriangle triangle;
    };
    std::vector<Exact> exact;
    for (auto event = first; event != last; ++event) {
        const Circle circle = circle_of(event->triangle, places);
        exact.push_back({circle.lower_x(), circle.y(), event->triangle});
    }
    std::sort(exact.begin(), exact.end(),
              [](const Exact& a, const Exact& b) { return std::tie(a.x, a.y) < std::tie(b.x, b.y); });
    for (auto a = exact.begin(); a != exact.end(); ++a)
        for (auto b = a + 1; b != exact.end() && b->x - a->x <= rounding(a->x); ++b) {
            const auto shared = std::count_if(a->triangle.begin(), a->triangle.end(), [&](std::uint32_t corner) {
                return std::find(b->triangle.begin(), b->triangle.end(), corner) != b->triangle.end();
            });
            if (shared > 1 || (a->x == b->x && a->y == b->y))
                return false;
        }
    for (const Exact& event : exact)
        *first++ = {event.x, event.triangle};
    return true;
}

} // namespace

std::vector<PointTriangle> sweep_line(const std::vector<Place>& places) {
    boost::polygon::voronoi_builder<std::int64_t, SweepNumbers> builder;
    for (const Place& place : places)
        builder.insert_point(place.x, place.y);
    TriangleCollector triangles(places);
    builder.construct(&triangles);
    return triangles.take();
}

bool sort_by_sweep(std::vector<PointTriangle>& triangles, const std::vector<Place>& places) {
    std::vector<Event> events;
    events.reserve(triangles.size());
    for (PointTriangle& triangle : triangles) {
        if (!turn_to_sweep(triangle, places))
            return false;
        events.push_back({event_of(triangle, places), triangle});
    }
    namespace radix = boost::sort::spreadsort;
    radix::float_sort(
        events.begin(), events.end(),
        [](const Event& event, unsigned shift) {
            return radix::float_mem_cast<double, std::int64_t>(event.x) >> shift;
        },
        [](const Event& a, const Event& b) { return a.x < b.x; });
    for (auto first = events.begin(), last = first; first != events.end(); first = last) {
        do
            ++last;
        while (last != events.end() && last->x - (last - 1)->x <= doubt(last->x));
        if (last - first > 1 && !settle(first, last, places))
            return false;
    }
    for (std::size_t n = 0; n < events.size(); ++n)
        for (std::size_t k = 0; k < 3; ++k)
            triangles[n][k] = places[events[n].triangle[k]].point;
    return true;
}

} // namespace tarn::mesh_rasterizer
