#include "exr.hpp"

#include <filesystem>
#include <limits>
#include <stdexcept>

#include <ImathBox.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>

namespace {

std::string height_channel(const Imf::ChannelList& channels) {
    for (const char* name : {"Y", "Z", "R"})
        if (channels.findChannel(name) != nullptr)
            return name;
    if (channels.begin() == channels.end())
        throw std::runtime_error("the file has no channel");
    return channels.begin().name();
}

Imf::Slice slice_of(float* cells, const Imath::Box2i& window, int width) {
    return Imf::Slice::Make(Imf::FLOAT, cells, window, sizeof(float), sizeof(float) * static_cast<std::size_t>(width),
                            1, 1, std::numeric_limits<double>::quiet_NaN());
}

} // namespace

bool is_exr_name(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension().string();
    return extension == ".exr" || extension == ".EXR";
}

Grid read_exr(const std::string& path) {
    Imf::InputFile file(path.c_str());
    const Imath::Box2i window = file.header().dataWindow();
    const std::string channel = height_channel(file.header().channels());
    const Imf::Channel& layout = file.header().channels()[channel.c_str()];
    if (layout.xSampling != 1 || layout.ySampling != 1)
        throw std::runtime_error("the channel " + channel + " is subsampled");

    Grid grid;
    grid.width = window.max.x - window.min.x + 1;
    grid.height = window.max.y - window.min.y + 1;
    grid.cells.resize(static_cast<std::size_t>(grid.width) * static_cast<std::size_t>(grid.height));
    Imf::FrameBuffer frame;
    frame.insert(channel, slice_of(grid.cells.data(), window, grid.width));
    file.setFrameBuffer(frame);
    file.readPixels(window.min.y, window.max.y);
    return grid;
}

void write_exr(const std::string& path, const Grid& grid) {
    std::vector<float> cells = grid.cells;
    for (std::size_t i = 0; i < cells.size(); ++i)
        if (grid.is_missing(i))
            cells[i] = std::numeric_limits<float>::quiet_NaN();
    Imf::Header header(grid.width, grid.height);
    header.channels().insert("Y", Imf::Channel(Imf::FLOAT));
    Imf::FrameBuffer frame;
    frame.insert("Y", slice_of(cells.data(), header.dataWindow(), grid.width));
    Imf::OutputFile file(path.c_str(), header);
    file.setFrameBuffer(frame);
    file.writePixels(grid.height);
}
