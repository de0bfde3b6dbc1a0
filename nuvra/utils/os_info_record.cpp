// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/os_info_record.h"

namespace nuvra::utils {

const VirtInfo& OsInfo::getVirtInfo(const std::string& vmdPath) {
    if (!virtInfoValid || vmdPath != virtInfoProbePath) {
        virtInfo = VmInfo::getVirtInfo(vmdPath);
        virtInfoProbePath = vmdPath;
        virtInfoValid = true;
    }
    return virtInfo;
}

}  // namespace nuvra::utils
