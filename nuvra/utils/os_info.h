// SPDX-License-Identifier: Apache-2.0
// Distribution detection: detectOsInfo, which fills the OsInfo record of the running Linux
// system (nuvra/utils/os_info_record.h, included here), and the release-file search it uses.
//
// The distribution is recognised by searching a fixed list of release files under /etc with
// case-insensitive Perl-syntax regular expressions over the whole file ("." also matches a
// line break, "^" matches at every line start); the first file that matches wins. On the
// virtual appliance, recognised by the marker file /etc/nuvra-vmware-va, the description gets
// the suffix " (Nuvra VA)".
//
// Nothing here throws but std::bad_alloc from the strings: a missing or unreadable release
// file, or a pattern that does not compile, is simply no match. detectOsInfo switches the
// process-wide locale for a moment (readLocale in nuvra/utils/host_info.h), so it must not
// run while other threads depend on the global locale.

#ifndef NUVRA_UTILS_OS_INFO_H_
#define NUVRA_UTILS_OS_INFO_H_

#include <cstdint>
#include <string>

#include "nuvra/utils/os_info_record.h"

namespace nuvra::utils {

// Resets `out` to the defaults and fills it: the locale (readLocale), the processor count
// (sysconf), then from uname the platform ("LINUX.X64" for an x86_64 machine, "LINUX.X86" for
// any other machine whose name contains "86", else "LINUX.PPC"), the architecture (2, 0, 1
// in that order), osCode (0x4000 on x86_64) and the kernel version (up to three numbers of
// the release joined by "."); when uname fails those keep their defaults. Then the
// distribution, from the first of these rows whose file matches:
//
//   /etc/fedora-release      Fedora          FEDORA_LINUX     PACKAGE_RPM
//   /etc/redhat-release      CentOS          CENTOS_LINUX     PACKAGE_RPM
//   /etc/redhat-release      Red Hat         REDHAT_LINUX     PACKAGE_RPM
//   /etc/mandrake-release    Mandrake        MANDRAKE_LINUX   PACKAGE_RPM
//   /etc/SuSE-release        SuSE            SUSE_LINUX       PACKAGE_RPM
//   /etc/UnitedLinux-release UnitedLinux     UNITED_LINUX     PACKAGE_RPM
//   /etc/slackware-version   a version       SLACKWARE_LINUX  PACKAGE_TGZ
//   /etc/lsb-release         Ubuntu          UBUNTU_LINUX     PACKAGE_DEB
//   /etc/debian_version      a version       DEBIAN_LINUX     PACKAGE_DEB
//
// The version numbers come from the file and the description is its first line, except that
// the Ubuntu description is what follows the first "=" of that line, a blank and
// "major.minor" (ending in "." when the file has no minor number; kept so), and that a Debian
// description that is empty or starts with a digit gets "Debian GNU/Linux " in front. After a
// match, the appliance suffix is added when isVirtualAppliance(). Without a match the
// description stays "Linux", the identifier "LINUX", the package type "PACKAGE_OTHER" and the
// versions 0, and the appliance is not looked for. The hypervisor result is reset, not
// detected.
void detectOsInfo(OsInfo& out);

// Whether the appliance marker /etc/nuvra-vmware-va exists (stat succeeds; its type and
// content do not matter).
bool isVirtualAppliance();

// searchReleaseFile, then each capture converted to an int into `major`, `minor` and `patch`;
// a capture that does not start with a number (an empty one) leaves its target as it was.
[[nodiscard]] bool matchReleaseFile(const std::string& path, const std::string& pattern, int& major,
                                    int& minor, int& patch, std::string& description);

// Clears the captures, reads the whole file `path` and searches it for `pattern` (Perl
// syntax, case-insensitive; "." matches a line break, "^" any line start). On a match the
// captures get groups 1 to 3 (empty for a group that took no part) and `description` the
// text up to the first CR or LF. A file that opens but cannot be read (a directory, say) is
// searched as empty text, so a pattern that matches empty text still matches it. False when
// the file cannot be opened, the pattern does not compile or nothing matches; `description`
// is then untouched.
[[nodiscard]] bool searchReleaseFile(const std::string& path, const std::string& pattern,
                                     std::string& capture1, std::string& capture2,
                                     std::string& capture3, std::string& description);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_OS_INFO_H_
