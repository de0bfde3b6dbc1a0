// getTotalMemory's reading of meminfo text (through the path seam) against a model: the first
// line holding "MemTotal:" before any NUL byte wins, unless a line of more than 127 characters
// comes first; then blanks, a number as strtoll reads it, digits and blanks, and a unit letter
// K, M or G in either case; the product is held at the int64_t limits.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "fuzz_check.h"
#include "nuvra/utils/internal/host_info_seam.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr char kUnits[] = "KkMmGg";
    static const int fd = memfd_create("meminfo", MFD_CLOEXEC);
    FUZZ_CHECK(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    const std::string content(reinterpret_cast<const char*>(data), size);
    bool found = false;
    __int128 expected = 0;
    for (size_t start = 0, end = 0; !found && start < size; start = end + 1) {
        end = std::min(content.find('\n', start), size);
        const std::string line = content.substr(start, end - start);
        const char* key = std::strstr(line.c_str(), "MemTotal:");
        if (line.size() > 127) {
            break;
        }
        if (key != nullptr) {
            found = true;
            char* rest = nullptr;
            expected = std::strtoll(key + 9 + std::strspn(key + 9, " \t"), &rest, 10);
            rest += std::strspn(rest, "0123456789 \t");
            const char* unit = *rest == '\0' ? nullptr : std::strchr(kUnits, *rest);
            expected *= __int128{1} << (unit == nullptr ? 0 : 10 + 10 * ((unit - kUnits) / 2));
        }
    }
    int64_t bytes = -1;
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    FUZZ_CHECK(nuvra::utils::internal::getTotalMemoryFrom(path.c_str(), &bytes) == found);
    FUZZ_CHECK(bytes == std::clamp<__int128>(expected, INT64_MIN, INT64_MAX));
    return 0;
}
