// nuvra::utils::VirtInfo: what the library found out about a hypervisor under the running
// system.
//
// A plain, copyable value: whether the system runs virtualised, a fixed description text and
// how far the answer can be trusted. Nothing here can fail; only the description string may
// throw std::bad_alloc when copied.

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

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_VIRT_INFO_H_
