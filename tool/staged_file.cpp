#include "staged_file.hpp"

#include <algorithm>
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

void StagedFile::write(std::uint64_t place, const void* bytes, std::size_t count) {
    const char* const begin = static_cast<const char*>(bytes);
    std::size_t done = 0;
    while (done < count) {
        const ssize_t written = pwrite(descriptor_, begin + done, count - done, static_cast<off_t>(place + done));
        if (written < 0 && errno != EINTR)
            throw_error();
        done += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    }
}

std::size_t StagedFile::read(std::uint64_t place, void* bytes, std::size_t count) const {
    char* const begin = static_cast<char*>(bytes);
    std::size_t done = 0;
    while (done < count) {
        const ssize_t got = pread(descriptor_, begin + done, count - done, static_cast<off_t>(place + done));
        if (got < 0 && errno != EINTR)
            throw_error();
        if (got == 0)
            break;
        done += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }
    return done;
}

void StagedFile::truncate(std::uint64_t size) {
    if (ftruncate(descriptor_, static_cast<off_t>(size)) != 0)
        throw_error();
}

std::uint64_t StagedFile::size() const {
    struct stat status = {};
    if (fstat(descriptor_, &status) != 0)
        throw_error();
    return static_cast<std::uint64_t>(status.st_size);
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
