#include "exr.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>

#include <ImathBox.h>
#include <ImathVec.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <ImfStringAttribute.h>
#include <ImfVecAttribute.h>
#include <cpl_vsi.h>

#include "interrupt.hpp"
#include "message.hpp"

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

std::string text_attribute(const Imf::Header& header, const char* name) {
    const auto* const attribute = header.findTypedAttribute<Imf::StringAttribute>(name);
    return attribute ? attribute->value() : "";
}

void read_attributes(const Imf::Header& header, Grid& grid) {
    std::array<double, 6> map{};
    if (std::sscanf(text_attribute(header, "geoTransform").c_str(), "%lf,%lf,%lf,%lf,%lf,%lf", &map[0], &map[1],
                    &map[2], &map[3], &map[4], &map[5]) == 6)
        grid.geotransform = map;
    grid.coordinate_system = text_attribute(header, "coordinateSystem");
    grid.unit = text_attribute(header, "unit");
    if (const auto* const size = header.findTypedAttribute<Imf::V2dAttribute>("cellSize"))
        grid.cell_size = {size->value().x, size->value().y};
}

void add_attributes(Imf::Header& header, const Grid& grid, const GridRecord& record) {
    const auto add = [&](const char* name, const std::string& text) {
        if (!text.empty())
            header.insert(name, Imf::StringAttribute(text));
    };
    if (grid.geotransform) {
        const auto& map = *grid.geotransform;
        add("geoTransform",
            format_text("%.17g,%.17g,%.17g,%.17g,%.17g,%.17g", map[0], map[1], map[2], map[3], map[4], map[5]));
    }
    add("coordinateSystem", grid.coordinate_system);
    add("unit", grid.unit);
    add("description", record.contents);
    for (const auto& [name, text] : record.items)
        add(name.c_str(), text);
    if (const auto size = ground_cell_size(grid))
        header.insert("cellSize", Imf::V2dAttribute({size->x, size->y}));
}

/// A file under a name that GDAL takes.
class GdalStream : public Imf::OStream {
  public:
    explicit GdalStream(const std::string& path) : Imf::OStream(path.c_str()), file_(VSIFOpenL(path.c_str(), "wb")) {
        if (!file_)
            throw std::runtime_error("it cannot be opened");
    }
    void write(const char bytes[], int count) override {
        if (VSIFWriteL(bytes, 1, static_cast<std::size_t>(count), file_.get()) != static_cast<std::size_t>(count))
            throw std::runtime_error("not all of it could be written");
    }
    std::uint64_t tellp() override { return VSIFTellL(file_.get()); }
    void seekp(std::uint64_t place) override { VSIFSeekL(file_.get(), place, SEEK_SET); }

  private:
    struct Close {
        void operator()(VSILFILE* file) const { VSIFCloseL(file); }
    };
    std::unique_ptr<VSILFILE, Close> file_;
};

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
    read_attributes(file.header(), grid);
    return grid;
}

void write_exr(const std::string& path, Grid& grid, const GridRecord& record) {
    for (std::size_t i = 0; i < grid.size(); ++i)
        if (grid.is_missing(i))
            grid.cells[i] = std::numeric_limits<float>::quiet_NaN();
    Imf::Header header(grid.width, grid.height);
    header.channels().insert("Y", Imf::Channel(Imf::FLOAT));
    add_attributes(header, grid, record);
    Imf::FrameBuffer frame;
    frame.insert("Y", slice_of(grid.cells.data(), header.dataWindow(), grid.width));
    GdalStream stream(path);
    Imf::OutputFile file(stream, header);
    file.setFrameBuffer(frame);
    constexpr int rows = 256; // between two looks at the wish to stop
    for (int y = 0; y < grid.height; y += rows) {
        if (is_interrupted())
            throw std::runtime_error("cancelled");
        file.writePixels(std::min(rows, grid.height - y));
    }
}
