#include "staged_file.hpp"

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[noreturn]] void throw_error() {
    throw std::system_error(errno, std::generic_category());
}

/// The permissions of the file that is replaced, or those of any new file.
mode_t mode_for(const std::filesystem::path& target) {
    struct stat old = {};
    if (stat(target.c_str(), &old) == 0)
        return old.st_mode & 07777;
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

void sync(int descriptor) {
    // Some file systems have nothing to wait for and say so.
    if (fsync(descriptor) != 0 && errno != EINVAL && errno != ENOTSUP)
        throw_error();
}

} // namespace

std::filesystem::path resolved(const std::filesystem::path& path) {
    return std::filesystem::weakly_canonical(std::filesystem::absolute(path));
}

StagedFile::StagedFile(const std::filesystem::path& target)
    : target_(resolved(target)), name_((target_.parent_path() / ".tarn-XXXXXX").string()),
      descriptor_(mkostemp(name_.data(), O_CLOEXEC)) {
    if (descriptor_ < 0)
        throw_error();
    fchmod(descriptor_, mode_for(target_));
}

StagedFile::~StagedFile() {
    if (descriptor_ >= 0)
        close(descriptor_);
    if (!is_committed_)
        unlink(name_.c_str());
}

void StagedFile::append(const void* bytes, std::size_t count) {
    const char* next = static_cast<const char*>(bytes);
    while (count > 0) {
        const ssize_t written = write(descriptor_, next, count);
        if (written < 0 && errno != EINTR)
            throw_error();
        if (written > 0) {
            next += written;
            count -= static_cast<std::size_t>(written);
        }
    }
}

void StagedFile::finish() {
    sync(descriptor_);
    const int result = close(descriptor_);
    descriptor_ = -1;
    if (result != 0)
        throw_error();
}

void StagedFile::commit() {
    std::filesystem::rename(name_, target_);
    is_committed_ = true;
    const int folder = open(target_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        fsync(folder); // so that the new name lasts too; the file is whole either way
        close(folder);
    }
}
