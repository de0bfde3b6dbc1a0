// nuvra::utils::OsInfo: the description of the running Linux system, one record filled in
// place by the host and OS detection functions, and detectOsInfo, which fills it.
//
// The record holds the distribution's description, identifier and version, the package
// format, the platform string, the kernel version, the processor count, the environment's
// locale and a cached hypervisor result. Its fields are public so that the functions that
// fill it can write them directly; readers use the accessors.
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

#include "nuvra/utils/virt_info.h"

namespace nuvra::utils {

// The default value is what detection starts from: a generic "Linux" system of unknown
// distribution and package format, with empty platform, kernel version and locale. Copyable.
struct OsInfo {
    // Room for an 8-character locale token and its terminating zero.
    static constexpr int kLocaleFieldSize = 9;

    std::string description = "Linux";
    uint32_t osCode = 0x40;
    uint32_t osFamilyMask = 0xC0C0;
    int versionMajor = 0;
    int versionMinor = 0;
    int versionPatch = 0;
    std::string platform;
    // Left empty by detection; other parts of a larger system fill or read it.
    std::string extraText1;
    std::string distributionId = "LINUX";
    // Left empty by detection, like extraText1.
    std::string extraText2;
    char language[kLocaleFieldSize] = {};
    char territory[kLocaleFieldSize] = {};
    char defaultLanguage[kLocaleFieldSize] = {};
    char defaultTerritory[kLocaleFieldSize] = {};
    VirtInfo virtInfo;
    bool virtInfoValid = false;
    std::string virtInfoProbePath;
    std::string kernelVersion;
    std::string packageType = "PACKAGE_OTHER";
    // sysconf(_SC_NPROCESSORS_ONLN) once detection has run; a long, as sysconf gives it.
    long processorCount = 0;
    // 0 = 32-bit x86, 1 = anything else, 2 = x86_64; written only when uname succeeds.
    int architecture = 0;

    const std::string& getDescription() const { return description; }
    uint32_t getOsCode() const { return osCode; }
    uint32_t getOsFamilyMask() const { return osFamilyMask; }
    int getVersionMajor() const { return versionMajor; }
    int getVersionMinor() const { return versionMinor; }
    int getVersionPatch() const { return versionPatch; }
    const std::string& getPlatform() const { return platform; }
    const std::string& getExtraText1() const { return extraText1; }
    const std::string& getDistributionId() const { return distributionId; }
    const std::string& getExtraText2() const { return extraText2; }
    // The locale fields are NUL-terminated, possibly empty, texts of at most 8 characters.
    const char* getLanguage() const { return language; }
    const char* getTerritory() const { return territory; }
    const char* getDefaultLanguage() const { return defaultLanguage; }
    const char* getDefaultTerritory() const { return defaultTerritory; }
    const VirtInfo& getCachedVirtInfo() const { return virtInfo; }
    bool getVirtInfoValid() const { return virtInfoValid; }
    const std::string& getVirtInfoProbePath() const { return virtInfoProbePath; }
    const std::string& getKernelVersion() const { return kernelVersion; }
    const std::string& getPackageType() const { return packageType; }
    long getProcessorCount() const { return processorCount; }
    int getArchitecture() const { return architecture; }

    // The hypervisor result for the probe `vmdPath`: runs VmInfo::getVirtInfo only when no
    // result is stored yet or it was obtained with another probe path, then stores the result
    // and the path. Returns the stored result. See nuvra/utils/virt_info.h for how long a
    // detection can take.
    const VirtInfo& getVirtInfo(const std::string& vmdPath);
};

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
bool matchReleaseFile(const std::string& path, const std::string& pattern, int& major, int& minor,
                      int& patch, std::string& description);

// Clears the captures, reads the whole file `path` and searches it for `pattern` (Perl
// syntax, case-insensitive; "." matches a line break, "^" any line start). On a match the
// captures get groups 1 to 3 (empty for a group that took no part) and `description` the
// text up to the first CR or LF. False when the file cannot be opened or read, the pattern
// does not compile or nothing matches; `description` is then untouched.
bool searchReleaseFile(const std::string& path, const std::string& pattern, std::string& capture1,
                       std::string& capture2, std::string& capture3, std::string& description);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_OS_INFO_H_
