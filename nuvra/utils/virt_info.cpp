// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/virt_info.h"

#include <sys/types.h>

#include <cstdint>

#include "nuvra/tiny/process.h"
#include "nuvra/utils/filesystem.h"

namespace nuvra::utils {
namespace {

constexpr uint32_t kProbeLimitSeconds = 2;

const char* const kTexts[] = {
    "Native OS",
    "Unknown virtual machine",
    "VmWare (unknown version)",
    "VmWare Express",
    "VmWare Workstation",
    "VmWare ESX",
    "VmWare GSX",
    "Parallels",
    "Virtualization undetected",
};
constexpr int kTextCount = static_cast<int>(sizeof(kTexts) / sizeof(kTexts[0]));

const char* probeArgument(int kind) {
    switch (kind) {
        case kParallels:
            return "parallels";
        case kVmwareUnknownVersion:
            return "vmware";
        case kUnknownVirtualMachine:
            return "unknownvm";
        default:
            return "";
    }
}

}  // namespace

std::string VmInfo::vmdpath;
VirtInfo VmInfo::cachedInfo;

VirtInfo VmInfo::getVirtInfo(const std::string& vmdPath) {
    vmdpath = vmdPath;
    cachedInfo = VirtInfo{};
    const int code = detectVirtualization();
    // Bit 3 alone is "undetected"; every other set bit means a hypervisor answered.
    cachedInfo.isVirtual = (code & ~kVirtualizationUndetected) != 0;
    cachedInfo.description = virtualizationText(code);
    cachedInfo.confidence = kDetectionConfidence;
    return cachedInfo;
}

const char* virtualizationText(int code) {
    return code >= 0 && code < kTextCount ? kTexts[code] : kTexts[kNativeOs];
}

int detectVirtualization() {
    int answer = runVmProbe(kParallels);
    if (answer == kVirtualizationUndetected) {
        return kVirtualizationUndetected;
    }
    if (answer != kProbeNotThisFamily) {
        return kParallels;
    }
    answer = runVmProbe(kVmwareUnknownVersion);
    if (answer == kVirtualizationUndetected) {
        return kVirtualizationUndetected;
    }
    if (answer != kProbeNotThisFamily) {
        return answer;
    }
    answer = runVmProbe(kUnknownVirtualMachine);
    if (answer == kVirtualizationUndetected) {
        return kVirtualizationUndetected;
    }
    return answer != kProbeNotThisFamily ? kUnknownVirtualMachine : kNativeOs;
}

int runVmProbe(int kind) {
    if (VmInfo::vmdpath.empty()) {
        VmInfo::vmdpath = "vmd";
    }
    // An absolute path, so that a bare name is never looked up on PATH.
    std::string program;
    if (!makeAbsolutePath(program, VmInfo::vmdpath)) {
        return kVirtualizationUndetected;
    }
    pid_t pid = -1;
    if (tiny::spawnProgram(program.c_str(), probeArgument(kind), &pid) == -1) {
        return kVirtualizationUndetected;
    }
    const int status = tiny::waitForProcessTimeout(pid, kProbeLimitSeconds);
    return status == -1 ? kVirtualizationUndetected : status;
}

}  // namespace nuvra::utils
