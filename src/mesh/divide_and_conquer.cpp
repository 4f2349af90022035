// L. Guibas and J. Stolfi, Primitives for the Manipulation of General Subdivisions and the Computation of Voronoi
// Diagrams, 1985. The places are cut in both directions: into upright strips, whose parts are merged from the bottom to
// the top, and then the strips from left to right. Fewer edges are made and removed again than by cuts in one
// direction: R. Dwyer, A Faster Divide-and-Conquer Algorithm for Constructing Delaunay Triangulations, 1987. Tests take
// doubles where these are sure, as in J. Shewchuk, Adaptive Precision Floating-Point Arithmetic and Fast Robust
// Geometric Predicates, 1997.
#include "mesh/divide_and_conquer.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <tuple>

namespace tarn::mesh_rasterizer {

namespace {

/// A place in the plane. Doubles hold the coordinates and their differences exactly.
struct Position {
    double x, y;
};

/// Thrown where four places lie within rounding of one circle.
struct OneCircle {};

constexpr double epsilon = 0x1p-53;

/// More than 0 if a, b, c go round counter-clockwise, 0 on a line.
inline int orientation(const Position& a, const Position& b, const Position& c) {
    const double left = (a.x - c.x) * (b.y - c.y), right = (a.y - c.y) * (b.x - c.x);
    const double area = left - right;
    if (std::abs(area) > (3.0 + 16.0 * epsilon) * epsilon * (std::abs(left) + std::abs(right)))
        return area > 0.0 ? 1 : -1;
    __extension__ using int128 = __int128;
    const auto difference = [](double u, double v) {
        return static_cast<int128>(static_cast<std::int64_t>(u - v));
    };
    const int128 exact_left = difference(a.x, c.x) * difference(b.y, c.y);
    const int128 exact_right = difference(a.y, c.y) * difference(b.x, c.x);
    return exact_left > exact_right ? 1 : exact_left < exact_right ? -1 : 0;
}

/// Whether d lies inside the circle through a, b and c, which go round counter-clockwise. Throws OneCircle if it cannot
/// be told.
inline bool is_in_circle(const Position& a, const Position& b, const Position& c, const Position& d) {
    const double ax = a.x - d.x, ay = a.y - d.y, bx = b.x - d.x, by = b.y - d.y, cx = c.x - d.x, cy = c.y - d.y;
    const double bxcy = bx * cy, cxby = cx * by, cxay = cx * ay, axcy = ax * cy, axby = ax * by, bxay = bx * ay;
    const double a_squared = ax * ax + ay * ay, b_squared = bx * bx + by * by, c_squared = cx * cx + cy * cy;
    const double determinant = a_squared * (bxcy - cxby) + b_squared * (cxay - axcy) + c_squared * (axby - bxay);
    const double size = a_squared * (std::abs(bxcy) + std::abs(cxby)) + b_squared * (std::abs(cxay) + std::abs(axcy)) +
                        c_squared * (std::abs(axby) + std::abs(bxay));
    if (!(std::abs(determinant) > (10.0 + 96.0 * epsilon) * epsilon * size))
        throw OneCircle();
    return determinant > 0.0;
}

/// A directed edge. That in the other direction has the number next to it.
using Edge = std::uint32_t;
constexpr Edge no_edge = std::numeric_limits<Edge>::max();

inline Edge reversed(Edge e) {
    return e ^ 1u;
}

/// A triangulated part: the edge of its hull that leaves the first place counter-clockwise, and that which leaves the
/// last place clockwise; first and last in the direction in which parts are merged.
struct Part {
    Edge first, last;
};

inline bool is_left_of(const Position& a, const Position& b) {
    return std::tie(a.x, a.y) < std::tie(b.x, b.y);
}

class Triangulator {
  public:
    explicit Triangulator(const std::vector<Place>& places)
        : places_(places), numbers_(places.size()), positions_(places.size()) {
        for (std::size_t n = 0; n < places.size(); ++n)
            numbers_[n] = static_cast<std::uint32_t>(n);
        const std::size_t count = places.size();
        strips_ = std::max<std::size_t>(1, static_cast<std::size_t>(std::sqrt(static_cast<double>(count) / 4.0)));
        edges_.reserve(6 * count);
    }

    std::vector<PointTriangle> run() {
        merge_strips(0, strips_);
        std::vector<PointTriangle> triangles;
        triangles.reserve(2 * positions_.size());
        for (Edge a = 0; a < edges_.size(); ++a) {
            if (edges_[a].origin == no_edge)
                continue;
            const Edge b = next_on_left(a);
            if (b < a)
                continue;
            const Edge c = next_on_left(b);
            if (c < a || next_on_left(c) != a || orientation(from(a), from(b), from(c)) <= 0)
                continue;
            triangles.push_back({number(a), number(b), number(c)});
        }
        return triangles;
    }

  private:
    struct Links {
        std::uint32_t origin;
        Edge next, previous; // around the origin, counter-clockwise and clockwise
    };

    std::ptrdiff_t begin_of(std::size_t strip) const {
        return static_cast<std::ptrdiff_t>(positions_.size() * strip / strips_);
    }

    const Position& from(Edge e) const { return positions_[edges_[e].origin]; }
    const Position& to(Edge e) const { return from(reversed(e)); }
    std::uint32_t number(Edge e) const { return numbers_[edges_[e].origin]; }

    /// The next edge of the face to the left, and to the right.
    Edge next_on_left(Edge e) const { return edges_[reversed(e)].previous; }
    Edge next_on_right(Edge e) const { return edges_[reversed(e)].next; }

    Edge add_edge(std::uint32_t origin, std::uint32_t destination) {
        Edge e = free_;
        if (e == no_edge) {
            e = static_cast<Edge>(edges_.size());
            edges_.resize(edges_.size() + 2);
        } else {
            free_ = edges_[e].next;
        }
        edges_[e] = {origin, e, e};
        edges_[e + 1] = {destination, e + 1, e + 1};
        return e;
    }

    void insert_after(Edge e, Edge neighbour) {
        const Edge next = edges_[neighbour].next;
        edges_[e].next = next;
        edges_[e].previous = neighbour;
        edges_[next].previous = e;
        edges_[neighbour].next = e;
    }

    /// An edge from the end of a to the start of b, along the left side of both.
    Edge connect(Edge a, Edge b) {
        const Edge e = add_edge(edges_[reversed(a)].origin, edges_[b].origin);
        insert_after(e, next_on_left(a));
        insert_after(reversed(e), b);
        return e;
    }

    void remove(Edge e) {
        for (const Edge end : {e, reversed(e)}) {
            edges_[edges_[end].previous].next = edges_[end].next;
            edges_[edges_[end].next].previous = edges_[end].previous;
            edges_[end].origin = no_edge;
        }
        const Edge even = e & ~1u;
        edges_[even].next = free_;
        free_ = even;
    }

    bool is_left(const Position& p, Edge e) const { return orientation(p, from(e), to(e)) > 0; }
    bool is_right(const Position& p, Edge e) const { return orientation(p, to(e), from(e)) > 0; }

    /// Brings the places of a strip into their order, from the bottom to the top. That is from left to right, turned by
    /// a quarter; so equal heights go from right to left.
    void sort_strip(std::size_t strip) {
        const auto begin = numbers_.begin() + begin_of(strip), end = numbers_.begin() + begin_of(strip + 1);
        std::sort(begin, end, [&](std::uint32_t a, std::uint32_t b) {
            return std::tie(places_[a].y, places_[b].x) < std::tie(places_[b].y, places_[a].x);
        });
        std::transform(begin, end, positions_.begin() + begin_of(strip), [&](std::uint32_t number) {
            return Position{static_cast<double>(places_[number].x), static_cast<double>(places_[number].y)};
        });
    }

    /// Two or three places in their order.
    Part start(std::uint32_t begin, std::uint32_t end) {
        const Edge a = add_edge(begin, begin + 1);
        if (end - begin == 2)
            return {a, reversed(a)};
        const Edge b = add_edge(begin + 1, begin + 2);
        insert_after(b, reversed(a));
        const int turn = orientation(positions_[begin], positions_[begin + 1], positions_[begin + 2]);
        if (turn == 0)
            return {a, reversed(b)};
        const Edge c = connect(b, a);
        return turn > 0 ? Part{a, reversed(b)} : Part{reversed(c), c};
    }

    Part merge_rows(std::uint32_t begin, std::uint32_t end) {
        if (end - begin <= 3)
            return start(begin, end);
        const std::uint32_t middle = begin + (end - begin) / 2;
        const Part lower = merge_rows(begin, middle);
        return merge(lower, merge_rows(middle, end));
    }

    Part merge_strips(std::size_t begin, std::size_t end) {
        if (end - begin == 1) {
            sort_strip(begin); // here, since four places on one circle may show in the first strip
            return turned(
                merge_rows(static_cast<std::uint32_t>(begin_of(begin)), static_cast<std::uint32_t>(begin_of(end))));
        }
        const std::size_t middle = begin + (end - begin) / 2;
        const Part left = merge_strips(begin, middle);
        return merge(left, merge_strips(middle, end));
    }

    /// The same part with its first and last place from left to right.
    Part turned(const Part& part) const {
        Part result{part.first, reversed(part.first)};
        Edge e = part.first;
        do {
            if (is_left_of(from(e), from(result.first)))
                result.first = e;
            if (is_left_of(from(result.last), to(e)))
                result.last = reversed(e);
            e = next_on_right(e);
        } while (e != part.first);
        return result;
    }

    /// The first edge around the origin of the base, from `candidate` on, whose triangle with the base has no place of
    /// the same side in its circle. Those before it are removed. `turn` is the link to the following edge.
    Edge clear(Edge candidate, Edge base, Edge Links::*turn) {
        if (!is_right(to(candidate), base))
            return no_edge;
        for (;;) {
            const Edge following = edges_[candidate].*turn;
            const std::uint32_t apex = edges_[reversed(following)].origin;
            if (apex == edges_[base].origin || apex == edges_[reversed(base)].origin ||
                !is_in_circle(to(base), from(base), to(candidate), positions_[apex]))
                return candidate;
            remove(candidate);
            candidate = following;
            if (!is_right(to(candidate), base))
                return no_edge;
        }
    }

    Part merge(Part left, Part right) {
        Edge left_inner = left.last, right_inner = right.first;
        for (;;) { // down to the lower common tangent
            if (is_left(from(right_inner), left_inner))
                left_inner = next_on_left(left_inner);
            else if (is_right(from(left_inner), right_inner))
                right_inner = next_on_right(right_inner);
            else
                break;
        }
        Edge base = connect(reversed(right_inner), left_inner); // from right to left
        if (edges_[left_inner].origin == edges_[left.first].origin)
            left.first = reversed(base);
        if (edges_[right_inner].origin == edges_[right.last].origin)
            right.last = base;
        for (;;) { // up to the upper one
            const Edge on_left = clear(edges_[reversed(base)].next, base, &Links::next);
            const Edge on_right = clear(edges_[base].previous, base, &Links::previous);
            if (on_left == no_edge && on_right == no_edge)
                return {left.first, right.last};
            if (on_left == no_edge ||
                (on_right != no_edge && is_in_circle(to(on_left), from(on_left), from(on_right), to(on_right))))
                base = connect(on_right, reversed(base));
            else
                base = connect(reversed(base), reversed(on_left));
        }
    }

    const std::vector<Place>& places_;
    std::vector<std::uint32_t> numbers_; // of the places, in the order of the positions
    std::vector<Position> positions_;    // strip by strip, from the bottom to the top
    std::size_t strips_ = 1;
    std::vector<Links> edges_;
    Edge free_ = no_edge;
};

} // namespace

std::optional<std::vector<PointTriangle>> divide_and_conquer(const std::vector<Place>& places) {
    if (places.size() < 3)
        return std::vector<PointTriangle>();
    if (places.size() > no_edge / 6) // each of the up to three edges of a place is two
        return std::nullopt;
    try {
        return Triangulator(places).run();
    } catch (const OneCircle&) {
        return std::nullopt;
    }
}

} // namespace tarn::mesh_rasterizer
