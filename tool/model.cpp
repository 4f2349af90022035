#include "model.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>

#include <assimp/Importer.hpp>
#include <assimp/config.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include "message.hpp"

namespace {

bool stands_on_y(const std::string& path, UpAxis up) {
    if (up != UpAxis::by_format)
        return up == UpAxis::y;
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return extension == ".gltf" || extension == ".glb" || extension == ".obj";
}

/// Maps have their rows downwards, so north is mirrored to the top.
TarnFloat3 on_map(const aiVector3D& v, bool y_is_up) {
    return y_is_up ? TarnFloat3{v.x, v.z, v.y, 0.0f} : TarnFloat3{v.x, -v.y, v.z, 0.0f};
}

} // namespace

mesh_rasterizer_MeshView Model::view() const {
    return {vertices.data(), static_cast<std::uint32_t>(vertices.size()), triangles.data(),
            static_cast<std::uint32_t>(triangles.size()), normals.data()};
}

Model read_model(const std::string& path, UpAxis up) {
    Assimp::Importer importer;
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, aiPrimitiveType_POINT | aiPrimitiveType_LINE);
    const aiScene* const scene =
        importer.ReadFile(path, aiProcess_Triangulate | aiProcess_PreTransformVertices | aiProcess_SortByPType |
                                    aiProcess_GenSmoothNormals | aiProcess_JoinIdenticalVertices);
    if (scene == nullptr)
        throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "': " + importer.GetErrorString());
    const bool y_is_up = stands_on_y(path, up);
    Model model;
    for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
        const aiMesh& mesh = *scene->mMeshes[m];
        const std::size_t first = model.vertices.size();
        if (first + mesh.mNumVertices > std::numeric_limits<std::int32_t>::max())
            throw ToolError(ExitCode::unreadable_input, "'" + path + "' has too many vertices");
        for (unsigned v = 0; v < mesh.mNumVertices; ++v) {
            model.vertices.push_back(on_map(mesh.mVertices[v], y_is_up));
            model.normals.push_back(mesh.HasNormals() ? on_map(mesh.mNormals[v], y_is_up) : TarnFloat3{});
        }
        for (unsigned f = 0; f < mesh.mNumFaces; ++f) {
            const aiFace& face = mesh.mFaces[f];
            const auto corner = [&](unsigned n) {
                return static_cast<std::uint32_t>(first + face.mIndices[n]);
            };
            if (face.mNumIndices == 3)
                model.triangles.push_back({corner(0), corner(1), corner(2), 0});
        }
    }
    if (model.triangles.empty())
        throw ToolError(ExitCode::unreadable_input, "'" + path + "' has no triangles");
    const bool is_finite = std::all_of(model.vertices.begin(), model.vertices.end(), [](const TarnFloat3& v) {
        return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
    });
    if (!is_finite)
        print_note("'" + path + "' has vertices that are no numbers; their triangles are not drawn");
    return model;
}

std::vector<TarnFloat3> read_model_points(const std::string& path) {
    Assimp::Importer importer;
    const aiScene* const scene = importer.ReadFile(path, 0);
    if (scene == nullptr)
        throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "': " + importer.GetErrorString());
    std::vector<TarnFloat3> points;
    for (unsigned m = 0; m < scene->mNumMeshes; ++m)
        for (unsigned v = 0; v < scene->mMeshes[m]->mNumVertices; ++v) {
            const aiVector3D& vertex = scene->mMeshes[m]->mVertices[v];
            points.push_back({vertex.x, vertex.y, vertex.z, 0.0f});
        }
    return points;
}
