#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

/// The place of a file whatever links and relative names lead to it.
std::filesystem::path resolved(const std::filesystem::path& path);

/// A file under a passing name in the folder of its target. Unless it is committed it leaves nothing behind.
class StagedFile {
  public:
    /// Throws std::system_error, as do the others.
    explicit StagedFile(const std::filesystem::path& target);
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    void write(std::uint64_t place, const void* bytes, std::size_t count);
    /// Bytes read, fewer than `count` at the end of the file.
    std::size_t read(std::uint64_t place, void* bytes, std::size_t count) const;
    void truncate(std::uint64_t size);
    std::uint64_t size() const;
    /// Waits until the contents are on the disk.
    void finish();
    /// Takes the place of the target.
    void commit();

    const std::filesystem::path& target() const { return target_; }

  private:
    std::filesystem::path target_;
    std::string name_;
    int descriptor_;
    bool is_committed_ = false;
};
