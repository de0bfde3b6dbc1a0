// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/regex.hpp>
#include <cstdlib>
#include <cstring>

#include "nuvra/utils/internal/dir_handle_close.h"
#include "nuvra/utils/internal/paths.h"

namespace nuvra::utils {

// ---------------------------------------------------------------------------------------
// DirectoryReader

DirectoryReader::~DirectoryReader() {
    if (isOpen()) {
        // A directory that will not close stays open either way; nobody is left to tell.
        static_cast<void>(close());
    }
}

bool DirectoryReader::open(const char* path, uint32_t flags) {
    if (path == nullptr || isOpen()) {
        return false;
    }
    flags_ = flags;
    handle_ = openDir(path);
    if (handle_ == nullptr) {
        return false;
    }
    open_ = 1;
    return true;
}

dirent64* DirectoryReader::readEntry() {
    if (!isOpen()) {
        return nullptr;
    }
    // Into the reader's own entry, which stays valid for the caller however the stream's
    // internal buffer is reused.
    dirent64* result = nullptr;
    if (readDirEntryR(handle_, &entry_, &result) != 0) {
        return nullptr;
    }
    return result;
}

bool DirectoryReader::rewind() {
    if (isOpen()) {
        rewinddir(handle_->dir);
    }
    return isOpen();
}

bool DirectoryReader::close() {
    if (!isOpen() || internal::closeDirHandle(handle_) != 0) {
        return false;
    }
    handle_ = nullptr;
    flags_ = 0;
    open_ = 0;
    return true;
}

// ---------------------------------------------------------------------------------------
// DirectoryIterator

namespace {

constexpr uint32_t kModeIncludeAll = 1;
constexpr uint32_t kModeRecursive = 2;
constexpr size_t kCwdBufferSize = 512;

// Matches "." and "..": always the first filter, excluding them.
const char* const kDotsPattern = R"(^\.\.?$)";

}  // namespace

// What a filter's expression is matched against.
enum class FilterTarget { kName, kRelativePath, kFullPath };

struct DirectoryIterator::Filter {
    FilterTarget target;
    // A match rejects the entry (kFilterExclude); otherwise a match lets it through.
    bool exclude;
    boost::regex expression;
    // The built-in "." and ".." filter, tested without the regular-expression engine.
    bool dots;
};

DirectoryIterator::DirectoryIterator() {
    static_cast<void>(addFilter(kDotsPattern, kFilterExclude));  // a fixed pattern that compiles
    filters_.back().dots = true;
}

DirectoryIterator::DirectoryIterator(bool includeAll, bool recursive, const std::string& root)
    : DirectoryIterator() {
    static_cast<void>(open(includeAll, recursive, root));  // failure shows as atEnd()
}

DirectoryIterator::DirectoryIterator(bool includeAll, bool recursive, const char* root)
    : DirectoryIterator(includeAll, recursive, std::string(root == nullptr ? "" : root)) {}

DirectoryIterator::DirectoryIterator(const std::string& filter, uint32_t filterFlags,
                                     bool includeAll, bool recursive, const std::string& root)
    : DirectoryIterator() {
    static_cast<void>(addFilter(filter, filterFlags));  // a filter that does not compile is dropped
    static_cast<void>(open(includeAll, recursive, root));  // failure shows as atEnd()
}

DirectoryIterator::~DirectoryIterator() { closeAll(); }

int DirectoryIterator::addFilter(const std::string& pattern, uint32_t flags) {
    if (pattern.empty()) {
        return -1;
    }
    FilterTarget target = FilterTarget::kName;
    if ((flags & kFilterFullPath) != 0) {
        target = FilterTarget::kFullPath;
    } else if ((flags & kFilterRelativePath) != 0) {
        target = FilterTarget::kRelativePath;
    }
    const bool exclude = (flags & kFilterExclude) != 0;
    try {
        filters_.push_back(Filter{target, exclude, boost::regex(pattern), false});
    } catch (const boost::regex_error&) {
        return -1;
    }
    return 0;
}

bool DirectoryIterator::open(bool includeAll, bool recursive, const std::string& root) {
    closeAll();
    mode_ = (includeAll ? kModeIncludeAll : 0) | (recursive ? kModeRecursive : 0);
    if (root.empty() || root.front() != '/') {
        // An empty root is the working directory itself: its added "/" goes again below.
        if (!internal::absoluteAgainstCwd(root, kCwdBufferSize, root_)) {
            return false;
        }
    } else {
        root_ = root;
    }
    // From any root, so "/" itself becomes "", which does not open.
    if (!root_.empty() && (root_.back() == '/' || root_.back() == '\\')) {
        root_.pop_back();
    }
    DirHandle* handle = openDir(root_.c_str());
    if (handle == nullptr) {
        return false;
    }
    dirs_.push_back(handle);
    pushNextAccepted();
    return true;
}

bool DirectoryIterator::accepts(const char* name) const {
    bool anyInclude = false;
    bool included = false;
    std::string relative;
    bool haveRelative = false;
    for (const Filter& filter : filters_) {
        bool matched = false;
        if (filter.dots) {
            matched = std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
        } else if (filter.target == FilterTarget::kName) {
            matched = boost::regex_match(name, filter.expression);
        } else {
            if (!haveRelative) {
                // Every entry but the top one names a directory enclosing the candidate.
                for (const dirent64* enclosing : entries_) {
                    relative += enclosing->d_name;
                    relative += '/';
                }
                relative += name;
                haveRelative = true;
            }
            const bool relativeOnly = filter.target == FilterTarget::kRelativePath;
            matched = boost::regex_match(relativeOnly ? relative : root_ + "/" + relative,
                                         filter.expression);
        }
        if (filter.exclude) {
            if (matched) {
                return false;
            }
        } else {
            anyInclude = true;
            included = included || matched;
        }
    }
    return !anyInclude || included;
}

bool DirectoryIterator::pushNextAccepted() {
    if (entries_.size() == dirs_.size()) {
        entries_.pop_back();
    }
    DirHandle* top = dirs_.back();
    const int topFd = dirfd(top->dir);
    while (dirent64* entry = readdir64(top->dir)) {
        if (!accepts(entry->d_name)) {
            continue;
        }
        // Every candidate is stat'ed, whatever type the file system reported: a link counts
        // as what it leads to, and an entry that cannot be stat'ed (a dangling link, any entry
        // of a directory that may be listed but not searched) is not yielded. Relative to the
        // open directory: the same file as the joined path, without walking the path again.
        struct stat64 info {};
        if (fstatat64(topFd, entry->d_name, &info, 0) != 0) {
            continue;
        }
        const bool directory = S_ISDIR(info.st_mode);
        if ((mode_ & kModeIncludeAll) == 0 && !directory) {
            continue;
        }
        // From here on the entry's type is that of what it leads to: next() descends by it.
        entry->d_type = internal::entryTypeOf(info.st_mode);
        entries_.push_back(entry);
        return true;
    }
    return false;
}

bool DirectoryIterator::currentLeadsToDirectory() const {
    return !atEnd() && entries_.back()->d_type == DT_DIR;
}

bool DirectoryIterator::isOpenAlready(DirHandle* directory) const {
    struct stat64 candidate {};
    if (fstat64(dirfd(directory->dir), &candidate) != 0) {
        return true;  // not known to be new: not entered
    }
    for (const DirHandle* open : dirs_) {
        struct stat64 info {};
        if (fstat64(dirfd(open->dir), &info) == 0 && info.st_dev == candidate.st_dev &&
            info.st_ino == candidate.st_ino) {
            return true;
        }
    }
    return false;
}

bool DirectoryIterator::next() {
    if (atEnd()) {
        return false;
    }
    bool mayDescend = (mode_ & kModeRecursive) != 0;
    for (;;) {
        // Only the entry yielded before this call is descended into; entries reached while
        // climbing back have already had their turn.
        if (mayDescend && currentLeadsToDirectory()) {
            mayDescend = false;
            DirHandle* child = openDir(currentPath().c_str());
            if (child != nullptr && isOpenAlready(child)) {
                closeDir(child);  // a link back up the walk: entering it would go round
                child = nullptr;
            }
            if (child != nullptr) {
                dirs_.push_back(child);
                if (pushNextAccepted()) {
                    return true;
                }
                continue;
            }
        }
        mayDescend = false;
        if (entries_.size() < dirs_.size()) {
            if (dirs_.size() == 1) {
                return false;
            }
            closeDir(dirs_.back());
            dirs_.pop_back();
        }
        if (pushNextAccepted()) {
            return true;
        }
    }
}

std::string DirectoryIterator::currentPath() const {
    if (atEnd()) {
        return {};
    }
    return internal::joinPath(dirs_.back()->path, entries_.back()->d_name);
}

namespace {

bool statPath(const std::string& path, struct stat64& info) {
    return !path.empty() && stat64(path.c_str(), &info) == 0;
}

}  // namespace

mode_t DirectoryIterator::currentMode() const {
    struct stat64 info {};
    return statPath(currentPath(), info) ? info.st_mode : 0;
}

time_t DirectoryIterator::currentChangeTime() const {
    struct stat64 info {};
    return statPath(currentPath(), info) ? info.st_ctime : 0;
}

bool DirectoryIterator::isDirectory() const {
    struct stat64 info {};
    return statPath(currentPath(), info) && S_ISDIR(info.st_mode);
}

bool DirectoryIterator::isRegularFile() const {
    struct stat64 info {};
    return statPath(currentPath(), info) && S_ISREG(info.st_mode);
}

void DirectoryIterator::closeAll() {
    while (!dirs_.empty()) {
        closeDir(dirs_.back());
        dirs_.pop_back();
    }
    entries_.clear();
}

}  // namespace nuvra::utils
