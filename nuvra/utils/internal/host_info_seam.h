// SPDX-License-Identifier: Apache-2.0
// Lets tests run the host-fact parsers over inputs of their own instead of the fixed system
// sources. Internal to nuvra: not part of the public interface.

#ifndef NUVRA_UTILS_INTERNAL_HOST_INFO_SEAM_H_
#define NUVRA_UTILS_INTERNAL_HOST_INFO_SEAM_H_

#include <cstdint>

#include "nuvra/utils/os_info_record.h"

namespace nuvra::utils {
namespace [[gnu::visibility("hidden")]] internal {

// getTotalMemory reading `path` where the public function reads "/proc/meminfo".
[[nodiscard]] bool getTotalMemoryFrom(const char* path, int64_t* bytes);

// The part of readLocale after setlocale: clears the four locale fields of `info` and fills
// them from the locale name `name`. A null name, "C" and "POSIX" leave them empty.
void setLocaleFields(OsInfo& info, const char* name);

}  // namespace internal
}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_INTERNAL_HOST_INFO_SEAM_H_
