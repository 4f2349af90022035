// SunLightIntegral: the sun's way over the days, and what reaches the ground.
#include "lighting/lighting.hpp"

#include <algorithm>

#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;
using lighting::Ray;
using lighting::sun_position;
using lighting::sun_samples;
using lighting::Vector;

constexpr double degree = 0.017453292519943295;

lighting_Parameters parameters(int side, int first_day, int last_day, float latitude) {
    lighting_Parameters p{};
    p.resolution = {side, side};
    p.terrain_size = static_cast<float>(side);
    p.terrain_height = 1.0f;
    p.first_day = first_day;
    p.last_day = last_day;
    p.latitude = latitude;
    return p;
}

class SunLight : public ::testing::Test {
  protected:
    SunLight() { lighting::callbacks.set(HostCallbacks{}); }
    ~SunLight() override { lighting::callbacks.set(HostCallbacks{}); }

    sycl::queue queue = cpu_queue();

    Cells summed(sycl::queue& on, const Cells& heights, const lighting_Parameters& p) {
        Cells result(heights.size(), -77.0f);
        EXPECT_EQ(SunLightIntegral(handle(on), heights.data(), result.data(), &p), ok);
        return result;
    }
    Cells summed(const Cells& heights, const lighting_Parameters& p) { return summed(queue, heights, p); }
};

double elevation_of(const Vector& direction) {
    return std::asin(static_cast<double>(direction.z)) / degree;
}

/// From north over east.
double azimuth_of(const Vector& direction) {
    const double a = std::atan2(static_cast<double>(direction.x), -static_cast<double>(direction.y)) / degree;
    return a < 0.0 ? a + 360.0 : a;
}

TEST(SunPosition, NoonIsInTheSouthAtTheHeightOfTheSeason) {
    // Declination 23.45 degrees at the solstices; 0 near day 81 and day 264.
    const std::vector<std::tuple<float, float, double, double>> noons = {{40.0f, 172.5f, 73.45, 180.0},
                                                                         {40.0f, 355.5f, 26.55, 180.0},
                                                                         {40.0f, 81.5f, 50.0, 180.0},
                                                                         {66.0f, 172.5f, 47.45, 180.0},
                                                                         {80.0f, 355.5f, -13.45, 180.0}};
    for (const auto& [latitude, time, elevation, azimuth] : noons) {
        const lighting::SunPosition sun = sun_position(time, parameters(2, 1, 1, latitude));
        EXPECT_NEAR(static_cast<double>(sun.elevation), elevation, 0.06) << latitude << ", " << time;
        EXPECT_NEAR(elevation_of(sun.direction), elevation, 0.06);
        EXPECT_NEAR(azimuth_of(sun.direction), azimuth, 1e-4);
    }
    lighting_Parameters p = parameters(2, 1, 1, 40.0f);
    p.north_offset = 90.0f;
    EXPECT_NEAR(azimuth_of(sun_position(172.5f, p).direction), 270.0, 1e-4);
    p.north_offset = -225.0f;
    EXPECT_NEAR(azimuth_of(sun_position(172.5f, p).direction), 315.0, 1e-4);
}

/// The greatest and least elevation of the samples, in degrees.
std::pair<double, double> elevations(const lighting_Parameters& p) {
    std::pair<double, double> range{90.0, -90.0};
    for (const Ray& ray : sun_samples(p).rays) {
        range.first = std::min(range.first, elevation_of(ray.direction));
        range.second = std::max(range.second, elevation_of(ray.direction));
    }
    return range;
}

TEST(SunSamples, CoverTheSpanAndDropTheNight) {
    // Kept down to where z is -0.15, that is 8.6 degrees below the horizon.
    const auto [lowest, highest] = elevations(parameters(2, 1, 365, 40.0f));
    EXPECT_NEAR(lowest, -8.6, 0.3);
    EXPECT_NEAR(highest, 73.45, 0.5);
    EXPECT_NEAR(elevations(parameters(2, 355, 355, 40.0f)).second, 26.55, 0.2);
    EXPECT_NEAR(elevations(parameters(2, 81, 81, 0.0f)).second, 90.0, 1.0);
    // Over the new year the days go on to be winter.
    EXPECT_LT(elevations(parameters(2, 340, 30, 40.0f)).second, 34.0);
    EXPECT_GT(elevations(parameters(2, 30, 340, 40.0f)).second, 73.0);
    EXPECT_TRUE(sun_samples(parameters(2, 355, 355, 85.0f)).rays.empty());
    EXPECT_EQ(sun_samples(parameters(2, 172, 172, 85.0f)).rays.size(), 666u); // the sun stays up
    // Half the samples at the equator are day, and those a little below the horizon come to them.
    const lighting::SunSamples equator = sun_samples(parameters(2, 1, 365, 0.0f));
    EXPECT_NEAR(static_cast<double>(equator.rays.size()) / equator.total, 0.5 + 8.9 / 180.0, 0.02);
}

TEST_F(SunLight, FlatGroundGetsTheMeanOfTheSinesOfItsSun) {
    for (const float haze : {0.0f, 0.1f})
        for (const float latitude : {-60.0f, 0.0f, 36.5f, 90.0f}) {
            lighting_Parameters p = parameters(16, 1, 365, latitude);
            p.haze = haze;
            const lighting::SunSamples samples = sun_samples(p);
            double sum = 0.0;
            for (const Ray& ray : samples.rays)
                sum += static_cast<double>(ray.weight) * std::max(static_cast<double>(ray.direction.z), 0.0);
            const Cells result = summed(Cells(256, 100.0f), p);
            EXPECT_TRUE(same_bits(result, Cells(256, result[0])));
            EXPECT_NEAR(static_cast<double>(result[0]), 4.0 * 0.67 * sum / samples.total, 1e-4) << latitude;
            EXPECT_GT(result[0], 0.03f);
        }
}

TEST_F(SunLight, SlopesTowardsTheNoonSunGetMore) {
    Cells ridge(64 * 64);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x)
            ridge[static_cast<std::size_t>(y * 64 + x)] = 16.0f - 0.5f * std::abs(static_cast<float>(y) - 31.5f);
    const auto north_and_south = [&](const lighting_Parameters& p) {
        const Cells result = summed(ridge, p);
        return std::pair{result[16 * 64 + 32], result[48 * 64 + 32]};
    };
    const auto [north, south] = north_and_south(parameters(64, 1, 365, 45.0f));
    EXPECT_GT(south, 1.5f * north);
    const auto [sunny, shady] = north_and_south(parameters(64, 1, 365, -45.0f));
    EXPECT_GT(sunny, 1.5f * shady);
    // A grid whose rows go from south to north.
    lighting_Parameters turned = parameters(64, 1, 365, 45.0f);
    turned.north_offset = 180.0f;
    const auto [top, bottom] = north_and_south(turned);
    EXPECT_NEAR(top, south, 0.02f);
    EXPECT_NEAR(bottom, north, 0.02f);
    // In midwinter the north slope, steeper than the noon sun is high, gets none.
    EXPECT_LT(north_and_south(parameters(64, 340, 20, 50.0f)).first, 0.01f);
}

} // namespace
