// SPDX-License-Identifier: Apache-2.0
// nuvra directory walking: DirectoryReader, a thin non-recursive reader over one open
// directory, and DirectoryIterator, a depth-first walker that can descend into
// sub-directories and filters entry names through regular expressions (Perl syntax).
//
// Nothing here throws for a file-system failure: open() and next() report through their
// results and atEnd(), and queries about an entry that has vanished return 0 or false. A
// pattern the regular-expression engine rejects is refused by addFilter with -1. Only
// std::bad_alloc from the standard containers may leave.
//
// Entries come in the order the system returns them; nothing is sorted. Directories are
// opened close-on-exec.

#ifndef NUVRA_UTILS_DIRECTORY_H_
#define NUVRA_UTILS_DIRECTORY_H_

#include <dirent.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "nuvra/utils/dir_handle.h"

namespace nuvra::utils {

// Reads the entries of one directory, without descending. Not copyable.
class DirectoryReader {
  public:
    DirectoryReader() = default;
    ~DirectoryReader();
    DirectoryReader(const DirectoryReader&) = delete;
    DirectoryReader& operator=(const DirectoryReader&) = delete;

    // Opens `path`. False for a null path, when already open (the open directory stays),
    // or when the directory cannot be opened. `flags` is stored for the caller; reading
    // does not depend on it.
    [[nodiscard]] bool open(const char* path, uint32_t flags = 0);

    // The next entry, or null at the end or on error. d_type is that of the entry itself
    // (from lstat where the file system does not report it), so links read as DT_LNK. The entry
    // lives in the reader and is overwritten by the next call.
    [[nodiscard]] dirent64* readEntry();

    // Starts the entries again from the first; returns whether the reader is open.
    [[nodiscard]] bool rewind();

    // Closes the directory. False when not open, or when closedir fails (the reader then
    // stays open).
    [[nodiscard]] bool close();

    [[nodiscard]] bool isOpen() const { return open_ != 0; }

    // The flags given to open().
    [[nodiscard]] uint32_t flags() const { return flags_; }

  private:
    int32_t open_ = 0;
    uint32_t flags_ = 0;
    DirHandle* handle_ = nullptr;
    dirent64 entry_{};
};

// addFilter flags. A filter includes by default: when any include filter exists, an entry
// is yielded only when one of them matches. kFilterExclude makes a match reject the entry.
// The text matched (as a whole) is the entry name, unless kFilterRelativePath (the path
// below the root, "sub/dir/name") or kFilterFullPath (the root followed by that path).
constexpr uint32_t kFilterExclude = 1;
constexpr uint32_t kFilterRelativePath = 2;
constexpr uint32_t kFilterFullPath = 4;

// Walks a directory depth first, a directory's own entry before its contents. Every
// iterator starts with the filter "^\.\.?$" excluding "." and "..". Not copyable.
//
//   for (DirectoryIterator it(true, true, "/some/dir"); !it.atEnd(); it.next()) {
//       use(it.currentPath());
//   }
//
// Every entry is stat'ed, links followed: an entry that cannot be (a dangling link, or any
// entry of a directory that may be listed but not searched) is not yielded, and a symbolic
// link to a directory is yielded and descended into like the directory itself, so a walk can
// leave the tree. Only yielded directories are descended into.
//
// A directory that is already open higher up the walk (reached again through a link to one of
// its ancestors) is yielded but not descended into: following it would go round until the
// path grew too long.
class DirectoryIterator {
  public:
    // No directory open; at its end until open() succeeds.
    DirectoryIterator();
    // Opens `root` at once (see open()); failure shows as atEnd().
    DirectoryIterator(bool includeAll, bool recursive, const std::string& root);
    DirectoryIterator(bool includeAll, bool recursive, const char* root);
    // Adds `filter` with `filterFlags` before opening. A filter that does not compile is
    // dropped, so check the pattern first with addFilter where that matters.
    DirectoryIterator(const std::string& filter, uint32_t filterFlags, bool includeAll,
                      bool recursive, const std::string& root);
    ~DirectoryIterator();
    DirectoryIterator(const DirectoryIterator&) = delete;
    DirectoryIterator& operator=(const DirectoryIterator&) = delete;

    // Compiles `pattern` (Perl syntax) and appends it with the given kFilter* flags.
    // 0 on success; -1 for an empty pattern or one that does not compile. Filters added
    // after open() apply to the entries read from then on.
    [[nodiscard]] int addFilter(const std::string& pattern, uint32_t flags);

    // Starts a walk of `root` (the current directory when empty; relative roots are taken
    // against it). One trailing '/' or '\' is dropped from any root, so "/" itself, given or as
    // the current directory, becomes "" and gives false. With `includeAll` every type of entry is
    // yielded, otherwise only those that stat reports as directories; with `recursive` directories
    // are descended into. False when the current directory cannot be read or the root cannot be
    // opened. An empty root directory gives true and atEnd().
    [[nodiscard]] bool open(bool includeAll, bool recursive, const std::string& root);

    // True when there is no current entry.
    [[nodiscard]] bool atEnd() const { return dirs_.empty() || entries_.size() < dirs_.size(); }

    // Moves to the next entry; false when the walk is over.
    bool next();

    // Path of the current entry (the absolute root joined with the names below it); empty at
    // the end.
    [[nodiscard]] std::string currentPath() const;

    // From stat of the current entry (links followed); 0 or false at the end or when stat
    // fails.
    [[nodiscard]] mode_t currentMode() const;
    [[nodiscard]] time_t currentChangeTime() const;
    [[nodiscard]] bool isDirectory() const;
    [[nodiscard]] bool isRegularFile() const;

    // Closes every open directory, the deepest first, and ends the walk.
    void closeAll();

  private:
    struct Filter;

    bool pushNextAccepted();
    [[nodiscard]] bool accepts(const char* name) const;
    // Whether the current entry leads to a directory (by the stat made when it was read).
    [[nodiscard]] bool currentLeadsToDirectory() const;
    // Whether `directory` is the same directory as one already open on the walk.
    [[nodiscard]] bool isOpenAlready(DirHandle* directory) const;

    std::vector<DirHandle*> dirs_;
    std::vector<dirent64*> entries_;
    std::string root_;
    uint32_t mode_ = 0;
    std::vector<Filter> filters_;
};

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_DIRECTORY_H_
