// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/dir_handle.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "nuvra/utils/internal/dir_handle_close.h"
#include "nuvra/utils/internal/paths.h"

namespace nuvra::utils {

namespace internal {

int closeDirHandle(DirHandle* handle) {
    if (handle == nullptr) {
        return 0;
    }
    const int status = closedir(handle->dir);
    if (status == 0) {
        std::free(handle->path);
        std::free(handle);
    }
    return status;
}

}  // namespace internal

DirHandle* openDir(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    // opendir opens its descriptor close-on-exec.
    DIR* dir = opendir(path);
    if (dir == nullptr) {
        return nullptr;
    }
    auto* handle = static_cast<DirHandle*>(std::malloc(sizeof(DirHandle)));
    char* pathCopy = strdup(path);
    if (handle == nullptr || pathCopy == nullptr) {
        std::free(handle);
        std::free(pathCopy);
        closedir(dir);
        errno = ENOMEM;
        return nullptr;
    }
    handle->dir = dir;
    handle->path = pathCopy;
    return handle;
}

void closeDir(DirHandle* handle) { static_cast<void>(internal::closeDirHandle(handle)); }

int dirFd(DIR* dir) { return dirfd(dir); }

// A type the file system reports in the entry is already that of the entry itself (links
// read as DT_LNK), so only entries without one cost an lstat.
dirent64* readDirEntry(DirHandle* handle) {
    dirent64* entry = readdir64(handle->dir);
    if (entry != nullptr && entry->d_type == DT_UNKNOWN) {
        fixEntryType(entry, handle->path);
    }
    return entry;
}

int readDirEntryR(DirHandle* handle, dirent64* entry, dirent64** result) {
// readdir64_r is deprecated, but it keeps the entry in the caller's buffer, which the
// recursive tree walks need while deeper levels read their own directories.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const int status = readdir64_r(handle->dir, entry, result);
#pragma GCC diagnostic pop
    if (status == 0 && *result != nullptr && (*result)->d_type == DT_UNKNOWN) {
        fixEntryType(*result, handle->path);
    }
    return status;
}

void fixEntryType(dirent64* entry, const char* directoryPath) {
    const std::string path = internal::joinPath(directoryPath, entry->d_name);
    struct stat64 info {};
    if (lstat64(path.c_str(), &info) == 0) {
        entry->d_type = internal::entryTypeOf(info.st_mode);
    }
}

}  // namespace nuvra::utils
