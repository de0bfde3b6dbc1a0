// SPDX-License-Identifier: Apache-2.0
// DirHandle, nuvra's open-directory record, and the functions that open, read and close it.
// The tree functions of nuvra/utils/filesystem.h and the walkers of nuvra/utils/directory.h
// read directories through it.
//
// Nothing here throws: failures are null results or error numbers, with errno as opendir,
// readdir or closedir left it. Directories are opened close-on-exec.

#ifndef NUVRA_UTILS_DIR_HANDLE_H_
#define NUVRA_UTILS_DIR_HANDLE_H_

#include <dirent.h>

namespace nuvra::utils {

// An open directory: the stream from opendir and a malloc'ed copy of the path it was opened
// with (used to lstat entries). Made by openDir, released by closeDir.
struct DirHandle {
    DIR* dir;
    char* path;
};

// Opens `path` as a directory. Null when `path` is null, opendir fails (errno from it) or
// memory runs out.
[[nodiscard]] DirHandle* openDir(const char* path);

// Closes the directory and frees the record. Does nothing for null. When closedir fails the
// record is left allocated, as it was: the stream may still be usable.
void closeDir(DirHandle* handle);

// The descriptor under `dir` (dirfd).
[[nodiscard]] int dirFd(DIR* dir);

// The next entry of the directory, or null at the end or on error. The entry's d_type is
// that of the entry itself (from lstat where the file system does not report it), so
// symbolic links always read as DT_LNK. The entry belongs
// to the stream and is overwritten by the next read.
[[nodiscard]] dirent64* readDirEntry(DirHandle* handle);

// Reentrant form of readDirEntry into the caller's `entry`: returns the readdir64_r result
// (0 or an error number); `*result` is `entry`, or null at the end. The type is fixed when
// an entry was returned.
[[nodiscard]] int readDirEntryR(DirHandle* handle, dirent64* entry, dirent64** result);

// Sets `entry->d_type` from lstat of directoryPath + "/" + name (the "/" only when the path
// does not already end with one). When lstat fails the type stays as it was.
void fixEntryType(dirent64* entry, const char* directoryPath);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_DIR_HANDLE_H_
