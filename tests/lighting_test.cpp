// Shade: the rays, the sweeps, the pipeline.
#include "lighting/lighting.hpp"

#include <algorithm>
#include <bit>
#include <functional>
#include <limits>
#include <numeric>
#include <set>

#include <tbb/global_control.h>

#include "support.hpp"

#ifdef HOSTSYCL
#include "simulated_gpu.hpp"
#endif

namespace {

using namespace tarn;
using namespace tarn_test;
using lighting::Ray;
using lighting::Vector;

using Cells = std::vector<float>;

const float nan = std::numeric_limits<float>::quiet_NaN();
const float infinity = std::numeric_limits<float>::infinity();
constexpr float untouched = -77.0f;

/// Cells one unit of height wide, all stages on, the sun half-way up at the right.
lighting_Parameters parameters(int side) {
    lighting_Parameters p{};
    p.resolution = {side, side};
    p.terrain_size = static_cast<float>(side);
    p.terrain_height = 1.0f;
    p.sun_direction[0] = p.sun_direction[2] = std::sqrt(0.5f);
    p.sun_diameter = 0.53f;
    p.ao_subdivisions = 2;
    p.hybrid_ao_subdivisions = 2;
    p.hybrid_ao_levels = 3;
    p.exposure = 1.5f;
    p.sun_intensity = 2.0f;
    p.ambient_intensity = 0.75f;
    const float sun[] = {1.0f, 0.9f, 0.7f}, sky[] = {0.3f, 0.5f, 1.0f};
    std::copy(sun, sun + 3, p.sun_color);
    std::copy(sky, sky + 3, p.ambient_color);
    p.albedo = 0.4f;
    p.direct_light = p.ambient_light = p.shadows = p.ambient_occlusion = 1;
    return p;
}

void set_sun(lighting_Parameters& p, float x, float y, float z) {
    const float length = std::sqrt(x * x + y * y + z * z);
    p.sun_direction[0] = x / length;
    p.sun_direction[1] = y / length;
    p.sun_direction[2] = z / length;
}

struct Image {
    Cells diffuse, shadow, ao, red, green, blue;
    std::uint32_t status = 0;
};

struct Albedo {
    const float *red = nullptr, *green = nullptr, *blue = nullptr;
};

class Lighting : public ::testing::Test {
  protected:
    sycl::queue queue{sycl::cpu_selector_v, sycl::property_list{sycl::property::queue::in_order()}};
    RecordingHost host;

    Image run(sycl::queue& on, const Cells& heights, const lighting_Parameters& p, const Albedo& albedo = {},
              const Cells* ao = nullptr) {
        const HostCallbacks record = host.callbacks();
        const Cells blank(heights.size(), untouched);
        Image image{blank, blank, ao != nullptr ? *ao : blank, blank, blank, blank};
        image.status = Shade(handle(on), heights.data(), image.diffuse.data(), image.shadow.data(), image.ao.data(),
                             image.red.data(), image.green.data(), image.blue.data(), albedo.red, albedo.green,
                             albedo.blue, &p, &record);
        return image;
    }

    Image shaded(const Cells& heights, const lighting_Parameters& p, const Albedo& albedo = {},
                 const Cells* ao = nullptr) {
        Image image = run(queue, heights, p, albedo, ao);
        EXPECT_EQ(image.status, static_cast<std::uint32_t>(status_ok));
        EXPECT_TRUE(host.errors.empty());
        return image;
    }

    static void expect_same(const Image& actual, const Image& expected) {
        EXPECT_TRUE(same_bits(actual.diffuse, expected.diffuse));
        EXPECT_TRUE(same_bits(actual.shadow, expected.shadow));
        EXPECT_TRUE(same_bits(actual.ao, expected.ao));
        EXPECT_TRUE(same_bits(actual.red, expected.red));
        EXPECT_TRUE(same_bits(actual.green, expected.green));
        EXPECT_TRUE(same_bits(actual.blue, expected.blue));
    }
};

/// A terrain of whole numbers, the same on every platform.
Cells rubble(int side) {
    Cells cells;
    std::uint32_t state = 12345u;
    for (int i = 0; i < side * side; ++i) {
        state = state * 1664525u + 1013904223u;
        cells.push_back(static_cast<float>(state >> 29) + static_cast<float>((i % side) / 8 + (i / side) / 16));
    }
    return cells;
}

// ---------------------------------------------------------------------------------------------------------------------
// Rays

double angle_between(const Vector& a, const float (&b)[3]) {
    const double dot =
        static_cast<double>(a.x) * b[0] + static_cast<double>(a.y) * b[1] + static_cast<double>(a.z) * b[2];
    return std::acos(std::min(dot, 1.0)) * 57.29577951;
}

double length(const Vector& v) {
    return std::hypot(static_cast<double>(v.x), static_cast<double>(v.y), static_cast<double>(v.z));
}

TEST(LightRays, RingsFillTheDiscOfTheSun) {
    lighting_Parameters p = parameters(16);
    set_sun(p, 0.4f, -0.7f, 0.5f);
    p.sun_diameter = 10.0f;
    for (const int rings : {0, 1, 2, 5, 17}) {
        p.sun_rings = rings;
        const std::vector<Ray> rays = lighting::sun_rays(p);
        ASSERT_EQ(rays.size(), static_cast<std::size_t>(3 * rings * rings + 3 * rings + 1));
        EXPECT_EQ(rays[0].direction.y, p.sun_direction[1]);
        EXPECT_TRUE(rays[0].offset_x == 0.5f && rays[0].offset_y == 0.5f);
        std::size_t next = 1;
        for (int ring = 1; ring <= rings; ++ring) {
            std::set<std::pair<float, float>> offsets;
            // The disc is flat: equal steps in the tangent.
            const double expected = std::atan(std::tan(5.0 / 57.29577951) * ring / rings) * 57.29577951;
            for (int k = 0; k < 6 * ring; ++k, ++next) {
                EXPECT_NEAR(length(rays[next].direction), 1.0, 1e-6);
                EXPECT_NEAR(angle_between(rays[next].direction, p.sun_direction), expected, 0.02);
                offsets.insert({rays[next].offset_x, rays[next].offset_y});
                // On the edge of a square of the area 1 that is turned by atan(1/2): a side of a half, measured along
                // its own axes.
                const double x = static_cast<double>(rays[next].offset_x) - 0.5,
                             y = static_cast<double>(rays[next].offset_y) - 0.5;
                const double along = (2 * x + y) / std::sqrt(5.0), across = (2 * y - x) / std::sqrt(5.0);
                EXPECT_NEAR(std::max(std::abs(along), std::abs(across)), 0.5, 1e-6);
            }
            EXPECT_EQ(offsets.size(), static_cast<std::size_t>(6 * ring));
        }
    }
    // All rays of a disc without size are the same.
    for (const float diameter : {0.0f, 1e-9f, 1e-6f}) {
        p.sun_diameter = diameter;
        for (const Ray& ray : lighting::sun_rays(p))
            EXPECT_LT(angle_between(ray.direction, p.sun_direction), 0.05) << diameter;
    }
}

TEST(LightRays, FixedTablesAreParallelRaysAtPointsThatShareNoRowOrColumn) {
    lighting_Parameters p = parameters(16);
    for (const int count : {4, 8}) {
        p.sun_rings = -count;
        std::set<float> columns, rows;
        for (const Ray& ray : lighting::sun_rays(p)) {
            EXPECT_EQ(ray.direction.x, p.sun_direction[0]);
            columns.insert(ray.offset_x);
            rows.insert(ray.offset_y);
        }
        EXPECT_EQ(columns.size(), static_cast<std::size_t>(count));
        EXPECT_EQ(rows.size(), static_cast<std::size_t>(count));
        EXPECT_NEAR(std::accumulate(columns.begin(), columns.end(), 0.0) / count, 0.5, 1e-6);
    }
    p.sun_rings = -1;
    EXPECT_EQ(lighting::sun_rays(p).size(), 1u);
}

TEST(LightRays, SphereOfTheSkyKeepsItsUpperPart) {
    constexpr int kept[] = {7, 23, 94, 371}, total[] = {12, 42, 162, 642};
    for (int depth = 0; depth <= 3; ++depth) {
        const lighting::AmbientRays sky = lighting::ambient_rays(depth);
        EXPECT_EQ(sky.total, total[depth]);
        ASSERT_EQ(sky.rays.size(), static_cast<std::size_t>(kept[depth]));
        double free_sky = 0.0;
        for (const Ray& ray : sky.rays) {
            EXPECT_NEAR(length(ray.direction), 1.0, 1e-6);
            EXPECT_GT(ray.direction.z, -0.15f);
            free_sky += std::max(static_cast<double>(ray.direction.z), 0.0);
        }
        // The mean cosine of a sphere's upper half is a quarter.
        EXPECT_NEAR(free_sky / sky.total, 0.25, depth == 0 ? 0.03 : 0.01);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Sweeps

TEST_F(Lighting, FlatGroundIsEvenlyLit) {
    lighting_Parameters p = parameters(40);
    const Cells flat(1600, 12.5f);
    for (const int rings : {0, 3, -4, -8}) {
        p.sun_rings = rings;
        const Image image = shaded(flat, p);
        EXPECT_TRUE(same_bits(image.diffuse, Cells(1600, p.sun_direction[2])));
        EXPECT_TRUE(std::all_of(image.shadow.begin(), image.shadow.end(),
                                [](float share) { return std::abs(share - 1.0f) < 1e-6f; }));
        EXPECT_TRUE(same_bits(image.ao, Cells(1600, image.ao[0])));
    }
    for (int depth = 0; depth <= 3; ++depth) {
        p.ao_subdivisions = p.hybrid_ao_subdivisions = depth;
        for (const std::uint32_t hybrid : {0u, 1u}) {
            p.hybrid_ao = hybrid;
            const Image image = shaded(flat, p);
            EXPECT_TRUE(same_bits(image.ao, Cells(1600, image.ao[0])));
            EXPECT_NEAR(image.ao[0], 1.0f, depth == 0 ? 0.12f : 0.04f) << depth;
        }
    }
    set_sun(p, 0.8f, 0.1f, -0.3f); // below the horizon
    const Image night = shaded(flat, p);
    EXPECT_TRUE(same_bits(night.shadow, Cells(1600, 0.0f)));
    EXPECT_TRUE(same_bits(night.diffuse, Cells(1600, 0.0f)));
}

/// Cells in full shadow of a tower of 4 x 4 cells and the height 10 at (30, 30), with the sun over the ground at a
/// slope of a half.
std::set<std::pair<int, int>> shadow_of_tower(const Cells& shadow) {
    std::set<std::pair<int, int>> cells;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x)
            if (shadow[static_cast<std::size_t>(y * 64 + x)] == 0.0f)
                cells.insert({x, y});
    return cells;
}

TEST_F(Lighting, TowersThrowShadowsAwayFromTheSun) {
    Cells tower(64 * 64, 0.0f);
    for (std::size_t y = 30; y < 34; ++y)
        std::fill_n(tower.begin() + static_cast<std::ptrdiff_t>(y * 64 + 30), 4, 10.0f);
    lighting_Parameters p = parameters(64);
    // The tower is 10 high: its shadow is 20 cells long from the edge of its roof, across the last cell of which the
    // bilinear height falls to the ground.
    for (const auto& [dx, dy] : std::vector<std::pair<int, int>>{{1, 0}, {-1, 0}, {0, 1}, {0, -1}}) {
        set_sun(p, static_cast<float>(dx), static_cast<float>(dy), 0.5f);
        const auto dark = shadow_of_tower(shaded(tower, p).shadow);
        std::set<std::pair<int, int>> expected;
        for (int side = 30; side < 34; ++side)
            for (int n = 1; n <= 20; ++n) {
                const int along = (dx + dy > 0 ? 30 - n : 33 + n);
                expected.insert(dx != 0 ? std::pair{along, side} : std::pair{side, along});
            }
        EXPECT_EQ(dark, expected) << dx << ", " << dy;
    }
    // Along a diagonal the same length of 20 takes 14.1 cells, and the middle of the shadow is the diagonal itself.
    for (const auto& [dx, dy] : std::vector<std::pair<int, int>>{{1, 1}, {-1, 1}, {1, -1}, {-1, -1}}) {
        set_sun(p, static_cast<float>(dx), static_cast<float>(dy), 0.5f * std::sqrt(2.0f));
        const auto dark = shadow_of_tower(shaded(tower, p).shadow);
        const int corner_x = dx > 0 ? 30 : 33, corner_y = dy > 0 ? 30 : 33;
        for (int n = 1; n <= 17; ++n)
            EXPECT_EQ(dark.count({corner_x - n * dx, corner_y - n * dy}), n <= 14 ? 1u : 0u) << n;
        for (const auto& [x, y] : dark)
            EXPECT_LE(std::abs((x - corner_x) * dy - (y - corner_y) * dx), 3);
    }
}

TEST_F(Lighting, ShadowsStopAtTheEdgesOfTheGrid) {
    lighting_Parameters p = parameters(64);
    for (const auto& [x, y] : std::vector<std::pair<float, float>>{{1, 0}, {-1, 0}, {0, 1}, {0, -1}, {0.3f, 1}}) {
        set_sun(p, x, y, 0.2f);
        Cells wall(64 * 64, 0.0f);
        for (int i = 0; i < 64; ++i) // right at the edge that the light goes out at
            wall[static_cast<std::size_t>(x == 0 || y == 1 ? (y > 0 ? 0 : 63 * 64) + i : i * 64 + (x > 0 ? 0 : 63))] =
                100.0f;
        const Image image = shaded(wall, p);
        EXPECT_TRUE(same_bits(image.shadow, Cells(64 * 64, 1.0f))) << x << ", " << y;
    }
}

TEST_F(Lighting, RingsSoftenTheEndOfAShadow) {
    Cells tower(64 * 64, 0.0f);
    for (std::size_t y = 24; y < 40; ++y)
        tower[y * 64 + 50] = 8.0f;
    lighting_Parameters p = parameters(64);
    set_sun(p, 1.0f, 0.0f, 0.25f);
    p.sun_diameter = 4.0f;
    p.sun_rings = 8;
    const Image image = shaded(tower, p);
    // Away from the wall the light comes back steadily, from nothing to all, over the penumbra.
    const float* row = &image.shadow[32 * 64];
    EXPECT_EQ(row[40], 0.0f);
    EXPECT_NEAR(row[5], 1.0f, 1e-6f);
    int partly_lit = 0;
    for (int x = 40; x > 5; --x) {
        EXPECT_LE(row[x], row[x - 1] + 0.02f);
        partly_lit += row[x] > 0.0f && row[x] < 0.999f ? 1 : 0;
    }
    EXPECT_GT(partly_lit, 5);
}

TEST_F(Lighting, SunStraightAboveThrowsNoShadowAndStraightBelowGivesNoLight) {
    lighting_Parameters p = parameters(32);
    p.sun_diameter = 20.0f;
    const Cells ground = rough_terrain(32, 32);
    for (const int rings : {0, -1, 7, 17, -4, -8}) {
        p.sun_rings = rings;
        set_sun(p, 0.0f, 0.0f, 1.0f);
        const Image noon = shaded(ground, p);
        EXPECT_TRUE(same_bits(noon.shadow, Cells(1024, 1.0f))) << rings;
        EXPECT_TRUE(std::all_of(noon.red.begin(), noon.red.end(), [](float c) { return std::isfinite(c); }));
        set_sun(p, 0.0f, -0.0f, -1.0f);
        EXPECT_TRUE(same_bits(shaded(ground, p).shadow, Cells(1024, 0.0f)));
        p.sun_direction[2] = 0.0f;
        EXPECT_TRUE(same_bits(shaded(ground, p).shadow, Cells(1024, 0.0f)));
    }
}

TEST_F(Lighting, HollowsAreDarkerThanSummits) {
    lighting_Parameters p = parameters(64);
    Cells ground(64 * 64);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x)
            ground[static_cast<std::size_t>(y * 64 + x)] =
                12.0f * std::sin(static_cast<float>(x) * 0.19635f) * std::sin(static_cast<float>(y) * 0.19635f);
    for (const std::uint32_t hybrid : {0u, 1u}) {
        p.hybrid_ao = hybrid;
        const Image image = shaded(ground, p);
        const float summit = image.ao[8 * 64 + 8], hollow = image.ao[8 * 64 + 24];
        EXPECT_GT(summit, 0.9f);
        EXPECT_LT(hollow, 0.8f * summit);
        EXPECT_GT(*std::min_element(image.ao.begin(), image.ao.end()), 0.0f);
        EXPECT_LT(*std::max_element(image.ao.begin(), image.ao.end()), 1.1f);
    }
    // A cell at the bottom of a deep shaft sees next to nothing of the sky.
    p.hybrid_ao = 0;
    Cells shaft(64 * 64, 50.0f);
    shaft[40 * 64 + 20] = 0.0f;
    EXPECT_LT(shaded(shaft, p).ao[40 * 64 + 20], 0.05f);
}

/// Hashes that a scan of the lines one by one, in plain loops, gives.
std::uint64_t hash(const Cells& cells) {
    std::uint64_t value = 14695981039346656037u;
    for (const float cell : cells)
        value = (value ^ std::bit_cast<std::uint32_t>(cell)) * 1099511628211u;
    return value;
}

TEST_F(Lighting, BitsAreThoseOfSingleLines) {
    lighting_Parameters p = parameters(320);
    p.ao_subdivisions = 1;
    p.sun_rings = -8;
    set_sun(p, -0.5f, 0.625f, 0.125f);
    const Image image = shaded(rubble(320), p);
    EXPECT_EQ(hash(image.shadow), 4885370174069891877u);
    EXPECT_EQ(hash(image.ao), 17925983335276562081u);
    EXPECT_EQ(hash(image.diffuse), 12252833416843418441u);
}

// ---------------------------------------------------------------------------------------------------------------------
// The pipeline

TEST_F(Lighting, HybridOcclusionOfOneLevelIsTheTracedOne) {
    lighting_Parameters p = parameters(48);
    const Cells ground = rough_terrain(48, 48);
    const Image traced = shaded(ground, p);
    p.hybrid_ao = 1;
    p.ao_subdivisions = 0; // not looked at
    for (const int levels : {1, 0, -1, std::numeric_limits<int>::min()}) {
        p.hybrid_ao_levels = levels;
        expect_same(shaded(ground, p), traced);
    }
    for (const int levels : {2, 3, 6}) { // the coarsest of 6 has one cell
        p.hybrid_ao_levels = levels;
        const Image image = shaded(ground, p);
        EXPECT_FALSE(same_bits(image.ao, traced.ao));
        EXPECT_TRUE(std::all_of(image.ao.begin(), image.ao.end(), [](float ao) { return ao >= 0.0f && ao <= 1.0f; }));
    }
}

TEST_F(Lighting, EveryCombinationOfFlagsComposesWhatItsStagesGive) {
    constexpr int side = 24;
    const Cells ground = rough_terrain(side, side);
    Cells red(side * side), green(red), blue(red), ao(red);
    for (std::size_t i = 0; i < red.size(); ++i) {
        red[i] = static_cast<float>(i % 7) * 0.1f;
        green[i] = static_cast<float>(i % 11) * 0.09f;
        blue[i] = 0.5f;
        ao[i] = static_cast<float>(i % 5) * 0.2f;
    }
    lighting_Parameters p = parameters(side);
    const Image all = shaded(ground, p);
    const Cells blank(ground.size(), untouched);
    for (int flags = 0; flags < 32; ++flags) {
        p.direct_light = flags & 1 ? 255 : 0;
        p.ambient_light = flags & 2 ? 1 : 0;
        p.shadows = flags & 4 ? 1 : 0;
        p.ambient_occlusion = flags & 8 ? 2 : 0;
        p.ao_supplied = flags & 16 ? 1 : 0;
        for (const bool has_albedo : {false, true}) {
            // Two of three are as good as none.
            const Albedo albedo{red.data(), has_albedo ? green.data() : nullptr, blue.data()};
            const bool supplied = p.ao_supplied != 0;
            const Image image = shaded(ground, p, albedo, supplied ? &ao : nullptr);
            const bool direct = p.direct_light != 0, ambient = p.ambient_light != 0;
            const bool occluded = ambient && p.ambient_occlusion != 0;
            EXPECT_TRUE(same_bits(image.diffuse, direct ? all.diffuse : blank));
            EXPECT_TRUE(same_bits(image.shadow, direct && p.shadows != 0 ? all.shadow : blank));
            EXPECT_TRUE(same_bits(image.ao, supplied ? ao : occluded ? all.ao : blank));
            Cells expected_red, expected_green, expected_blue;
            for (std::size_t i = 0; i < ground.size(); ++i) {
                const float sun = direct ? all.diffuse[i] * (p.shadows != 0 ? all.shadow[i] : 1.0f) : 0.0f;
                const float sky = occluded ? image.ao[i] : ambient ? 1.0f : 0.0f;
                const auto light = [&](int c) {
                    return sun * (3.0f * p.sun_color[c]) + 1.125f * p.ambient_color[c] * sky;
                };
                expected_red.push_back((has_albedo ? red[i] : 0.4f) * light(0));
                expected_green.push_back((has_albedo ? green[i] : 0.4f) * light(1));
                expected_blue.push_back((has_albedo ? blue[i] : 0.4f) * light(2));
            }
            EXPECT_TRUE(same_bits(image.red, expected_red)) << flags;
            EXPECT_TRUE(same_bits(image.green, expected_green)) << flags;
            EXPECT_TRUE(same_bits(image.blue, expected_blue)) << flags;
        }
    }
}

TEST_F(Lighting, GridsOfStagesThatDoNotRunMayBeAbsent) {
    const HostCallbacks record = host.callbacks();
    const Cells ground = rough_terrain(16, 16);
    Cells d(256), s(256), a(256), r(256), g(256), b(256);
    const auto status = [&](const lighting_Parameters& p, float* diffuse, float* shadow, float* ao) {
        return Shade(handle(queue), ground.data(), diffuse, shadow, ao, r.data(), g.data(), b.data(), nullptr, nullptr,
                     nullptr, &p, &record);
    };
    lighting_Parameters p = parameters(16);
    EXPECT_EQ(status(p, nullptr, s.data(), a.data()), static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.back(), "Shade: diffuse is null");
    EXPECT_EQ(status(p, d.data(), nullptr, a.data()), static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.back(), "Shade: shadow is null");
    p.ao_supplied = 1;
    EXPECT_EQ(status(p, d.data(), s.data(), nullptr), static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.back(), "Shade: ao is null");
    p.shadows = p.ambient_occlusion = 0;
    EXPECT_EQ(status(p, d.data(), nullptr, nullptr), static_cast<std::uint32_t>(status_ok));
    p.direct_light = 0;
    EXPECT_EQ(status(p, nullptr, nullptr, nullptr), static_cast<std::uint32_t>(status_ok));
    EXPECT_EQ(host.errors.size(), 3u);
}

TEST_F(Lighting, FrameReportsOnceAndAsksNothing) {
    host.cancel_at = 1;
    shaded(rough_terrain(32, 32), parameters(32));
    EXPECT_EQ(host.progress, std::vector<double>{0.0});
    EXPECT_EQ(host.cancel_questions, 0);
    EXPECT_EQ(host.acquired, std::vector<std::size_t>{0x4000000});
    EXPECT_EQ(host.released, host.acquired);
    shaded(Cells(1024 * 1024, 0.0f), [] {
        lighting_Parameters p = parameters(1024);
        p.shadows = p.ambient_occlusion = 0;
        return p;
    }());
    EXPECT_EQ(host.acquired.back(), std::size_t{72} * 1024 * 1024);
}

TEST_F(Lighting, BadInputIsRefusedWithOneLineThatNamesTheField) {
    using Spoil = std::function<void(lighting_Parameters&)>;
    const auto set = [](auto field, auto value) -> Spoil {
        return [=](lighting_Parameters& p) {
            p.*field = value;
        };
    };
    using P = lighting_Parameters;
    const auto resolution = [](int width, int height) -> Spoil {
        return [=](P& p) {
            p.resolution = {width, height};
        };
    };
    std::vector<std::pair<std::string, Spoil>> cases = {
        {"width is 0", resolution(0, 0)},
        {"height is -8", resolution(8, -8)},
        {"width is -2147483648", resolution(std::numeric_limits<int>::min(), std::numeric_limits<int>::min())},
        {"height is 14", resolution(16, 14)},
        {"width is 15", resolution(15, 15)},
        {"width is 32768", resolution(32768, 32768)},
        {"width * height", resolution(65536, 65536)},
        {"terrain_size", set(&P::terrain_size, 0.0f)},
        {"terrain_size", set(&P::terrain_size, infinity)},
        {"terrain_height", set(&P::terrain_height, -1.0f)},
        {"terrain_height", set(&P::terrain_height, 1e-44f)},
        {"sun_rings is 18", set(&P::sun_rings, 18)},
        {"sun_rings is -2", set(&P::sun_rings, -2)},
        {"sun_rings is -9", set(&P::sun_rings, -9)},
        {"sun_rings", set(&P::sun_rings, std::numeric_limits<int>::min())},
        {"sun_diameter", set(&P::sun_diameter, -0.5f)},
        {"sun_diameter", set(&P::sun_diameter, 181.0f)},
        {"ao_subdivisions is 4", set(&P::ao_subdivisions, 4)},
        {"ao_subdivisions is -1", set(&P::ao_subdivisions, -1)},
        {"hybrid_ao_subdivisions is 4",
         [](P& p) {
             p.hybrid_ao = 7;
             p.hybrid_ao_subdivisions = 4;
         }},
        {"hybrid_ao_levels is 6; it must be at most 5",
         [](P& p) {
             p.hybrid_ao = 1;
             p.hybrid_ao_levels = 6;
         }},
        {"hybrid_ao_levels", [](P& p) {
             p.hybrid_ao = 1;
             p.hybrid_ao_levels = std::numeric_limits<int>::max();
         }}};
    for (const float value : {nan, infinity, -infinity}) {
        for (const auto& [name, field] :
             std::vector<std::pair<const char*, float P::*>>{{"terrain_size", &P::terrain_size},
                                                             {"terrain_height", &P::terrain_height},
                                                             {"sun_diameter", &P::sun_diameter},
                                                             {"exposure", &P::exposure},
                                                             {"sun_intensity", &P::sun_intensity},
                                                             {"ambient_intensity", &P::ambient_intensity},
                                                             {"albedo", &P::albedo}})
            cases.emplace_back(name, set(field, value));
        for (int i = 0; i < 3; ++i) {
            cases.emplace_back("sun_direction", [=](P& p) { p.sun_direction[i] = value; });
            cases.emplace_back("sun_color", [=](P& p) { p.sun_color[i] = value; });
            cases.emplace_back("ambient_color", [=](P& p) { p.ambient_color[i] = value; });
        }
    }
    const Cells ground = rough_terrain(16, 16), blank(256, untouched);
    for (const auto& [text, spoil] : cases) {
        P p = parameters(16);
        spoil(p);
        host.errors.clear();
        const Image image = run(queue, ground, p);
        EXPECT_EQ(image.status, static_cast<std::uint32_t>(status_failed)) << text;
        ASSERT_EQ(host.errors.size(), 1u) << text;
        EXPECT_NE(host.errors[0].find(text), std::string::npos) << host.errors[0];
        EXPECT_TRUE(same_bits(image.red, blank) && same_bits(image.diffuse, blank) && same_bits(image.ao, blank));
    }
    EXPECT_TRUE(host.acquired.empty() && host.progress.empty());

    // What no stage of the run looks at may hold anything.
    P p = parameters(16);
    p.sun_rings = 99;
    p.hybrid_ao_levels = 99;
    p.shadows = 0;
    p.first_day = 1000;
    p.latitude = p.haze = nan;
    host.errors.clear();
    shaded(ground, p);
    p.ao_supplied = 1;
    p.ao_subdivisions = -7;
    shaded(ground, p, {}, &ground);
}

TEST_F(Lighting, NullArgumentsAreRefused) {
    const HostCallbacks record = host.callbacks();
    const lighting_Parameters p = parameters(8);
    Cells c(64);
    float* const data = c.data();
    const auto shade = [&](SyclQueue* on, const float* heights, float* red, float* blue,
                           const lighting_Parameters* params, const HostCallbacks* callbacks) {
        return Shade(on, heights, data, data, data, red, data, blue, nullptr, nullptr, nullptr, params, callbacks);
    };
    SyclQueue* const on = handle(queue);
    constexpr auto failed = static_cast<std::uint32_t>(status_failed);
    EXPECT_EQ(shade(nullptr, data, data, data, &p, &record), failed);
    EXPECT_EQ(shade(on, nullptr, data, data, &p, &record), failed);
    EXPECT_EQ(shade(on, data, nullptr, data, &p, &record), failed);
    EXPECT_EQ(shade(on, data, data, nullptr, &p, &record), failed);
    EXPECT_EQ(shade(on, data, data, data, nullptr, &record), failed);
    EXPECT_EQ(host.errors,
              (std::vector<std::string>{"Shade: queue is null", "Shade: heights is null", "Shade: red is null",
                                        "Shade: blue is null", "Shade: parameters is null"}));
    EXPECT_EQ(shade(on, data, data, data, &p, nullptr), failed);
    EXPECT_EQ(host.errors.size(), 5u);
}

TEST_F(Lighting, NonFiniteGroundAndExtremeParametersFinish) {
    Cells ground = rough_terrain(160, 160);
    for (std::size_t i = 0; i < ground.size(); i += 37)
        ground[i] = i % 5 == 0 ? nan : i % 5 == 1 ? infinity : i % 5 == 2 ? -infinity : i % 5 == 3 ? 3e38f : -3e38f;
    for (const std::uint32_t hybrid : {0u, 1u})
        for (const auto& [x, y, z] : std::vector<std::array<float, 3>>{{0.6f, 0.0f, 0.8f},
                                                                       {1e-38f, 0.0f, 1.0f},
                                                                       {1e-45f, -1e-45f, 1.0f},
                                                                       {3e38f, 3e38f, 3e38f},
                                                                       {1e-30f, 1e-30f, 1e-30f},
                                                                       {0.0f, 1.0f, 0.0f}})
            for (const float height : {1e-30f, 1.0f, 1e30f})
                for (const float diameter : {0.53f, 179.9f, 180.0f}) {
                    lighting_Parameters p = parameters(160);
                    p.hybrid_ao = hybrid;
                    p.sun_rings = 2;
                    p.ao_subdivisions = p.hybrid_ao_subdivisions = 1;
                    p.sun_direction[0] = x;
                    p.sun_direction[1] = y;
                    p.sun_direction[2] = z;
                    p.sun_diameter = diameter;
                    p.terrain_height = height;
                    const Image image = shaded(ground, p);
                    EXPECT_TRUE(std::all_of(image.shadow.begin(), image.shadow.end(),
                                            [](float share) { return share >= 0.0f && share <= 1.000001f; }));
                }
}

/// Sizes with one strip, with two and four of them, and with strips of different widths.
const std::vector<int> sides = {2, 4, 6, 34, 126, 258, 514};

TEST_F(Lighting, AnyNumberOfThreadsGivesTheSameBits) {
    for (const int side : sides) {
        lighting_Parameters p = parameters(side);
        set_sun(p, 0.5f, -0.3f, 0.4f);
        p.sun_rings = 2;
        p.ao_subdivisions = 1;
        const Cells ground = rough_terrain(side, side);
        for (const std::uint32_t hybrid : {0u, 1u}) {
            p.hybrid_ao = hybrid;
            p.hybrid_ao_levels = 2;
            const Image all_threads = shaded(ground, p);
            const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
            expect_same(shaded(ground, p), all_threads);
        }
    }
}

#ifdef HOSTSYCL

TEST_F(Lighting, ALineAWorkItemOnAGpuGivesTheBitsOfStripsOnACpu) {
    SimulatedGpu gpu;
    for (const int side : sides) {
        const Cells ground = rough_terrain(side, side);
        for (const int rings : {0, 1, 3, -4, -8})
            for (const auto& [x, y, z] : std::vector<std::array<float, 3>>{
                     {0.5f, -0.3f, 0.4f}, {-0.2f, 0.6f, 0.9f}, {1.0f, 1.0f, 0.5f}, {-1.0f, 0.0f, 0.01f}}) {
                lighting_Parameters p = parameters(side);
                set_sun(p, x, y, z);
                p.sun_rings = rings;
                p.sun_diameter = 3.0f;
                p.ao_subdivisions = 0;
                p.hybrid_ao_subdivisions = 1;
                p.hybrid_ao = rings == 1 ? 1 : 0;
                p.hybrid_ao_levels = 2;
                const Image there = run(gpu.queue, ground, p);
                EXPECT_EQ(there.status, static_cast<std::uint32_t>(status_ok));
                expect_same(there, shaded(ground, p));
            }
    }
}

TEST_F(Lighting, ErrorsOfTheDeviceEndTheRun) {
    SimulatedGpu gpu;
    device_callbacks.set(host.callbacks());
    const Cells ground = rough_terrain(32, 32);
    const lighting_Parameters p = parameters(32);
    gpu.device.throw_on_submit(1, "queue is full"); // in the task beside the one that builds the rays
    EXPECT_EQ(run(gpu.queue, ground, p).status, static_cast<std::uint32_t>(status_failed));
    EXPECT_EQ(host.errors.back(), "Runtime error on device Discrete GPU (Level Zero): queue is full");
    EXPECT_EQ(host.released, host.acquired);
    device_callbacks.set(HostCallbacks{});

    const std::size_t need = 72 * 32 * 32 + (std::size_t{256} << 20);
    SimulatedGpu small(discrete_gpu(need - 1)), enough(discrete_gpu(need));
    EXPECT_EQ(run(small.queue, ground, p).status, static_cast<std::uint32_t>(status_out_of_memory));
    EXPECT_EQ(run(enough.queue, ground, p).status, static_cast<std::uint32_t>(status_ok));
    EXPECT_EQ(gpu.device.counters().bytes_in_use, 0u);
}

TEST_F(Lighting, OnlyGridsThatTheRunReadsGoToTheDevice) {
    const Cells ground = rough_terrain(32, 32);
    lighting_Parameters p = parameters(32);
    const auto uploaded = [&](const Cells* ao) {
        SimulatedGpu gpu;
        EXPECT_EQ(run(gpu.queue, ground, p, {}, ao).status, static_cast<std::uint32_t>(status_ok));
        return gpu.device.counters().bytes_copied_to_device;
    };
    p.direct_light = 0;
    const auto traced = uploaded(nullptr);
    p.ao_supplied = 1;
    EXPECT_EQ(uploaded(&ground), traced - lighting::ambient_rays(2).rays.size() * 40 + ground.size() * sizeof(float));
    p.ambient_occlusion = 0;
    EXPECT_EQ(uploaded(&ground), ground.size() * sizeof(float));
}

#endif

} // namespace
