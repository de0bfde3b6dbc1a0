// SPDX-License-Identifier: Apache-2.0
// Path and directory-entry helpers shared by the file-system, directory and host code.
// Internal to nuvra.

#ifndef NUVRA_UTILS_INTERNAL_PATHS_H_
#define NUVRA_UTILS_INTERNAL_PATHS_H_

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace nuvra::utils {
namespace [[gnu::visibility("hidden")]] internal {

// `directory` + "/" + `name`, without doubling a "/" that `directory` already ends with.
std::string joinPath(const std::string& directory, const char* name);

// `path` taken against the working directory: joinPath(cwd, path). The working directory is
// read with getcwd into a buffer of `bufferSize` bytes, which each caller's contract fixes;
// false when it does not fit there or cannot be read (errno from getcwd), `out` then as it
// was.
[[nodiscard]] bool absoluteAgainstCwd(const std::string& path, size_t bufferSize, std::string& out);

// The dirent type (DT_REG, DT_DIR, ...) for the file type bits of `mode`; DT_UNKNOWN for
// none of them.
unsigned char entryTypeOf(mode_t mode);

}  // namespace internal
}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_INTERNAL_PATHS_H_
