// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/internal/paths.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace nuvra::utils::internal {

std::string joinPath(const std::string& directory, const char* name) {
    std::string path = directory;
    if (path.empty() || path.back() != '/') {
        path += '/';
    }
    path += name;
    return path;
}

bool absoluteAgainstCwd(const std::string& path, size_t bufferSize, std::string& out) {
    std::vector<char> cwd(bufferSize);
    if (getcwd(cwd.data(), cwd.size()) == nullptr) {
        return false;
    }
    out = joinPath(cwd.data(), path.c_str());
    return true;
}

unsigned char entryTypeOf(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return DT_REG;
        case S_IFDIR:
            return DT_DIR;
        case S_IFCHR:
            return DT_CHR;
        case S_IFBLK:
            return DT_BLK;
        case S_IFIFO:
            return DT_FIFO;
        case S_IFLNK:
            return DT_LNK;
        case S_IFSOCK:
            return DT_SOCK;
        default:
            return DT_UNKNOWN;
    }
}

}  // namespace nuvra::utils::internal
