// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::VirtInfo: what the library found out about a hypervisor under the running
// system, and the detection that fills it.
//
// VirtInfo is a plain, copyable value: whether the system runs virtualised, a fixed
// description text and how far the answer can be trusted. The library does not probe the
// hardware itself: detection runs an external probe program (VmInfo::vmdpath) once per
// hypervisor family, with the family's name as its only argument, and reads the answer from
// its exit code: 71 means "not this family", and for the VMware family the code names the
// variant.
//
// Nothing here throws but std::bad_alloc from the strings. A probe that is missing, cannot be
// started, runs past its 2-second limit, is killed by a signal or exits with 255 ends the
// whole detection with kVirtualizationUndetected ("Virtualization undetected", not virtual).
// Each probe run may take up to about 3 seconds (the wait polls once a second), so a
// detection can block for several seconds: run it once and keep the result.
//
// The probe path and the last result are process-wide and unguarded: detection must not run
// on two threads at once.

#ifndef NUVRA_UTILS_VIRT_INFO_H_
#define NUVRA_UTILS_VIRT_INFO_H_

#include <string>

namespace nuvra::utils {

// The default value stands for "not yet detected": not virtual, description "unknown",
// confidence 0. Detection replaces all three fields.
struct VirtInfo {
    bool isVirtual = false;
    std::string description = "unknown";
    float confidence = 0.0F;
};

// Detection result codes; virtualizationText gives their texts.
constexpr int kNativeOs = 0;
constexpr int kUnknownVirtualMachine = 1;
constexpr int kVmwareUnknownVersion = 2;
constexpr int kVmwareExpress = 3;
constexpr int kVmwareWorkstation = 4;
constexpr int kVmwareEsx = 5;
constexpr int kVmwareGsx = 6;
constexpr int kParallels = 7;
constexpr int kVirtualizationUndetected = 8;

// The probe's exit code for "not this hypervisor family".
constexpr int kProbeNotThisFamily = 71;

// The confidence every detection reports, whatever its result.
constexpr float kDetectionConfidence = 0.95F;

// The process-wide probe settings and the most recent result.
class VmInfo {
  public:
    // The probe program; empty means "vmd". A path that does not start with '/' or '\' is
    // taken relative to the current working directory, never searched on PATH.
    static std::string vmdpath;

    // The most recent result; every detection overwrites it.
    static VirtInfo cachedInfo;

    // Sets vmdpath to `vmdPath`, resets cachedInfo to the undetected value, runs
    // detectVirtualization and stores its result into cachedInfo: isVirtual when the code
    // has a bit other than bit 3 set (so 1 to 7 and any code above 8), the code's text, and
    // confidence kDetectionConfidence. Returns a copy of cachedInfo.
    // WARNING: a VMware probe exiting with a code above 8 gives isVirtual true with the text
    // "Native OS"; kept so.
    static VirtInfo getVirtInfo(const std::string& vmdPath);
};

// "Native OS", "Unknown virtual machine", "VmWare (unknown version)", "VmWare Express",
// "VmWare Workstation", "VmWare ESX", "VmWare GSX", "Parallels", "Virtualization undetected"
// for codes 0 to 8; "Native OS" for any other code. A static text, never null.
const char* virtualizationText(int code);

// Runs the probe for Parallels, then VMware, then other hypervisors, stopping at the first
// that answers: kParallels for any Parallels answer but 71, the VMware probe's own exit code
// for any VMware answer but 71 (its variant, or 0 for a native system), then
// kUnknownVirtualMachine for any other answer but 71, and kNativeOs when all three said 71.
// A probe that cannot be run gives kVirtualizationUndetected at once, without trying the
// later families.
[[nodiscard]] int detectVirtualization();

// Runs the probe (vmdpath, set to "vmd" when empty, made absolute against the working
// directory) for one family: `kind` kParallels runs it with "parallels", kVmwareUnknownVersion
// with "vmware", kUnknownVirtualMachine with "unknownvm", anything else with an empty
// argument. Waits at most 2 seconds. Returns the exit code; kVirtualizationUndetected when the
// probe could not be started, ran too long (it is then killed), was killed by a signal or
// exited with 255, or when the working directory cannot be read.
[[nodiscard]] int runVmProbe(int kind);

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_VIRT_INFO_H_
