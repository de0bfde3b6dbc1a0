// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/filesystem.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "nuvra/tiny/internal/unique_resource.h"
#include "nuvra/utils/directory.h"
#include "nuvra/utils/internal/paths.h"

namespace nuvra::utils {

namespace {

constexpr size_t kCopyBufferSize = 4096;
constexpr size_t kStreamBufferSize = size_t{1} << 17;
constexpr size_t kCwdBufferSize = 4096;
constexpr int kTruncateEagainTries = 3;

// Caller-owned stdio buffers for a copy (stdio ignores the size asked for without one);
// they outlive the streams they are given to.
struct StreamBuffers {
    void attach(FILE* in, FILE* out) {
        input.reset(static_cast<char*>(std::malloc(kStreamBufferSize)));
        output.reset(static_cast<char*>(std::malloc(kStreamBufferSize)));
        if (input != nullptr && output != nullptr) {
            (void)setvbuf(in, input.get(), _IOFBF, kStreamBufferSize);
            (void)setvbuf(out, output.get(), _IOFBF, kStreamBufferSize);
        }
    }

    tiny::internal::MallocPtr<char> input;
    tiny::internal::MallocPtr<char> output;
};

bool isDotOrDotDot(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// Closes both streams of a copy and puts back `savedErrno` (when set) over whatever the
// closes left.
void closeCopyStreams(FILE* source, FILE* destination, int savedErrno) {
    (void)std::fclose(source);
    (void)std::fclose(destination);
    if (savedErrno != 0) {
        errno = savedErrno;
    }
}

}  // namespace

int makeDirectory(const char* path, mode_t mode, uint32_t flags) {
    std::string target(path == nullptr ? "" : path);
    if (target.empty()) {
        return -1;
    }
    while (!target.empty() && target.back() == '/') {
        target.pop_back();
    }
    if (target.empty()) {
        errno = 0;
        return 0;
    }
    if ((flags & kMakeParents) != 0) {
        size_t pos = 0;
        while ((pos = target.find('/', pos)) != std::string::npos) {
            const std::string prefix = target.substr(0, pos);
            pos = target.find_first_not_of('/', pos);
            struct stat64 info {};
            if (prefix.empty() || stat64(prefix.c_str(), &info) == 0) {
                continue;
            }
            if (mkdir(prefix.c_str(), mode) == -1) {
                return -1;
            }
        }
    }
    // The target itself is not looked at first: an existing one fails with EEXIST, which
    // tells the caller that it did not create it.
    errno = 0;
    return mkdir(target.c_str(), mode);
}

bool makeDirectoryTree(const std::string& path, mode_t mode) {
    if (path.empty()) {
        return true;
    }
    size_t pos = 0;
    for (;;) {
        size_t separator = path.find('/', pos);
        if (separator == std::string::npos) {
            separator = path.find('\\', pos);
        }
        if (separator == std::string::npos) {
            break;
        }
        // Ancestors that exist or cannot be made show up in the final mkdir.
        (void)mkdir(path.substr(0, separator).c_str(), mode);
        pos = separator + 1;
    }
    // Anything already there counts, even a file: callers only ask that the name is taken.
    return mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

int removeTree(const char* path) {
    if (path == nullptr) {
        errno = ENOENT;
        return -1;
    }
    DirHandle* handle = openDir(path);
    if (handle == nullptr) {
        return -1;
    }
    int status = 0;
    const auto record = [&status](int result) {
        if (status != -1) {
            status = result;
        }
    };
    dirent64 buffer{};
    dirent64* entry = nullptr;
    for (;;) {
        const int readStatus = readDirEntryR(handle, &buffer, &entry);
        if (readStatus != 0) {
            errno = readStatus;
            record(-1);
            break;
        }
        if (entry == nullptr) {
            break;
        }
        if (entry->d_type == DT_DIR) {
            if (!isDotOrDotDot(entry->d_name)) {
                const std::string child = std::string(path) + "/" + entry->d_name;
                record(removeTree(child.c_str()));
            }
        } else {
            // Links, also to directories, go as links: nothing outside the tree is touched.
            // Relative to the open directory, which names the same entry as `child` without
            // walking the whole path again.
            record(unlinkat(dirFd(handle->dir), entry->d_name, 0));
        }
    }
    closeDir(handle);
    // A handle whose closedir failed is kept on purpose (see closeDir), not leaked by mistake.
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
    const int removed = rmdir(path);
    return status == -1 || removed == -1 ? -1 : 0;
}

bool removeMatching(const std::string& directory, const std::string& filter) {
    DirectoryIterator it;
    if (it.addFilter(filter, 0) == -1 || !it.open(true, false, directory)) {
        return false;
    }
    bool allRemoved = true;
    for (; !it.atEnd(); it.next()) {
        if (it.isRegularFile() && std::remove(it.currentPath().c_str()) != 0) {
            allRemoved = false;
        }
    }
    return allRemoved;
}

int copyFile(const char* source, const char* destination, bool failIfExists, bool copyMode) {
    if (failIfExists) {
        FILE* existing = fopen64(destination, "rbe");
        if (existing != nullptr) {
            (void)std::fclose(existing);
            errno = EEXIST;
            return kCopyDestinationFailed;
        }
    }
    FILE* in = fopen64(source, "rbe");
    if (in == nullptr) {
        return kCopySourceFailed;
    }
    // Opened by hand rather than with fopen so that a new file gets 0600, not 0666.
    const int outFd = open64(destination, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    FILE* out = outFd == -1 ? nullptr : fdopen(outFd, "wbe");
    if (out == nullptr) {
        const int saved = errno;
        if (outFd != -1) {
            close(outFd);
        }
        (void)std::fclose(in);
        errno = saved;
        return kCopyDestinationFailed;
    }
    if (copyMode) {
        struct stat64 info {};
        if (fstat64(fileno(in), &info) == 0) {
            (void)fchmod(outFd, info.st_mode & 07777);
        }
    }
    // Large stream buffers: the 4096-byte chunks then cost a memory copy each, not a system
    // call each. Without the memory the default buffers serve.
    StreamBuffers buffers;
    buffers.attach(in, out);
    char buffer[kCopyBufferSize];
    for (;;) {
        const size_t got = std::fread(buffer, 1, sizeof buffer, in);
        if (got == 0 || std::fwrite(buffer, 1, got, out) < got) {
            break;
        }
    }
    // Not cleared before the copy: ENOENT from looking for an existing destination is kept
    // too, and put back over whatever the closes leave.
    const int saved = errno;
    // Settled before the closes: a failure that only the final flush meets is left to errno.
    const int result = std::ferror(in) != 0    ? kCopySourceFailed
                       : std::ferror(out) != 0 ? kCopyDestinationFailed
                                               : kCopyOk;
    closeCopyStreams(in, out, saved);
    return result;
}

int copyDirectory(const char* source, const std::string& destination, bool recursive) {
    if (source == nullptr) {
        return kCopyDirectoryFailed;
    }
    if (access(destination.c_str(), F_OK) != 0 &&
        makeDirectory(destination.c_str(), 0700, recursive ? kMakeParents : 0) == -1) {
        return kCopyDirectoryFailed;
    }
    DirHandle* handle = openDir(source);
    if (handle == nullptr) {
        return kCopyDirectoryFailed;
    }
    while (dirent64* entry = readDirEntry(handle)) {
        if (entry->d_type == DT_REG) {
            const std::string from = internal::joinPath(source, entry->d_name);
            const std::string to = internal::joinPath(destination, entry->d_name);
            const int copied = copyFile(from.c_str(), to.c_str(), false, false);
            if (copied != kCopyOk) {
                closeDir(handle);
                return copied == kCopySourceFailed ? kCopyDirectoryReadFailed
                                                   : kCopyDirectoryWriteFailed;
            }
        } else if (entry->d_type == DT_DIR && recursive && !isDotOrDotDot(entry->d_name)) {
            // Not joinPath: sub-directories are named with a "/" after the source however
            // the source ends, as callers have always seen them in errors and logs.
            const std::string from = std::string(source) + "/" + entry->d_name;
            const std::string to = destination + "/" + entry->d_name;
            const int copied = copyDirectory(from.c_str(), to, true);
            if (copied != kCopyDirectoryOk) {
                closeDir(handle);
                return copied;
            }
        }
        // Links, devices, FIFOs and sockets are not copied.
    }
    closeDir(handle);
    // A handle whose closedir failed is kept on purpose (see closeDir).
    return kCopyDirectoryOk;  // NOLINT(clang-analyzer-unix.Malloc)
}

bool touchFile(const std::string& path, time_t time, uint32_t flags) {
    if (time == 0) {
        time = std::time(nullptr);
    }
    struct stat64 info {};
    if (stat64(path.c_str(), &info) != 0) {
        return false;
    }
    utimbuf times{info.st_atime, info.st_mtime};
    if ((flags & kTouchModification) != 0) {
        times.modtime = time;
    }
    if ((flags & kTouchAccess) != 0) {
        times.actime = time;
    }
    return utime(path.c_str(), &times) == 0;
}

bool getFileTimeAndSize(const char* path, time_t& modificationTime, uint32_t& size) {
    struct stat64 info {};
    if (path == nullptr || stat64(path, &info) != 0) {
        return false;
    }
    modificationTime = info.st_mtime;
    size = static_cast<uint32_t>(info.st_size);
    return true;
}

int64_t getFileSize(const std::string& path, bool followLinks) {
    struct stat64 info {};
    const int status = followLinks ? stat64(path.c_str(), &info) : lstat64(path.c_str(), &info);
    if (status != 0 || !S_ISREG(info.st_mode)) {
        return 0;
    }
    return static_cast<int64_t>(info.st_size);
}

bool pathExists(const char* path, bool useLstat, bool& isDirectory, bool linkIsMissing) {
    isDirectory = false;
    if (path == nullptr) {
        return false;
    }
    std::string target(path);
    if (target.size() > 1 && target.back() == '/') {
        target.pop_back();
    }
    struct stat64 info {};
    const int status = useLstat ? lstat64(target.c_str(), &info) : stat64(target.c_str(), &info);
    if (status != 0) {
        return false;
    }
    if (S_ISDIR(info.st_mode)) {
        isDirectory = true;
        return true;
    }
    return !(linkIsMissing && S_ISLNK(info.st_mode));
}

bool pathExists(const char* path, bool useLstat) {
    bool isDirectory = false;
    return pathExists(path, useLstat, isDirectory, false);
}

bool resolvePath(char* out, const char* path) {
    return out != nullptr && path != nullptr && realpath(path, out) != nullptr;
}

std::string normalizePath(const std::string& path) {
    if (path.size() <= 1) {
        return path;
    }
    std::string tidy = path;
    normalizeSeparators(tidy, false);
    const bool absolute = tidy.front() == '/';
    const bool trailingSlash = tidy.size() > 1 && tidy.back() == '/';

    // Segments are taken from the end: each ".." cancels the nearest ordinary segment
    // before it, so the kept ones are collected back to front.
    std::vector<std::string> kept;
    size_t pending = 0;
    size_t end = tidy.size();
    while (end > 0) {
        const size_t slash = tidy.rfind('/', end - 1);
        const size_t begin = slash == std::string::npos ? 0 : slash + 1;
        std::string segment = tidy.substr(begin, end - begin);
        end = slash == std::string::npos ? 0 : slash;
        if (segment.empty() || segment == ".") {
            continue;
        }
        if (segment == "..") {
            ++pending;
        } else if (pending > 0) {
            --pending;
        } else {
            kept.push_back(std::move(segment));
        }
    }
    // ".." left over above an absolute path stops at the root; a relative path keeps them.
    if (!absolute) {
        kept.insert(kept.end(), pending, "..");
    }

    std::string result = absolute ? "/" : "";
    for (auto it = kept.rbegin(); it != kept.rend(); ++it) {
        result += *it;
        result += '/';
    }
    if (!kept.empty() && !trailingSlash) {
        result.pop_back();
    }
    if (result.empty()) {
        result = ".";
    }
    return result;
}

bool makeAbsolutePath(std::string& out, const std::string& path) {
    std::string absolute;
    if (!path.empty() && (path.front() == '/' || path.front() == '\\')) {
        absolute = path;
    } else if (!internal::absoluteAgainstCwd(path, kCwdBufferSize, absolute)) {
        return false;
    }
    out = normalizePath(absolute);
    return true;
}

std::string normalizeSeparators(std::string& path, bool addTrailingSlash) {
    std::string result;
    result.reserve(path.size() + 1);
    for (const char c : path) {
        const bool separator = c == '/' || c == '\\';
        if (!separator) {
            result += c;
        } else if (result.empty() || result.back() != '/') {
            result += '/';
        }
    }
    if (addTrailingSlash && (result.empty() || result.back() != '/')) {
        result += '/';
    }
    path = result;
    return result;
}

int truncateAt(int fd, int64_t offset) {
    const off64_t position = offset < 0 ? lseek64(fd, 0, SEEK_CUR) : lseek64(fd, offset, SEEK_SET);
    if (position == -1) {
        // Callers have always taken this as success (nothing to cut on a pipe, say).
        return 0;
    }
    int eagainTries = 0;
    for (;;) {
        if (ftruncate64(fd, position) == 0) {
            return 0;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN && ++eagainTries < kTruncateEagainTries) {
            continue;
        }
        return -1;
    }
}

bool endsWithNoCase(const std::string& text, const std::string& suffix) {
    if (suffix.size() > text.size()) {
        return false;
    }
    return strcasecmp(text.c_str() + (text.size() - suffix.size()), suffix.c_str()) == 0;
}

int fileSeek(FILE* stream, int64_t offset, int whence) {
    return stream == nullptr ? 0 : fseeko64(stream, offset, whence);
}

int64_t fileTell(FILE* stream) { return stream == nullptr ? 0 : ftello64(stream); }

int setBlocking(int fd, bool blocking) {
    int flags = fcntl(fd, F_GETFL);
    if (blocking) {
        flags &= ~O_NONBLOCK;
    } else {
        flags |= O_NONBLOCK;
    }
    return fcntl(fd, F_SETFL, flags);
}

int setSocketTimeout(int fd, int option, int32_t seconds) {
    if (fd == -1) {
        return -1;
    }
    const timeval timeout{seconds, 0};
    return setsockopt(fd, SOL_SOCKET, option, &timeout, sizeof timeout);
}

int closeSocketNow(int fd) {
    const linger abort{1, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort) != 0) {
        // Left open: the caller still owns a socket it could not reset.
        return -1;
    }
    return close(fd);
}

}  // namespace nuvra::utils
