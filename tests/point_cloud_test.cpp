#include "mesh/point_cloud.hpp"

#include <map>
#include <random>
#include <set>

#include "mesh/mesh_kernels.hpp"
#include "mesh/point_cloud_kernels.hpp"
#include "mesh/sweep_line.hpp"
#include "support.hpp"

namespace {

using namespace tarn_test;
using namespace tarn::mesh_rasterizer;

/// A cloud, the grids that it is drawn into, and an image.
struct CloudScene {
    CloudScene(int grid_width, int grid_height)
        : width(static_cast<std::size_t>(grid_width)),
          heights(width * static_cast<std::size_t>(grid_height), untouched), noise(heights), red(heights.size(), 0.0f),
          green(red), blue(red) {
        parameters.resolution = {grid_width, grid_height};
    }

    void add(float x, float y, float z) { points.insert(points.end(), {x, y, z}); }

    std::uint32_t run(sycl::queue& queue, const HostCallbacks& record, bool with_image = false) {
        return run(queue, record, with_image ? red.data() : nullptr, with_image ? green.data() : nullptr,
                   with_image ? blue.data() : nullptr);
    }
    std::uint32_t run(sycl::queue& queue, const HostCallbacks& record, float* r, float* g, float* b) {
        parameters.point_count = static_cast<std::uint32_t>(points.size() / 3);
        return MeshRasterizer_RenderPointCloud(handle(queue), points.data(), heights.data(), noise.data(), r, g, b,
                                               &parameters, &record);
    }

    std::size_t index(int x, int y) const { return static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x); }

    mesh_rasterizer_Parameters parameters{};
    std::size_t width;
    std::vector<float> points, heights, noise, red, green, blue;
};

class PointCloud : public ::testing::Test {
  protected:
    sycl::queue queue = cpu_queue();
    RecordingHost host;

    void draw(CloudScene& scene, bool with_image = false) {
        EXPECT_EQ(scene.run(queue, host.callbacks(), with_image), ok);
    }
};

TEST_F(PointCloud, PointsOnTheRimMoveTenCellsOut) {
    struct Case {
        float from, to;
    };
    for (const Case& c : {Case{0.5f, -10.0f},
                          {std::nextafter(1.0f, 0.0f), -10.0f},
                          {1.0f, 1.0f},
                          {38.5f, 38.5f},
                          {std::nextafter(39.0f, 0.0f), std::nextafter(39.0f, 0.0f)},
                          {39.0f, 49.0f},
                          {-3e38f, -10.0f},
                          {3e38f, 49.0f},
                          {infinity, 49.0f},
                          {-infinity, -10.0f},
                          {not_a_number, 49.0f}})
        EXPECT_EQ(moved_off_rim(c.from, 40), c.to) << c.from;
}

TEST_F(PointCloud, CornersCoverTheWholeFrameAndAPlaneStaysAPlane) {
    CloudScene corners(33, 21);
    for (const float x : {0.2f, 32.9f})
        for (const float y : {0.9f, 20.0f})
            corners.add(x, y, 2.5f);
    draw(corners);
    for (const float h : corners.heights)
        EXPECT_NEAR(h, 2.5f, 1e-5f);
    EXPECT_EQ(host.progress, std::vector<double>{0.0});

    CloudScene plane(64, 48);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 16; ++x)
            plane.add(1.5f + 4.0f * static_cast<float>(x), 1.5f + 4.0f * static_cast<float>(y),
                      0.25f * static_cast<float>(x) - 0.5f * static_cast<float>(y));
    draw(plane);
    for (int y = 2; y < 45; ++y)
        for (int x = 2; x < 61; ++x)
            EXPECT_NEAR(plane.heights[plane.index(x, y)],
                        (static_cast<float>(x) - 1.0f) / 16.0f - (static_cast<float>(y) - 1.0f) / 8.0f, 0.01f);
}

TEST_F(PointCloud, CellsOutsideTheHullKeepWhatTheyHold) {
    CloudScene scene(40, 40);
    scene.add(10.0f, 10.0f, 1.0f);
    scene.add(30.0f, 10.0f, 1.0f);
    scene.add(10.0f, 30.0f, 1.0f);
    draw(scene, true);
    for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 40; ++x) {
            const std::size_t i = scene.index(x, y);
            if (x >= 10 && y >= 10 && x + y < 39) {
                EXPECT_NEAR(scene.heights[i], 1.0f, 1e-5f);
                EXPECT_EQ(scene.noise[i], triangle_noise(0));
            } else if (x < 9 || y < 9 || x + y > 40) {
                EXPECT_EQ(scene.heights[i], untouched);
                EXPECT_EQ(scene.noise[i], untouched);
            }
        }
    }
}

TEST_F(PointCloud, WithoutATriangleTheRunFailsAndTheGridsStay) {
    const std::vector<std::vector<float>> clouds = {
        {},
        {5, 5, 1},
        {5, 5, 1, 9, 7, 2},
        {5, 5, 1, 10, 10, 2, 15, 15, 3},
        {2.5f, 3.125f, 1, 5, 6.25f, 2, 7.5f, 9.375f, 3, 10, 12.5f, 4},
        {5, 5, 1, 5, 5, 2, 5, 5, 3, 5, 5, 4},
        {not_a_number, not_a_number, 1, 50, 50, 1, not_a_number, 99, 1}, // all of them in one corner
        {0.5f, 3, 1, 0.7f, 9, 1, -5, 20, 1},                             // all on one side
    };
    for (const std::vector<float>& points : clouds) {
        for (const bool with_image : {false, true}) {
            CloudScene scene(32, 32);
            scene.points = points;
            host.errors.clear();
            EXPECT_EQ(scene.run(queue, host.callbacks(), with_image), failed);
            EXPECT_EQ(host.errors, std::vector<std::string>{"Error: not triangulation"});
            EXPECT_EQ(scene.heights, std::vector<float>(32 * 32, untouched));
            EXPECT_EQ(scene.red, std::vector<float>(32 * 32, 0.0f));
        }
    }
    EXPECT_TRUE(host.progress.empty());
    EXPECT_EQ(host.released, host.acquired);
}

using Point = std::array<std::int64_t, 2>;

/// Twice the area of a triangle, above 0 where it turns counter-clockwise.
std::int64_t area(const Point& a, const Point& b, const Point& c) {
    return (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]);
}

/// Above 0 where `d` lies inside the circle through a, b and c, which turn counter-clockwise.
std::int64_t inside_circle(const Point& a, const Point& b, const Point& c, const Point& d) {
    const auto row = [&](const Point& p) {
        const std::int64_t x = p[0] - d[0], y = p[1] - d[1];
        return std::array<std::int64_t, 3>{x, y, x * x + y * y};
    };
    const auto p = row(a), q = row(b), r = row(c);
    return p[0] * (q[1] * r[2] - q[2] * r[1]) - p[1] * (q[0] * r[2] - q[2] * r[0]) + p[2] * (q[0] * r[1] - q[1] * r[0]);
}

std::int64_t hull_area(std::set<Point> points) {
    std::vector<Point> hull;
    for (const bool upper : {false, true}) {
        const std::size_t start = hull.size();
        std::vector<Point> order(points.begin(), points.end());
        if (upper)
            std::reverse(order.begin(), order.end());
        for (const Point& p : order) {
            while (hull.size() >= start + 2 && area(hull[hull.size() - 2], hull.back(), p) <= 0)
                hull.pop_back();
            hull.push_back(p);
        }
        hull.pop_back();
    }
    std::int64_t sum = 0;
    for (std::size_t i = 1; i + 1 < hull.size(); ++i)
        sum += area(hull[0], hull[i], hull[i + 1]);
    return sum;
}

TEST_F(PointCloud, TriangulationsAreDelaunayAndCoverTheHull) {
    std::mt19937 random(11);
    const auto number = [&](int last) {
        return static_cast<std::int64_t>(random() % static_cast<unsigned>(last + 1));
    };
    for (int round = 0; round < 300; ++round) {
        std::vector<Point> points;
        const int kind = round % 6;
        const int count = round < 6 ? 400 : 3 + static_cast<int>(number(30));
        for (int n = 0; n < count; ++n) {
            Point p{number(2000), number(2000)};
            if (kind == 1) // a lattice with many points in one place
                p = {number(5) * 100, number(5) * 100};
            else if (kind == 2) // rims
                p[static_cast<std::size_t>(n % 2)] = n % 4 < 2 ? -10 : 2010;
            else if (kind == 3) // two lines
                p = {p[0], n % 2 == 0 ? 700 : 2 * p[0]};
            else if (kind == 4) { // one circle, 5^2 * 13^2 * 17^2 being a sum of squares in many ways
                constexpr Point directions[] = {{1105, 0},   {943, 576},  {817, 744},  {47, 1104},
                                                {105, 1100}, {264, 1073}, {169, 1092}, {425, 1020},
                                                {520, 975},  {561, 952},  {663, 884},  {700, 855}};
                const Point& d = directions[static_cast<std::size_t>(number(11))];
                p = {number(1) == 0 ? d[0] : -d[0], number(1) == 0 ? d[1] : -d[1]};
            } else if (kind == 5) // a thin strip
                p[1] = 1000 + number(2);
            points.push_back(p);
        }
        std::vector<double> coordinates;
        for (const Point& p : points) {
            // Eighths of a cell, with many more places behind the point than they need.
            coordinates.push_back(static_cast<double>(p[0]) / 8.0);
            coordinates.push_back(static_cast<double>(p[1]) / 8.0);
        }
        const std::set<Point> places(points.begin(), points.end());
        const std::int64_t whole = hull_area(places);
        if (whole == 0) {
            EXPECT_THROW(triangulate(coordinates), std::runtime_error);
            continue;
        }
        std::int64_t sum = 0;
        std::set<Point> corners;
        std::map<std::array<std::uint32_t, 2>, std::uint32_t> edges;
        for (const PointTriangle& t : triangulate(coordinates)) {
            const std::int64_t clockwise = -area(points[t[0]], points[t[1]], points[t[2]]);
            EXPECT_GT(clockwise, 0);
            sum += clockwise;
            for (std::size_t k = 0; k < 3; ++k) {
                corners.insert(points[t[k]]);
                EXPECT_TRUE(edges.insert({{t[k], t[(k + 1) % 3]}, t[(k + 2) % 3]}).second);
            }
        }
        EXPECT_EQ(sum, whole) << "kind " << kind;
        EXPECT_EQ(corners, places);
        for (const auto& [edge, apex] : edges) {
            const auto other = edges.find({edge[1], edge[0]});
            if (other != edges.end()) {
                EXPECT_LE(inside_circle(points[edge[1]], points[edge[0]], points[apex], points[other->second]), 0)
                    << "kind " << kind;
            }
        }
    }
}

TEST_F(PointCloud, DividingFindsWhatTheSweepLineFindsInItsOrder) {
    std::mt19937 random(12);
    const auto number = [&](int bits) {
        return static_cast<std::int64_t>((std::uint64_t{random()} << 32 | random()) >> (64 - bits));
    };
    for (const std::size_t count : {3u, 4u, 5u, 9u, 40u, 700u, 5000u})
        for (const char* kind : {"square", "strip", "rim", "fine lattice"}) {
            std::set<Point> chosen;
            while (chosen.size() < count) {
                Point p{number(41), number(kind == std::string("strip") ? 12 : 41)};
                if (kind == std::string("rim") && chosen.size() % 3 == 0)
                    p[chosen.size() % 2] = chosen.size() % 4 < 2 ? -500 : std::int64_t{1} << 41;
                if (kind == std::string("fine lattice")) // where some points are as high as the middle of their circle
                    p = {number(13), number(13)};
                chosen.insert(p);
            }
            std::vector<Place> places;
            for (const Point& p : chosen)
                places.push_back({p[0], p[1], static_cast<std::uint32_t>(2 * places.size())});
            auto triangles = divide_and_conquer(places);
            ASSERT_TRUE(triangles.has_value()) << count << " points, " << kind;
            ASSERT_TRUE(sort_by_sweep(*triangles, places)) << count << " points, " << kind;
            EXPECT_EQ(*triangles, sweep_line(places)) << count << " points, " << kind;
        }
}

TEST_F(PointCloud, OfSeveralPointsInOnePlaceTheFirstCounts) {
    const auto triangles = triangulate({5, 5, 1, 1, 9, 1, 5, 5, 1, 9, 9, 9, 1, 1, 5, 5});
    EXPECT_EQ(triangles.size(), 4u);
    for (const PointTriangle& t : triangles)
        for (const std::uint32_t corner : t)
            EXPECT_TRUE(corner != 3 && corner < 6) << corner;
}

TEST_F(PointCloud, BoxesBeyondALaunchFailAndTheGridsStay) {
    // A fan: all points but one on the right rim, and each triangle's box as long as the frame.
    CloudScene scene(60000, 8);
    scene.add(2.0f, 2.0f, 0.0f);
    for (int n = 0; n < 12000; ++n)
        scene.add(60000.0f, 1.0f + static_cast<float>(n) * 0.0005f, 1.0f);
    EXPECT_EQ(scene.run(queue, host.callbacks()), failed);
    ASSERT_EQ(host.errors.size(), 1u);
    EXPECT_EQ(host.errors[0].find("Runtime error on device "), 0u) << host.errors[0];
    EXPECT_EQ(std::count(scene.heights.begin(), scene.heights.end(), untouched), 480000);
}

} // namespace
