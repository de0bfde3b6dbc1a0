// SPDX-License-Identifier: Apache-2.0
// Walks a directory tree and lists the regular files whose names match a shell pattern, with
// their modes and sizes; directories whose names match an optional regular expression are
// skipped with everything below them:
//
//   find_files /usr/share/doc '*.gz'
//   find_files ~/src '*.cpp' '^(\.git|build)$'
//
// Prints "<mode in octal> <size> <path>" per file. Exits 1 when the root cannot be opened,
// 2 on a usage error.

#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <string>

#include "nuvra/utils/directory.h"
#include "nuvra/utils/filesystem.h"
#include "nuvra/utils/strings.h"

namespace {

std::string baseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4) {
        static_cast<void>(std::fprintf(
            stderr, "usage: find_files ROOT NAME-PATTERN [SKIPPED-DIRECTORY-REGEX]\n"));
        return 2;
    }
    const std::string pattern = argv[2];
    nuvra::utils::DirectoryIterator it;
    // How filters and recursion combine: only entries the filters let through are yielded,
    // and only yielded directories are entered. An exclude filter therefore prunes a whole
    // subtree, which is what we want for the skipped directories. An include filter such as
    // ".*\.txt" would prune too: no directory name matches it, so the walk would never leave
    // the root. The name pattern is therefore applied here, to files only, not as a filter.
    if (argc == 4 && it.addFilter(argv[3], nuvra::utils::kFilterExclude) != 0) {
        static_cast<void>(
            std::fprintf(stderr, "find_files: not a valid regular expression: %s\n", argv[3]));
        return 2;
    }
    if (!it.open(/*includeAll=*/true, /*recursive=*/true, argv[1])) {
        static_cast<void>(std::fprintf(stderr, "find_files: cannot open %s\n", argv[1]));
        return 1;
    }
    for (; !it.atEnd(); it.next()) {
        const std::string path = it.currentPath();
        if (!it.isRegularFile() || !nuvra::utils::wildcardMatch(pattern, baseName(path), false)) {
            continue;
        }
        const int64_t size = nuvra::utils::getFileSize(path, true);
        std::printf("%06o %10" PRId64 " %s\n", static_cast<unsigned>(it.currentMode()), size,
                    path.c_str());
    }
    return 0;
}
