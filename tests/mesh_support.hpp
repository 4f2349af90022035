// Meshes for the rasterizer's tests, and what they are drawn into.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "support.hpp"

namespace tarn_test {

struct TestMesh {
    std::vector<TarnFloat3> vertices, normals;
    std::vector<TarnUint3> triangles;

    mesh_rasterizer_MeshView view() const {
        return {vertices.data(), static_cast<std::uint32_t>(vertices.size()), triangles.data(),
                static_cast<std::uint32_t>(triangles.size()), normals.empty() ? nullptr : normals.data()};
    }

    void append(const TestMesh& other) {
        const auto first = static_cast<std::uint32_t>(vertices.size());
        vertices.insert(vertices.end(), other.vertices.begin(), other.vertices.end());
        for (const TarnUint3& t : other.triangles)
            triangles.push_back({t.x + first, t.y + first, t.z + first, 0});
    }
};

/// A square mesh of side * side squares from 0 to 1 with the height `z(x, y)`, turned to the viewer.
template <class Height>
TestMesh surface_mesh(std::uint32_t side, const Height& z) {
    TestMesh mesh;
    for (std::uint32_t y = 0; y <= side; ++y)
        for (std::uint32_t x = 0; x <= side; ++x) {
            const float fx = static_cast<float>(x) / static_cast<float>(side);
            const float fy = static_cast<float>(y) / static_cast<float>(side);
            mesh.vertices.push_back({fx, fy, z(fx, fy), 0});
        }
    for (std::uint32_t y = 0; y < side; ++y)
        for (std::uint32_t x = 0; x < side; ++x) {
            const std::uint32_t corner = y * (side + 1) + x, below = corner + side + 1;
            mesh.triangles.push_back({corner, below, corner + 1, 0});
            mesh.triangles.push_back({corner + 1, below, below + 1, 0});
        }
    return mesh;
}

/// Two triangles over a rectangle, turned to the viewer, with one height along the left edge and one along the right.
inline TestMesh quad(float left, float top, float right, float bottom, float z_left, float z_right) {
    TestMesh mesh;
    mesh.vertices = {
        {left, top, z_left, 0}, {right, top, z_right, 0}, {left, bottom, z_left, 0}, {right, bottom, z_right, 0}};
    mesh.triangles = {{0, 2, 1, 0}, {1, 2, 3, 0}};
    return mesh;
}

/// How many heights are `value`, but for the rounding of the weights, whose sum need not be 1.
inline std::ptrdiff_t count_near(const std::vector<float>& heights, float value) {
    return std::count_if(heights.begin(), heights.end(),
                         [&](float h) { return std::abs(h - value) <= 1e-5f * std::abs(value); });
}

/// A mesh and the grids that it is drawn into.
struct MeshScene {
    static constexpr float no_noise = -7.0f;

    MeshScene(int grid_width, int grid_height, float floor = 0.0f)
        : width(static_cast<std::size_t>(grid_width)), heights(width * static_cast<std::size_t>(grid_height), floor),
          noise(heights.size(), no_noise) {
        parameters.resolution = {grid_width, grid_height};
        parameters.vertical_scale = 1.0f;
        parameters.scale = 1.0f;
        parameters.displacement_amount = 1.0f;
    }

    float height_at(int x, int y) const { return heights[index(x, y)]; }
    float noise_at(int x, int y) const { return noise[index(x, y)]; }

    TestMesh mesh;
    mesh_rasterizer_Parameters parameters{};
    std::size_t width;
    std::vector<float> heights, noise;

  private:
    std::size_t index(int x, int y) const { return static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x); }
};

/// Triangles of all sizes and directions, some of them partly off the frame, over rough ground.
inline MeshScene tangled_scene(int width, int height, std::uint32_t seed) {
    MeshScene scene(width, height);
    scene.heights = rough_terrain(width, height);
    for (float& h : scene.heights)
        h *= 0.01f;
    std::mt19937 random(seed);
    const auto number = [&](float low, float high) {
        return low + (high - low) * static_cast<float>(random() >> 8) * 0x1p-24f;
    };
    for (int n = 0; n < 150; ++n)
        scene.mesh.vertices.push_back({number(-0.2f, 1.2f) * static_cast<float>(width),
                                       number(-0.2f, 1.2f) * static_cast<float>(height), number(-0.5f, 1.0f), 0});
    for (std::uint32_t n = 0; n < 200; ++n)
        scene.mesh.triangles.push_back({static_cast<std::uint32_t>(random() % 150),
                                        static_cast<std::uint32_t>(random() % 150),
                                        static_cast<std::uint32_t>(random() % 150), 0});
    scene.parameters.rotation_x = 20.0f;
    scene.parameters.rotation_y = -35.0f;
    scene.parameters.rotation_z = 50.0f;
    scene.parameters.scale = 1.2f;
    return scene;
}

} // namespace tarn_test
