// SPDX-License-Identifier: Apache-2.0
// closeDir that reports how closedir went, for DirectoryReader::close. Internal to nuvra.

#ifndef NUVRA_UTILS_INTERNAL_DIR_HANDLE_CLOSE_H_
#define NUVRA_UTILS_INTERNAL_DIR_HANDLE_CLOSE_H_

#include "nuvra/utils/dir_handle.h"

namespace nuvra::utils {
namespace [[gnu::visibility("hidden")]] internal {

// closeDir with closedir's result: 0 for null or success. When closedir fails the record is
// left allocated, as closeDir leaves it.
[[nodiscard]] int closeDirHandle(DirHandle* handle);

}  // namespace internal
}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_INTERNAL_DIR_HANDLE_CLOSE_H_
