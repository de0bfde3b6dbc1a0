// SPDX-License-Identifier: Apache-2.0
// nuvra file-system helpers: free functions over the POSIX file-system calls for making,
// removing and copying directory trees, copying files, touching time stamps, asking about
// existence, type and size, making paths absolute and tidy, truncating descriptors, and a few
// descriptor and socket settings. The open-directory record DirHandle and its functions are
// in nuvra/utils/dir_handle.h, which this header includes.
//
// Nothing here throws for a file-system failure: each function reports through its result
// (false, -1, 0, a null pointer or a small status code) and leaves `errno` as the system set
// it unless its contract says otherwise. Only the standard strings may throw std::bad_alloc.
//
// Every descriptor and stdio stream these functions open is close-on-exec; files they create
// get mode 0600 (subject to the umask) and directories made by copyDirectory get 0700.
// Tree walks never follow symbolic links: links are unlinked, skipped or reported as links.
// Sizes and offsets are 64-bit on every target.

#ifndef NUVRA_UTILS_FILESYSTEM_H_
#define NUVRA_UTILS_FILESYSTEM_H_

#include <dirent.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "nuvra/utils/dir_handle.h"

namespace nuvra::utils {

// makeDirectory flag: create missing parent directories first.
constexpr uint32_t kMakeParents = 1;

// Creates the directory `path` with `mode`. 0 on success, -1 with errno on failure. A null or
// empty path is refused with -1; a path of only slashes ("/") returns 0 with errno 0.
// With kMakeParents, every missing ancestor is made with `mode` (existing ones of any type
// are passed over). The last component is always created, so an existing target gives -1
// with EEXIST even with kMakeParents; callers use that to learn they did not create it.
[[nodiscard]] int makeDirectory(const char* path, mode_t mode, uint32_t flags);

// Creates `path` and its ancestors, ignoring failures on the ancestors. Separators are '/',
// or '\' where no further '/' follows. True when the final mkdir succeeds or fails with
// EEXIST, even when what exists is not a directory. The empty path is true.
[[nodiscard]] bool makeDirectoryTree(const std::string& path, mode_t mode = 0777);

// Deletes the directory `path` and everything below it. Symbolic links (also to
// directories) are unlinked, never followed. A failure on one entry does not stop the walk.
// 0 when everything including `path` itself went, -1 otherwise (errno from the last
// failure; ENOENT for a null path).
[[nodiscard]] int removeTree(const char* path);

// Removes the regular files (by stat, so a link to a regular file counts and is removed as a
// link) directly inside `directory` whose names match the regular expression `filter` as a
// whole; sub-directories are not entered. True only when every removal succeeded; false also
// when the directory cannot be walked. An empty `filter`, or one that does not compile, is
// refused with false and nothing is removed: walking without it would remove every regular
// file in the directory.
[[nodiscard]] bool removeMatching(const std::string& directory, const std::string& filter);

// copyFile results.
constexpr int kCopyOk = 0;
constexpr int kCopySourceFailed = 1;
constexpr int kCopyDestinationFailed = 2;

// Copies the contents of `source` to `destination` (created 0600 or truncated).
// With `failIfExists`, an existing destination gives kCopyDestinationFailed with EEXIST and
// is left alone. With `copyMode`, the destination gets the source's permission bits.
// Returns kCopyOk, kCopySourceFailed or kCopyDestinationFailed; errno holds the failure.
// errno is not cleared first: the error last met before the streams are closed is put back
// after closing them, so even kCopyOk may leave one (ENOENT from looking for a destination
// that did not exist, with `failIfExists`).
// WARNING: the result is settled before the streams are closed, so a write error that shows
// only when the destination is flushed at close (a full disk, say) returns kCopyOk with the
// error left in errno, unless an earlier one is put back over it.
[[nodiscard]] int copyFile(const char* source, const char* destination, bool failIfExists,
                           bool copyMode);

// Copies the regular files of `source` into `destination`, which is made (mode 0700, with
// parents when `recursive`) when missing; with `recursive`, sub-directories are copied the
// same way. Symbolic links, devices, FIFOs and sockets are skipped. Copied files get the
// default creation mode. Stops at the first failure and returns its code: kCopyDirectoryOk,
// kCopyDirectoryFailed (`source` could not be opened or `destination` made),
// kCopyDirectoryReadFailed (reading a file failed) or kCopyDirectoryWriteFailed (writing one).
constexpr int kCopyDirectoryOk = 0;
constexpr int kCopyDirectoryFailed = 1;
constexpr int kCopyDirectoryReadFailed = 2;
constexpr int kCopyDirectoryWriteFailed = 3;
[[nodiscard]] int copyDirectory(const char* source, const std::string& destination, bool recursive);

// touchFile flags: which time stamps get `time`.
constexpr uint32_t kTouchModification = 1;
constexpr uint32_t kTouchAccess = 2;

// Sets the time stamps of the existing file `path` to `time` (0 = now); stamps not named in
// `flags` keep their values. A missing file is not created: false.
[[nodiscard]] bool touchFile(const std::string& path, time_t time = 0,
                             uint32_t flags = kTouchModification | kTouchAccess);

// Modification time and the low 32 bits of the size of `path` (links followed). True when
// stat succeeded; the outputs mean nothing otherwise.
[[nodiscard]] bool getFileTimeAndSize(const char* path, time_t& modificationTime, uint32_t& size);

// Size of the regular file `path` in bytes; 0 when it is missing or is not a regular file.
// With `followLinks` false a symbolic link is itself examined and so gives 0.
[[nodiscard]] int64_t getFileSize(const std::string& path, bool followLinks = true);

// Whether `path` exists (one trailing '/' is ignored). `isDirectory` tells whether it is a
// directory. With `useLstat` links are examined themselves; `linkIsMissing` then makes a
// symbolic link count as missing.
[[nodiscard]] bool pathExists(const char* path, bool useLstat, bool& isDirectory,
                              bool linkIsMissing);
[[nodiscard]] bool pathExists(const char* path, bool useLstat = false);

// realpath of `path` into `out`, which must hold PATH_MAX bytes. True on success.
[[nodiscard]] bool resolvePath(char* out, const char* path);

// Tidies `path` lexically: separators ('/' or '\') become single '/', "." segments go, and
// each ".." takes the preceding segment with it; climbing above the root stops at the root.
// A path of one character is returned as it is. No file-system access.
std::string normalizePath(const std::string& path);

// `path` made absolute against the current directory (unless it starts with '/' or '\') and
// tidied by normalizePath. False when the current directory cannot be read.
// WARNING: depends on the process-wide current directory.
[[nodiscard]] bool makeAbsolutePath(std::string& out, const std::string& path);

// Rewrites `path` with '\' and '/' as '/' and every run of them as one; with
// `addTrailingSlash` a final '/' is added unless present (the empty text becomes "/").
// Stores the result in `path` and returns it.
std::string normalizeSeparators(std::string& path, bool addTrailingSlash);

// Cuts the file under `fd` at `offset`, or at its current position when `offset` is
// negative. 0 on success, -1 on failure. Interrupted calls are retried; EAGAIN up to three
// tries in all. When the position cannot be set or read the result is 0, as callers have
// always treated that case as nothing to do.
[[nodiscard]] int truncateAt(int fd, int64_t offset);

// Whether `text` ends with `suffix`, ignoring case.
bool endsWithNoCase(const std::string& text, const std::string& suffix);

// fseeko64 / ftello64 on `stream`; 0 for a null stream.
[[nodiscard]] int fileSeek(FILE* stream, int64_t offset, int whence);
[[nodiscard]] int64_t fileTell(FILE* stream);

// Clears (blocking) or sets O_NONBLOCK on `fd`; the fcntl(F_SETFL) result.
[[nodiscard]] int setBlocking(int fd, bool blocking);

// Sets the socket option `option` (SO_RCVTIMEO or SO_SNDTIMEO) to `seconds`; the setsockopt
// result, or -1 for fd -1.
[[nodiscard]] int setSocketTimeout(int fd, int option, int32_t seconds);

// Closes the socket so that the connection is reset rather than shut down gracefully
// (SO_LINGER on, zero time). When the option cannot be set the socket is NOT closed and the
// result is -1; otherwise the close result.
[[nodiscard]] int closeSocketNow(int fd);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_FILESYSTEM_H_
