#include "commands.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include <tarn/oneapi.h>

#include "command.hpp"
#include "common_options.hpp"
#include "grid_file.hpp"
#include "host.hpp"
#include "message.hpp"
#include "model.hpp"
#include "picture.hpp"
#include "resample.hpp"
#include "shade_preview.hpp"

namespace {

struct Sample {
    double x, y, z;
};

struct PointsCommand {
    std::string input;
    GridOutput output{"heights of a triangulation", unit_of_heights};
    std::string image;
    std::string image_output;
    GridOutput noise_output{"random number of the triangle", ""};
    CommonOptions common;
    int columns = 1024;
    float floor = 0;
    bool y_down = false;

    void run(Outputs& outputs);
};

bool is_separator(char c) {
    return std::string_view(" ,;\t\r\v\f").find(c) != std::string_view::npos;
}

/// x, y and z in the lines of a text file, with commas, semicolons or blanks between them. Lines that do not begin with
/// three numbers are passed over, such as a heading.
std::vector<Sample> read_text(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        throw ToolError(ExitCode::unreadable_input, "cannot read '" + path + "'");
    std::vector<Sample> samples;
    for (std::string line; std::getline(file, line);) {
        const char* rest = line.data();
        const char* const end = rest + line.size();
        std::array<double, 3> numbers{};
        const auto is_read = [&](double& number) {
            rest = std::find_if_not(rest, end, is_separator);
            if (end - rest > 1 && rest[0] == '+' && rest[1] != '-')
                ++rest;
            const auto [after, error] = std::from_chars(rest, end, number);
            rest = after;
            return error == std::errc();
        };
        if (std::all_of(numbers.begin(), numbers.end(), is_read))
            samples.push_back({numbers[0], numbers[1], numbers[2]});
    }
    return samples;
}

std::vector<Sample> read_samples(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension().string();
    std::vector<Sample> samples;
    if (extension == ".csv" || extension == ".txt" || extension == ".xyz")
        samples = read_text(path);
    else
        for (const TarnFloat3& point : read_model_points(path))
            samples.push_back(
                {static_cast<double>(point.x), static_cast<double>(point.y), static_cast<double>(point.z)});
    const auto is_finite = [](const Sample& s) {
        return std::isfinite(s.x) && std::isfinite(s.y) && std::isfinite(s.z);
    };
    samples.erase(std::remove_if(samples.begin(), samples.end(), [&](const Sample& s) { return !is_finite(s); }),
                  samples.end());
    if (samples.size() < 3)
        throw ToolError(ExitCode::unreadable_input, "'" + path + "' has fewer than three points");
    return samples;
}

void PointsCommand::run(Outputs& outputs) {
    Host host(common.device);
    const std::vector<Sample> samples = read_samples(input);

    // The grid that the points just fill, with square cells.
    const auto [west, east] =
        std::minmax_element(samples.begin(), samples.end(), [](const Sample& a, const Sample& b) { return a.x < b.x; });
    const auto [south, north] =
        std::minmax_element(samples.begin(), samples.end(), [](const Sample& a, const Sample& b) { return a.y < b.y; });
    const double cell = (east->x - west->x) / columns;
    if (!(cell > 0))
        throw ToolError(ExitCode::unreadable_input, "the points of '" + input + "' have no extent along x");
    const int rows = static_cast<int>(std::clamp(std::ceil((north->y - south->y) / cell), 1.0, 1e9));
    Grid grid;
    grid.width = columns;
    grid.height = rows;
    grid.cells.assign(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), floor);
    const double top = y_down ? south->y : north->y, row_step = y_down ? cell : -cell;
    // Maps count y upwards, so there a y that counts downwards is negative.
    grid.geotransform = {west->x, cell, 0, y_down ? -top : top, 0, -cell};
    print_note(format_text("%zu points on %d x %d cells of %.4g", samples.size(), columns, rows, cell));

    std::vector<float> points;
    points.reserve(3 * samples.size());
    for (const Sample& s : samples) {
        points.push_back(static_cast<float>((s.x - west->x) / cell));
        points.push_back(static_cast<float>((s.y - top) / row_step));
        points.push_back(static_cast<float>(s.z));
    }
    Picture picture;
    if (!image.empty()) {
        picture = read_picture(image);
        for (Cells& channel : picture.channels)
            channel = resample(channel, {picture.width, picture.height}, {columns, rows});
        picture.width = columns;
        picture.height = rows;
    }
    const auto channel = [&](std::size_t n) {
        return picture.channels[n].empty() ? nullptr : picture.channels[n].data();
    };

    mesh_rasterizer_Parameters parameters{};
    parameters.resolution = {columns, rows};
    parameters.point_count = static_cast<std::uint32_t>(samples.size());
    parameters.vertical_scale = 1;
    Grid noise = with_cells(grid, Cells(grid.size(), 0.0f));
    outputs.check_grids(grid);
    host.run(format_text("triangulating %zu points", samples.size()),
             [&](SyclQueue* queue, const HostCallbacks* callbacks) {
                 return MeshRasterizer_RenderPointCloud(queue, points.data(), grid.cells.data(), noise.cells.data(),
                                                        channel(0), channel(1), channel(2), &parameters, callbacks);
             });

    outputs.add_picture(common.preview, grid, shade_relief(host, grid, {cell, cell}, ShadeOptions{}));
    outputs.add_picture(image_output, grid, draw_picture(picture));
    outputs.add(noise_output, std::move(noise));
    outputs.add(output, std::move(grid));
    outputs.write();
}

} // namespace

void add_points_command(CLI::App& app) {
    const auto settings = std::make_shared<PointsCommand>();
    Command command(app, "points", "Make a height grid of scattered points", {"MeshRasterizer_RenderPointCloud"});
    command.input("CLOUD", settings->input, "points", "", "Points: .csv, .txt or .xyz, or a model such as .ply");
    command.output("OUT", settings->output, "Heights: .tif, .tiff, .png (16 bits), .asc or .exr");
    command.number("--columns", settings->columns, {1, 1 << 20}, "cells",
                   "Width of the grid; its rows follow from the extent of the points");
    command.number("--floor", settings->floor, {-1e30, 1e30}, unit_of_heights,
                   "Height of the cells outside the points' hull");
    command.flag("--y-down", settings->y_down, "y counts from the top of the grid downwards");
    auto image = command.input("--image", settings->image, "picture", "",
                               "Picture of the ground, of which each triangle gets one colour");
    command.picture("--image-out", settings->image_output, "Write the picture of coloured triangles").needs(image);
    command.output("--noise-out", settings->noise_output, "Also write a random number of each triangle, 0 to 1");
    settings->common.add_preview(command);
    settings->common.add_device(command);
    add_file_options(command);
    command.example("tarn points points.csv surface.tif --columns 512", "Heights between scattered points");
    command.example("tarn points points.csv surface.tif --columns 512 --floor 200", "200 outside of the points");
    command.runs([settings](Outputs& outputs) { settings->run(outputs); });
}
