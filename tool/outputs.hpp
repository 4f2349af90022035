#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "grid.hpp"
#include "png.hpp"

/// The unit of grids whose numbers are heights or depths: that of the input's heights.
inline const std::string unit_of_heights = "height";

/// A grid that a command writes.
struct GridOutput {
    std::string contents;  ///< what its numbers are: the description of the band in the file
    std::string unit;      ///< unit_of_heights, another one, or empty for plain numbers
    std::string path = {}; ///< empty if it is not asked for
};

/// The words after `tarn` as a line for a shell.
std::string command_line_of(const std::vector<std::string>& arguments);

/// Keeps the words after `tarn`, and where they stand if not on a command line, for the records of the files that are
/// written.
void set_command_line(const std::vector<std::string>& arguments, const std::string& place = "");

/// The files that a command leaves. All that speaks against them is found before the command starts to work. They are
/// made in memory and written under other names into the same folders; when all of them are on the disk they take their
/// own names. Whatever happens before, a file that had such a name is as it was.
class Outputs {
  public:
    std::vector<std::string> creation_options; ///< NAME=VALUE, for the GDAL drivers of the grids
    bool with_world_files = false;             ///< beside the pictures

    /// Announce what may be written; the references must stay.
    void expect_grid(const GridOutput& grid) { grids_.push_back(&grid); }
    void expect_file(const std::string& path) { others_.push_back(&path); }
    void note_seed(const std::string& seed) { seed_ = seed; }

    /// Refuse what cannot be written, by throwing ToolError: names, formats, folders and creation options, and, when
    /// the input is known, what does not suit a grid of its size and place or has no room on the disk.
    void check_names() const;
    void check_grids(const Grid& like) const;

    /// Hands over a grid, if it is asked for. Its unit is that of the heights in the input.
    void add(const GridOutput& output, Grid grid);
    /// Draws a picture, if it has a path; its upper left corner shows the grid.
    void add_picture(const std::string& path, const Grid& grid, const Drawing& drawing);
    void add_text(const std::string& path, std::string text);

    /// Writes everything. Throws ToolError, also after Ctrl-C.
    void write();

  private:
    struct File {
        std::string path;
        std::function<void(const std::string& path)> make; ///< writes it to a name that GDAL understands
    };

    std::vector<const std::string*> paths() const;

    std::vector<const GridOutput*> grids_;
    std::vector<const std::string*> others_; ///< pictures and pages
    std::string seed_;
    std::vector<File> files_;
};
