#include "lighting/rays.hpp"

#include <array>
#include <cmath>
#include <cstdint>

#include "grid/numeric.hpp"
#include "grid/random.hpp"

namespace tarn::lighting {

namespace {

constexpr float degree = 0.017453292f;

Vector operator+(const Vector& a, const Vector& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}

Vector operator*(float factor, const Vector& v) {
    return {factor * v.x, factor * v.y, factor * v.z};
}

Vector cross(const Vector& a, const Vector& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

Vector normalize(const Vector& v) {
    const float length = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return {v.x / length, v.y / length, v.z / length};
}

/// Whether light from here can reach a slope: from above the horizon or from a little below it. Never for a NaN.
bool is_visible(const Vector& direction) {
    return direction.z > -0.15f && squared_ground_length(direction) > 0.0f;
}

/// A stream of numbers from 0 to 2^32.
class Draws {
  public:
    float next() {
        state_ = xorshift(state_);
        return random_number(state_);
    }

  private:
    std::uint32_t state_ = nonzero_state(0);
};

/// Points of a cell for parallel rays: no two share a row or a column.
constexpr std::array<std::array<float, 2>, 8> eight_offsets{{{0.0625f, 0.3125f},
                                                             {0.1875f, 0.5625f},
                                                             {0.3125f, 0.1875f},
                                                             {0.4375f, 0.9375f},
                                                             {0.5625f, 0.0625f},
                                                             {0.6875f, 0.8125f},
                                                             {0.8125f, 0.4375f},
                                                             {0.9375f, 0.6875f}}};
constexpr std::array<std::array<float, 2>, 4> four_offsets{
    {{0.625f, 0.125f}, {0.125f, 0.375f}, {0.875f, 0.625f}, {0.375f, 0.875f}}};

template <std::size_t count>
std::vector<Ray> parallel_rays(const Vector& direction, const std::array<std::array<float, 2>, count>& offsets) {
    std::vector<Ray> rays;
    rays.reserve(count);
    for (const auto& [x, y] : offsets)
        rays.push_back({direction, x, y});
    return rays;
}

/// The cotangent of half the sun's diameter.
float disc_distance(float diameter) {
    constexpr float right_angle = 1.5707964f;
    const float angle = right_angle - diameter * 0.008726646f;
    // The constant lies just above the right angle, where the tangent is negative. So a diameter that is too small to
    // change it counts as 0.
    return angle == right_angle ? 1e+19f : std::tan(angle);
}

/// The ray at the angle `a` of a ring with the radius `radius`, as a part of the disc's.
Ray ring_ray(const Vector& centre, const Vector& u, const Vector& v, float radius, float a) {
    const float c = std::cos(a), s = std::sin(a);
    Ray ray{normalize(centre + radius * (c * u + s * v))};
    // The angle as a point of the unit square, which is turned by the arc tangent of 1/2 and laid over the cell.
    const float m = maximum(std::fabs(c), std::fabs(s));
    const float p = c / m, q = s / m;
    ray.offset_x = (p * 0.8944272f - q * 0.4472136f) * 0.5f + 0.5f;
    ray.offset_y = (p * 0.4472136f + q * 0.8944272f) * 0.5f + 0.5f;
    return ray;
}

/// Corners of an icosahedron with two of them on the x axis, and its edges as pairs of corners.
constexpr std::array<Vector, 12> icosahedron_vertices{{{1.0f, 0.0f, 0.0f},
                                                       {0.4472136f, 0.0f, 0.8944272f},
                                                       {0.4472136f, 0.8506508f, 0.2763932f},
                                                       {0.4472136f, 0.5257311f, -0.7236068f},
                                                       {0.4472136f, -0.5257311f, -0.7236068f},
                                                       {0.4472136f, -0.8506508f, 0.2763932f},
                                                       {-0.4472136f, 0.0f, -0.8944272f},
                                                       {-0.4472136f, -0.8506508f, -0.2763932f},
                                                       {-0.4472136f, -0.5257311f, 0.7236068f},
                                                       {-0.4472136f, 0.5257311f, 0.7236068f},
                                                       {-0.4472136f, 0.8506508f, -0.2763932f},
                                                       {-1.0f, 0.0f, 0.0f}}};

struct Edge {
    std::size_t a;
    std::size_t b;

    bool meets(std::size_t vertex) const { return a == vertex || b == vertex; }
};

constexpr std::array<Edge, 30> icosahedron_edges{{{0, 1}, {0, 2},  {0, 3},  {0, 4},   {0, 5},  {1, 2},  {2, 3},  {3, 4},
                                                  {4, 5}, {5, 1},  {1, 9},  {9, 2},   {2, 10}, {10, 3}, {3, 6},  {6, 4},
                                                  {4, 7}, {7, 5},  {5, 8},  {8, 1},   {8, 9},  {9, 10}, {10, 6}, {6, 7},
                                                  {7, 8}, {6, 11}, {9, 11}, {10, 11}, {7, 11}, {8, 11}}};

/// A triangle as its three edges.
using Triangle = std::array<std::size_t, 3>;

std::size_t shared_vertex(const Edge& e, const Edge& f) {
    return f.meets(e.a) ? e.a : e.b;
}

class Sphere {
  public:
    Sphere()
        : vertices_(icosahedron_vertices.begin(), icosahedron_vertices.end()),
          edges_(icosahedron_edges.begin(), icosahedron_edges.end()) {
        find_triangles();
    }

    const std::vector<Vector>& vertices() const { return vertices_; }

    /// Puts a vertex on the middle of every edge, and so four triangles in the place of one.
    void subdivide() {
        const std::size_t first_middle = vertices_.size();
        std::vector<Edge> edges;
        for (std::size_t e = 0; e < edges_.size(); ++e) {
            const auto [a, b] = edges_[e];
            vertices_.push_back(normalize(vertices_[a] + vertices_[b]));
            edges.push_back({a, first_middle + e});
            edges.push_back({first_middle + e, b});
        }
        const auto half_at = [&](std::size_t e, std::size_t vertex) {
            return edges_[e].a == vertex ? 2 * e : 2 * e + 1;
        };
        std::vector<Triangle> triangles;
        for (const Triangle& whole : triangles_) {
            const std::size_t first_inner = edges.size();
            for (std::size_t k = 0; k < 3; ++k) {
                const std::size_t e = whole[k], f = whole[(k + 1) % 3];
                const std::size_t corner = shared_vertex(edges_[e], edges_[f]);
                triangles.push_back({half_at(e, corner), half_at(f, corner), edges.size()});
                edges.push_back({first_middle + e, first_middle + f});
            }
            triangles.push_back({first_inner, first_inner + 1, first_inner + 2});
        }
        edges_ = std::move(edges);
        triangles_ = std::move(triangles);
    }

  private:
    /// All edges of which each two meet: on an icosahedron these are its faces.
    void find_triangles() {
        const auto meet = [&](std::size_t e, std::size_t f) {
            return edges_[e].meets(edges_[f].a) || edges_[e].meets(edges_[f].b);
        };
        for (std::size_t e = 0; e < edges_.size(); ++e)
            for (std::size_t f = e + 1; f < edges_.size(); ++f)
                for (std::size_t g = f + 1; g < edges_.size(); ++g)
                    if (meet(e, f) && meet(f, g) && meet(g, e) && !edges_[g].meets(shared_vertex(edges_[e], edges_[f])))
                        triangles_.push_back({e, f, g});
    }

    std::vector<Vector> vertices_;
    std::vector<Edge> edges_;
    std::vector<Triangle> triangles_;
};

/// The share of the sun's light that haze lets through at an elevation in degrees; the air mass is that of G. V.
/// Rozenberg, Twilight, 1966.
float transmission(float elevation, float haze) {
    const float s = maximum(std::sin(elevation * degree), 0.0f);
    const float inverse_air_mass = s + 0.025f * std::exp(s * -11.0f);
    return std::exp(haze * -5.6020436f / inverse_air_mass);
}

} // namespace

std::vector<Ray> sun_rays(const Parameters& p) {
    const Vector s{p.sun_direction[0], p.sun_direction[1], p.sun_direction[2]};
    if (squared_ground_length(s) == 0.0f)
        return {Ray{s}};
    if (p.sun_rings == -8)
        return parallel_rays(s, eight_offsets);
    if (p.sun_rings == -4)
        return parallel_rays(s, four_offsets);

    std::vector<Ray> rays{Ray{s}};
    const Vector centre = disc_distance(p.sun_diameter) * s;
    const Vector u = normalize(cross(s, {0.0f, 0.0f, 1.0f}));
    const Vector v = normalize(cross(s, u));
    const auto rings = static_cast<float>(p.sun_rings);
    Draws draws;
    for (int ring = 1; ring <= p.sun_rings; ++ring) {
        const auto number = static_cast<float>(ring);
        for (int k = 0; k < 6 * ring; ++k) {
            // Each ray lies up to 0.6 of its share of the ring further on.
            const float slot = static_cast<float>(k) + draws.next() * 1.3969839e-10f;
            rays.push_back(ring_ray(centre, u, v, number / rings, slot * 1.0471976f / number));
        }
    }
    return rays;
}

AmbientRays ambient_rays(int subdivisions) {
    Sphere sphere;
    for (int k = 0; k < subdivisions; ++k)
        sphere.subdivide();
    AmbientRays result;
    result.total = static_cast<int>(sphere.vertices().size());
    for (const Vector& vertex : sphere.vertices())
        if (is_visible(vertex))
            result.rays.push_back({vertex});
    return result;
}

std::int64_t days_of(const Parameters& p) {
    const std::int64_t last = p.first_day > p.last_day ? p.last_day + std::int64_t{365} : p.last_day;
    return last - p.first_day + 1;
}

SunPosition sun_position(float time, const Parameters& p) {
    // The declination is that of P. I. Cooper, The absorption of radiation in solar stills, Solar Energy 12, 1969.
    const float day = std::trunc(time);
    const float declination = std::sin(day * 0.017214207f + 4.8888345f) * 0.40927973f;
    const float hour = (time - day) * 360.0f - 180.0f; // degrees, 0 at noon
    const float hour_angle = hour * degree;
    const float latitude = p.latitude * degree;

    const float elevation = std::asin(std::cos(hour_angle) * std::cos(declination) * std::cos(latitude) +
                                      std::sin(latitude) * std::sin(declination));
    const float elevation_degrees = elevation * 57.29578f;
    float azimuth = 180.0f;
    if (hour != 0.0f && std::cos(elevation) != 0.0f) {
        const float from_north = std::acos((std::sin(declination) * std::cos(latitude) -
                                            std::sin(latitude) * std::cos(hour_angle) * std::cos(declination)) /
                                           std::cos(elevation)) *
                                 57.29578f;
        azimuth = hour > 0.0f ? 360.0f - from_north : from_north;
    }
    azimuth += p.north_offset;

    constexpr double precise_degree = 0.0174532925199433;
    const double turn = static_cast<double>(azimuth) * precise_degree;
    const double rise = std::tan(static_cast<double>(elevation_degrees) * precise_degree);
    // East is +x and south is +y.
    return {elevation_degrees, normalize({static_cast<float>(std::sin(turn)), -static_cast<float>(std::cos(turn)),
                                          static_cast<float>(rise)})};
}

SunSamples sun_samples(const Parameters& p) {
    const auto span = static_cast<float>(days_of(p));
    SunSamples result;
    result.total = static_cast<int>(span * 2000.0f / (span + 2.0f));
    const float step = span * (1.0f / static_cast<float>(result.total));
    Draws draws;
    float jitter = 0.5f;
    for (int i = 0; i < result.total; ++i) {
        jitter = (jitter + draws.next() * unit_scale) * 0.5f;
        const float time = (static_cast<float>(i) + jitter) * step + static_cast<float>(p.first_day);
        const SunPosition sun = sun_position(time, p);
        // From the lower edge of the sun's disc upwards, half a degree.
        const float up_the_disc = draws.next() * 1.1641532e-10f;
        if (!is_visible(sun.direction))
            continue;
        Ray ray{sun.direction};
        ray.weight = transmission(sun.elevation - 0.25f + up_the_disc, p.haze);
        result.rays.push_back(ray);
    }
    return result;
}

} // namespace tarn::lighting
