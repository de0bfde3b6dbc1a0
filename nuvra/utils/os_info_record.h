// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::OsInfo: the description of the running Linux system, one record filled in
// place by the host facts (readLocale, nuvra/utils/host_info.h) and by distribution detection
// (detectOsInfo, nuvra/utils/os_info.h).
//
// The record holds the distribution's description, identifier and version, the package
// format, the platform string, the kernel version, the processor count, the environment's
// locale and a cached hypervisor result. Its fields are public so that the functions that
// fill it can write them directly; readers use the accessors. Only getVirtInfo does work: it
// runs the hypervisor probe, so it reports as VmInfo::getVirtInfo does.

#ifndef NUVRA_UTILS_OS_INFO_RECORD_H_
#define NUVRA_UTILS_OS_INFO_RECORD_H_

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

    [[nodiscard]] const std::string& getDescription() const { return description; }
    [[nodiscard]] uint32_t getOsCode() const { return osCode; }
    [[nodiscard]] uint32_t getOsFamilyMask() const { return osFamilyMask; }
    [[nodiscard]] int getVersionMajor() const { return versionMajor; }
    [[nodiscard]] int getVersionMinor() const { return versionMinor; }
    [[nodiscard]] int getVersionPatch() const { return versionPatch; }
    [[nodiscard]] const std::string& getPlatform() const { return platform; }
    [[nodiscard]] const std::string& getExtraText1() const { return extraText1; }
    [[nodiscard]] const std::string& getDistributionId() const { return distributionId; }
    [[nodiscard]] const std::string& getExtraText2() const { return extraText2; }
    // The locale fields are NUL-terminated, possibly empty, texts of at most 8 characters.
    [[nodiscard]] const char* getLanguage() const { return language; }
    [[nodiscard]] const char* getTerritory() const { return territory; }
    [[nodiscard]] const char* getDefaultLanguage() const { return defaultLanguage; }
    [[nodiscard]] const char* getDefaultTerritory() const { return defaultTerritory; }
    [[nodiscard]] const VirtInfo& getCachedVirtInfo() const { return virtInfo; }
    [[nodiscard]] bool getVirtInfoValid() const { return virtInfoValid; }
    [[nodiscard]] const std::string& getVirtInfoProbePath() const { return virtInfoProbePath; }
    [[nodiscard]] const std::string& getKernelVersion() const { return kernelVersion; }
    [[nodiscard]] const std::string& getPackageType() const { return packageType; }
    [[nodiscard]] long getProcessorCount() const { return processorCount; }
    [[nodiscard]] int getArchitecture() const { return architecture; }

    // The hypervisor result for the probe `vmdPath`: runs VmInfo::getVirtInfo only when no
    // result is stored yet or it was obtained with another probe path, then stores the result
    // and the path. Returns the stored result. See nuvra/utils/virt_info.h for how long a
    // detection can take.
    const VirtInfo& getVirtInfo(const std::string& vmdPath);
};

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_OS_INFO_RECORD_H_
