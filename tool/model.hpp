#pragma once

#include <string>
#include <vector>

#include <tarn/oneapi.h>

/// A triangle mesh as it lies on a map: x along the rows, y down them, z up. Triangles that face upwards turn the way
/// the library's functions with a winding ask for.
struct Model {
    std::vector<TarnFloat3> vertices;
    std::vector<TarnFloat3> normals; ///< one per vertex; made smooth ones where the file has none
    std::vector<TarnUint3> triangles;

    mesh_rasterizer_MeshView view() const;
};

/// The axis of a file that points upwards. By format is y for glTF and OBJ, whose worlds stand that way, else z.
enum class UpAxis { by_format, y, z };

/// Reads a model that Assimp opens (OBJ, PLY, glTF, STL and many more): all its meshes in their places. Throws
/// ToolError (unreadable_input).
Model read_model(const std::string& path, UpAxis up);

/// Reads the vertices of a model, with or without faces, as x, y and z of the file. Throws ToolError
/// (unreadable_input).
std::vector<TarnFloat3> read_model_points(const std::string& path);
