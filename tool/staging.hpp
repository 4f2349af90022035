#pragma once

#include <filesystem>
#include <list>
#include <string>
#include <system_error>
#include <utility>

#include "staged_file.hpp"

/// A folder of GDAL's virtual file system whose files are staged files on the disk, so that what GDAL writes need not
/// lie in memory first. There is one at a time.
class StagingFolder {
  public:
    StagingFolder();
    ~StagingFolder();
    StagingFolder(const StagingFolder&) = delete;
    StagingFolder& operator=(const StagingFolder&) = delete;

    /// The name under which GDAL is to write what becomes `path`. What it writes beside that goes to the same folder.
    std::string begin(const std::string& path);
    /// Waits until all that was written since `begin` is on the disk. Throws the first error that met GDAL on the way
    /// there as std::system_error, as does `check`.
    void finish();
    void check() const;
    /// All files take the place of their targets. Throws std::system_error.
    void commit();

    bool has(const std::filesystem::path& target) const;

  private:
    struct Callbacks;
    struct Entry {
        Entry(std::string own_name, const std::filesystem::path& target) : name(std::move(own_name)), file(target) {}

        std::string name;
        StagedFile file;
    };

    StagedFile* find(const std::string& name);

    std::filesystem::path main_;
    std::list<Entry> entries_; ///< since `begin`
    std::list<Entry> finished_;
    std::error_code error_;
};
