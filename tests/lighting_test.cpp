// Shade: the rays, the sweeps, the pipeline.
#include "lighting/lighting.hpp"

#include <algorithm>
#include <limits>
#include <set>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

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
    sycl::queue queue = cpu_queue();
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
        EXPECT_EQ(image.status, ok);
        EXPECT_TRUE(host.errors.empty());
        return image;
    }
};

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

TEST_F(Lighting, SunStraightAboveThrowsNoShadowAndStraightBelowGivesNoLight) {
    lighting_Parameters p = parameters(32);
    p.sun_diameter = 20.0f;
    const Cells ground = rough_terrain(32, 32);
    for (const int rings : {0, -1, 7, 17, -4, -8}) {
        p.sun_rings = rings;
        for (const float aside : {0.0f, 1e-24f}) { // the square is nothing in float
            set_sun(p, aside, 0.0f, 1.0f);
            const Image noon = shaded(ground, p);
            EXPECT_TRUE(same_bits(noon.shadow, Cells(1024, 1.0f))) << rings;
            EXPECT_TRUE(std::all_of(noon.red.begin(), noon.red.end(), [](float c) { return std::isfinite(c); }));
        }
        set_sun(p, 0.0f, -0.0f, -1.0f);
        EXPECT_TRUE(same_bits(shaded(ground, p).shadow, Cells(1024, 0.0f)));
        p.sun_direction[2] = 0.0f;
        EXPECT_TRUE(same_bits(shaded(ground, p).shadow, Cells(1024, 0.0f)));
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The pipeline

TEST_F(Lighting, HeightsThatAreNotFiniteReachOnlyTheirNeighboursInHybridOcclusion) {
    lighting_Parameters p = parameters(64);
    p.hybrid_ao = 1;
    p.hybrid_ao_levels = 7;
    const Cells ground = rough_terrain(64, 64);
    const Image whole = shaded(ground, p);
    for (const float value : {not_a_number, infinity, -infinity}) {
        Cells holed = ground;
        holed[20 * 64 + 30] = value;
        const Image image = shaded(holed, p);
        for (std::size_t i = 0; i < ground.size(); ++i)
            if (i % 64 < 29 || i % 64 > 31 || i / 64 < 19 || i / 64 > 21) {
                EXPECT_NEAR(image.ao[i], whole.ao[i], 0.02f) << value << " at " << i % 64 << ", " << i / 64;
            }
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

} // namespace
