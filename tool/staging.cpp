#include "staging.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <cpl_vsi.h>
#include <sys/stat.h>

namespace {

const std::string prefix = "/vsitarn/";

StagingFolder* open_folder = nullptr;

struct Handle {
    StagedFile& file;
    std::uint64_t place = 0;
    bool met_end = false;
};

} // namespace

/// What GDAL calls to work with the files.
struct StagingFolder::Callbacks {
    /// What a call returns, or `otherwise` if it fails; the first failure is kept.
    template <class Result, class Call>
    static Result or_else(Result otherwise, const Call& call) {
        try {
            return call();
        } catch (const std::system_error& error) {
            if (open_folder != nullptr && !open_folder->error_)
                open_folder->error_ = error.code();
            return otherwise;
        }
    }

    static int stat(void*, const char* name, VSIStatBufL* status, int) {
        const StagedFile* const file = open_folder ? open_folder->find(name) : nullptr;
        if (file == nullptr)
            return -1;
        *status = {};
        status->st_mode = S_IFREG | 0644;
        return or_else(-1, [&] {
            status->st_size = static_cast<off_t>(file->size());
            return 0;
        });
    }

    static int unlink(void*, const char* name) {
        return open_folder && open_folder->entries_.remove_if([&](const Entry& entry) { return entry.name == name; })
                   ? 0
                   : -1;
    }

    static void* open(void*, const char* name, const char* access) {
        if (open_folder == nullptr)
            return nullptr;
        return or_else<void*>(nullptr, [&]() -> void* {
            StagedFile* file = open_folder->find(name);
            if (*access == 'w') {
                if (file != nullptr) {
                    file->truncate(0);
                } else {
                    const auto& main = open_folder->main_;
                    open_folder->entries_.emplace_back(name,
                                                       main.filename() == name ? main : main.parent_path() / name);
                    file = &open_folder->entries_.back().file;
                }
            }
            return file ? new Handle{*file} : nullptr;
        });
    }

    static Handle& handle(void* pointer) { return *static_cast<Handle*>(pointer); }

    static vsi_l_offset tell(void* pointer) { return handle(pointer).place; }

    static int seek(void* pointer, vsi_l_offset offset, int whence) {
        Handle& at = handle(pointer);
        return or_else(-1, [&] {
            at.place = offset + (whence == SEEK_CUR ? at.place : whence == SEEK_END ? at.file.size() : 0);
            at.met_end = false;
            return 0;
        });
    }

    static std::size_t read(void* pointer, void* bytes, std::size_t size, std::size_t count) {
        Handle& at = handle(pointer);
        return or_else(std::size_t{0}, [&] {
            const std::size_t got = at.file.read(at.place, bytes, size * count);
            at.place += got;
            at.met_end = got < size * count;
            return size > 0 ? got / size : 0;
        });
    }

    static int eof(void* pointer) { return handle(pointer).met_end ? 1 : 0; }

    static std::size_t write(void* pointer, const void* bytes, std::size_t size, std::size_t count) {
        Handle& at = handle(pointer);
        return or_else(std::size_t{0}, [&] {
            at.file.write(at.place, bytes, size * count);
            at.place += size * count;
            return count;
        });
    }

    static int truncate(void* pointer, vsi_l_offset size) {
        return or_else(-1, [&] {
            handle(pointer).file.truncate(size);
            return 0;
        });
    }

    static int close(void* pointer) {
        delete static_cast<Handle*>(pointer);
        return 0;
    }

    static void install() {
        static const bool done = [] {
            VSIFilesystemPluginCallbacksStruct* const callbacks = VSIAllocFilesystemPluginCallbacksStruct();
            callbacks->stat = stat;
            callbacks->unlink = unlink;
            callbacks->open = open;
            callbacks->tell = tell;
            callbacks->seek = seek;
            callbacks->read = read;
            callbacks->eof = eof;
            callbacks->write = write;
            callbacks->truncate = truncate;
            callbacks->close = close;
            VSIInstallPluginHandler(prefix.c_str(), callbacks);
            VSIFreeFilesystemPluginCallbacksStruct(callbacks);
            return true;
        }();
        static_cast<void>(done);
    }
};

StagingFolder::StagingFolder() {
    Callbacks::install();
    open_folder = this;
}

StagingFolder::~StagingFolder() {
    open_folder = nullptr;
}

StagedFile* StagingFolder::find(const std::string& name) {
    const auto entry =
        std::find_if(entries_.begin(), entries_.end(), [&](const Entry& each) { return each.name == name; });
    return entry == entries_.end() ? nullptr : &entry->file;
}

std::string StagingFolder::begin(const std::string& path) {
    main_ = path;
    return prefix + main_.filename().string();
}

void StagingFolder::check() const {
    if (error_)
        throw std::system_error(error_);
}

void StagingFolder::finish() {
    check();
    for (Entry& entry : entries_)
        entry.file.finish();
    finished_.splice(finished_.end(), entries_);
}

void StagingFolder::commit() {
    for (Entry& entry : finished_)
        entry.file.commit();
}

bool StagingFolder::has(const std::filesystem::path& target) const {
    return std::any_of(finished_.begin(), finished_.end(),
                       [&](const Entry& entry) { return entry.file.target() == target; });
}
