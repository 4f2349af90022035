#include "outputs.hpp"

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>

#include <cpl_string.h>
#include <cpl_vsi.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "grid_file.hpp"
#include "interrupt.hpp"
#include "message.hpp"
#include "named_grids.hpp"
#include "picture.hpp"
#include "staging.hpp"

namespace {

namespace fs = std::filesystem;

std::string& command_line() {
    static std::string line;
    return line;
}

/// As a shell takes it.
std::string quoted(const std::string& argument) {
    const bool is_plain = !argument.empty() && argument.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                                                                          "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                                          "0123456789_-+=:,./@%") == std::string::npos;
    if (is_plain)
        return argument;
    std::string text = "'";
    for (const char c : argument)
        if (c == '\'')
            text += "'\\''";
        else
            text += c;
    return text + "'";
}

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw ToolError(ExitCode::unwritable_output, "cannot write '" + path + "': " + reason);
}

fs::path folder_of(const std::string& path) {
    const fs::path folder = fs::path(path).parent_path();
    return folder.empty() ? fs::path(".") : folder;
}

void check_place(const std::string& path) {
    const fs::path folder = folder_of(path);
    if (!fs::is_directory(folder))
        refuse(path, "there is no folder '" + folder.string() + "'");
    if (fs::exists(path) && !fs::is_regular_file(path))
        refuse(path, "it is no file");
    if (access(folder.c_str(), W_OK | X_OK) != 0)
        refuse(path, "the folder '" + folder.string() + "' is not writable");
    if (fs::exists(path) && access(path.c_str(), W_OK) != 0)
        refuse(path, "it is not writable");
}

bool is_same_file(const std::string& a, const std::string& b) {
    std::error_code ignored;
    return resolved(a) == resolved(b) || fs::equivalent(a, b, ignored);
}

/// Overviews, masks and notes of the file that was replaced would be taken for those of the new one.
void remove_stale_companions(const std::string& path, const StagingFolder& staging) {
    for (const char* ending : {".aux.xml", ".ovr", ".msk"}) {
        const fs::path companion = resolved(path + ending);
        std::error_code ignored;
        if (!staging.has(companion))
            fs::remove(companion, ignored);
    }
}

} // namespace

std::string command_line_of(const std::vector<std::string>& arguments) {
    std::string line = "tarn";
    for (const std::string& argument : arguments)
        line.append(" ").append(quoted(argument));
    return line;
}

void set_command_line(const std::vector<std::string>& arguments, const std::string& place) {
    command_line() = command_line_of(arguments);
    if (!place.empty())
        command_line().append("  # ").append(place);
}

std::vector<const std::string*> Outputs::paths() const {
    std::vector<const std::string*> paths;
    for (const GridOutput* const grid : grids_)
        if (!grid->path.empty())
            paths.push_back(&grid->path);
    for (const std::string* const other : others_)
        if (!other->empty())
            paths.push_back(other);
    return paths;
}

void Outputs::check_names() const {
    std::vector<std::string> grid_paths;
    for (const GridOutput* const grid : grids_)
        if (!grid->path.empty() && !is_grid_name(grid->path))
            grid_paths.push_back(grid->path);
    check_grid_names(grid_paths, creation_options);
    const std::vector<const std::string*> all = paths();
    for (const std::string* const path : all)
        if (!is_grid_name(*path))
            check_place(*path);
    for (std::size_t i = 0; i < all.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            if (is_same_file(*all[i], *all[j]))
                throw ToolError(ExitCode::usage, "'" + *all[i] + "' is named for two outputs");
}

void Outputs::check_grids(const Grid& like) const {
    std::map<unsigned long, std::uint64_t> needs; // by file system
    for (const GridOutput* const output : grids_) {
        if (output->path.empty() || is_grid_name(output->path))
            continue;
        check_grid_fits(output->path, like);
        struct statvfs disk = {};
        if (statvfs(folder_of(output->path).c_str(), &disk) != 0)
            continue;
        std::uint64_t& need = needs[disk.f_fsid];
        need += least_file_size(output->path, like, creation_options);
        const std::uint64_t room = std::uint64_t{disk.f_bavail} * disk.f_frsize;
        if (need > room)
            refuse(output->path, format_text("%.0f MiB are needed and %.0f are free",
                                             static_cast<double>(need) / 0x1p20, static_cast<double>(room) / 0x1p20));
    }
}

void Outputs::add(const GridOutput& output, Grid grid) {
    if (output.path.empty())
        return;
    if (output.unit != unit_of_heights)
        grid.unit = output.unit;
    if (is_grid_name(output.path)) {
        keep_grid(output.path, std::move(grid));
        return;
    }
    GridRecord record{
        output.contents, {{"TARN_COMMAND", command_line()}, {"TARN_VERSION", TARN_VERSION}}, creation_options};
    if (!seed_.empty())
        record.items.emplace_back("TARN_SEED", seed_);
    // std::function wants something that can be copied.
    const auto held = std::make_shared<Grid>(std::move(grid));
    files_.push_back({output.path, [held, record](const std::string& path) {
                          write_grid(path, *held, record);
                      }});
}

void Outputs::add_picture(const std::string& path, const Grid& grid, const Drawing& drawing) {
    if (path.empty())
        return;
    if (with_world_files && !grid.geotransform)
        print_note("'" + path + "' gets no world file: the place on the map is not known");
    const auto place = with_world_files ? grid.geotransform : std::nullopt;
    const auto png = std::make_shared<PngPieces>(encode_png(drawing));
    files_.push_back({path, [=](const std::string& name) {
                          write_picture(name, *png, place);
                      }});
}

void Outputs::add_text(const std::string& path, std::string text) {
    files_.push_back({path, [held = std::make_shared<std::string>(std::move(text))](const std::string& name) {
                          VSILFILE* const file = VSIFOpenL(name.c_str(), "wb");
                          if (file == nullptr || VSIFWriteL(held->data(), 1, held->size(), file) != held->size() ||
                              VSIFCloseL(file) != 0)
                              throw std::runtime_error("out of memory");
                      }});
}

void Outputs::write() {
    const InterruptGuard guard(InterruptGuard::Second::is_ignored);
    StagingFolder staging;
    for (File& file : files_) {
        try {
            try {
                file.make(staging.begin(file.path));
            } catch (const std::runtime_error&) {
                staging.check(); // what GDAL says of it is less
                throw;
            }
            file.make = nullptr; // the grid may go
            staging.finish();
        } catch (const std::system_error& error) {
            refuse(file.path, error.code().message());
        } catch (const std::runtime_error& error) {
            if (is_interrupted())
                throw ToolError(ExitCode::cancelled, "cancelled, nothing is written");
            refuse(file.path, error.what());
        }
    }
    try {
        staging.commit();
    } catch (const std::system_error& error) {
        throw ToolError(ExitCode::unwritable_output, error.what());
    }
    for (const File& file : files_)
        remove_stale_companions(file.path, staging);
    files_.clear();
}
