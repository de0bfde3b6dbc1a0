// SPDX-License-Identifier: Apache-2.0
// Lets tests run distribution detection over a directory tree of their own instead of the
// system's /etc, and feed the uname step chosen machine and release strings. Internal to
// nuvra: not part of the public interface.

#ifndef NUVRA_UTILS_INTERNAL_OS_INFO_SEAM_H_
#define NUVRA_UTILS_INTERNAL_OS_INFO_SEAM_H_

#include <string>

#include "nuvra/utils/os_info.h"

namespace nuvra::utils {
namespace [[gnu::visibility("hidden")]] internal {

// detectOsInfo reading "<root>/etc/..." for every release file and the appliance marker;
// the public function uses the empty root.
void detectOsInfoAt(OsInfo& out, const std::string& root);

// isVirtualAppliance for "<root>/etc/nuvra-vmware-va".
bool isVirtualApplianceAt(const std::string& root);

// The uname step of detectOsInfo for a machine name and kernel release.
void applyUname(OsInfo& out, const char* machine, const char* release);

}  // namespace internal
}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_INTERNAL_OS_INFO_SEAM_H_
