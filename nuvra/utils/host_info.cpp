// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/host_info.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fstab.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ext/stdio_filebuf.h>
#include <istream>
#include <limits>

#include "nuvra/tiny/internal/unique_resource.h"
#include "nuvra/utils/internal/host_info_seam.h"
#include "nuvra/utils/internal/paths.h"
#include "nuvra/utils/strings.h"

namespace nuvra::utils {

namespace {

constexpr char kUnspecifiedHost[] = "unspecified.host";
constexpr size_t kHostNameBufferSize = 256;
constexpr size_t kCwdBufferSize = 4096;
// Longest /proc/meminfo line read, with its terminator.
constexpr std::streamsize kMemInfoLineSize = 128;
// setlocale(LC_ALL, NULL) is kept to this many characters, with the terminator.
constexpr size_t kSavedLocaleSize = 30;
// Interface records first offered to SIOCGIFCONF, and how many more each retry offers.
// Counted in records rather than bytes because struct ifreq is 32 bytes on 32-bit targets
// and 40 on 64-bit ones.
constexpr size_t kFirstInterfaceRecords = 30;
constexpr size_t kMoreInterfaceRecords = 10;
// The fixed record count getMacAddresses looks at.
constexpr size_t kMacInterfaceRecords = 32;
constexpr int kMacBytes = 6;
constexpr size_t kMacTextSize = 18;

std::string stringForm(void (*fill)(char*, size_t)) {
    char buf[kHostNameBufferSize];
    fill(buf, sizeof buf);
    if (std::strcmp(buf, kUnspecifiedHost) == 0) {
        return {};
    }
    return buf;
}

// A block count times the block size, as a signed 64-bit size; 0 when the product does not
// fit.
int64_t blockBytes(uint64_t blockSize, uint64_t blocks) {
    const uint64_t product = blockSize * blocks;
    const auto bytes = static_cast<int64_t>(product);
    return bytes < 0 ? 0 : bytes;
}

// The fstab type for mount point `mountPoint` into `type`. Closes the table when found.
bool lookUpFsType(const char* mountPoint, std::string& type) {
    const struct fstab* entry = getfsfile(mountPoint);
    if (entry == nullptr) {
        return false;
    }
    type = entry->fs_vfstype;
    endfsent();
    return true;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// The MemTotal figure of one line in bytes: a decimal number after blanks, then the unit
// letter after the number and more blanks.
int64_t parseMemTotal(const char* text) {
    while (isBlank(*text)) {
        ++text;
    }
    char* end = nullptr;
    const int64_t number = std::strtoll(text, &end, 10);
    const char* rest = end;
    while ((*rest >= '0' && *rest <= '9') || isBlank(*rest)) {
        ++rest;
    }
    int64_t unit = 1;
    switch (*rest) {
        case 'K':
        case 'k':
            unit = int64_t{1} << 10;
            break;
        case 'M':
        case 'm':
            unit = int64_t{1} << 20;
            break;
        case 'G':
        case 'g':
            unit = int64_t{1} << 30;
            break;
        default:
            break;
    }
    int64_t bytes = 0;
    if (__builtin_mul_overflow(number, unit, &bytes)) {
        // A figure past 8 EiB cannot be real; report the nearest size that can be held.
        return number < 0 ? std::numeric_limits<int64_t>::min()
                          : std::numeric_limits<int64_t>::max();
    }
    return bytes;
}

}  // namespace

void getHostName(char* buf, size_t size) {
    struct utsname names = {};
    copyString(buf, uname(&names) == 0 ? names.nodename : kUnspecifiedHost, size);
}

void getFullHostName(char* buf, size_t size) {
    struct utsname names = {};
    if (uname(&names) != 0) {
        copyString(buf, kUnspecifiedHost, size);
        return;
    }
    addrinfo hints = {};
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    const int code = getaddrinfo(names.nodename, nullptr, &hints, &found);
    const tiny::internal::AddrInfoPtr list(found);
    if (code == 0 && list != nullptr && list->ai_canonname != nullptr) {
        copyString(buf, list->ai_canonname, size);
    } else {
        copyString(buf, kUnspecifiedHost, size);
    }
}

std::string getHostName() { return stringForm(&getHostName); }

std::string getFullHostName() { return stringForm(&getFullHostName); }

bool getDiskSpace(const char* path, int64_t& available, int64_t& total, int64_t& free) {
    struct statvfs64 info = {};
    if (statvfs64(path, &info) != 0) {
        return false;
    }
    const uint64_t blockSize = info.f_frsize != 0 ? info.f_frsize : info.f_bsize;
    available = blockBytes(blockSize, getuid() == 0 ? info.f_bfree : info.f_bavail);
    total = blockBytes(blockSize, info.f_blocks);
    free = blockBytes(blockSize, info.f_bfree);
    return true;
}

bool getFileSystemType(const char* path, std::string& type) {
    if (path == nullptr) {
        return false;
    }
    // A relative path is taken against the working directory as it is, without the tidying
    // and backslash rule of makeAbsolutePath: the table is searched for the literal prefixes.
    std::string current = path;
    if (path[0] != '/' && !internal::absoluteAgainstCwd(path, kCwdBufferSize, current)) {
        return false;
    }
    for (;;) {
        if (lookUpFsType(current.c_str(), type)) {
            return true;
        }
        const size_t slash = current.rfind('/');
        if (slash == std::string::npos) {
            return false;
        }
        if (slash == 0) {
            return lookUpFsType("/", type);
        }
        current.erase(slash);
    }
}

bool getTotalMemory(int64_t* bytes) { return internal::getTotalMemoryFrom("/proc/meminfo", bytes); }

void readLocale(OsInfo& info) {
    char saved[kSavedLocaleSize] = {};
    const char* current = std::setlocale(LC_ALL, nullptr);
    copyString(saved, current != nullptr ? current : "", sizeof saved);
    internal::setLocaleFields(info, std::setlocale(LC_ALL, ""));
    (void)std::setlocale(LC_ALL, saved);
}

bool getLocalAddresses(std::vector<Inet4Address>& out) {
    // Neither tested nor closed; see the header.
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    tiny::internal::MallocPtr<char> buffer;
    size_t offered = kFirstInterfaceRecords * sizeof(struct ifreq);
    ifconf list = {};
    for (;;) {
        if (!tiny::internal::reallocate(buffer, offered)) {
            return false;
        }
        list.ifc_len = static_cast<int>(offered);
        list.ifc_buf = buffer.get();
        if (ioctl(fd, SIOCGIFCONF, &list) < 0) {
            std::perror("SIOCGIFCONF");
            return false;
        }
        if (static_cast<size_t>(list.ifc_len) != offered) {
            break;
        }
        // The list filled what was offered and may have been cut: offer more.
        offered += kMoreInterfaceRecords * sizeof(struct ifreq);
    }
    if (list.ifc_len < 1) {
        return true;
    }
    const size_t records = static_cast<size_t>(list.ifc_len) / sizeof(struct ifreq);
    for (size_t i = 0; i < records; ++i) {
        const struct ifreq& record = list.ifc_req[i];
        if (record.ifr_addr.sa_family != AF_INET) {
            continue;
        }
        sockaddr_in address = {};
        std::memcpy(&address, &record.ifr_addr, sizeof address);
        out.emplace_back(ntohl(address.sin_addr.s_addr));
    }
    return true;
}

bool getMacAddresses(std::map<std::string, std::string>& out) {
    out.clear();
    const tiny::internal::UniqueFd socketFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int fd = socketFd.get();
    if (fd < 0) {
        return false;
    }
    struct ifreq records[kMacInterfaceRecords] = {};
    ifconf list = {};
    list.ifc_len = sizeof records;
    list.ifc_req = records;
    if (ioctl(fd, SIOCGIFCONF, &list) < 0) {
        return false;
    }
    const size_t count = static_cast<size_t>(list.ifc_len) / sizeof(struct ifreq);
    for (size_t i = 0; i < count; ++i) {
        struct ifreq request = {};
        std::memcpy(request.ifr_name, records[i].ifr_name, IFNAMSIZ);
        if (ioctl(fd, SIOCGIFHWADDR, &request) < 0) {
            continue;
        }
        const auto* mac = reinterpret_cast<const unsigned char*>(request.ifr_hwaddr.sa_data);
        bool allZero = true;
        for (int b = 0; b < kMacBytes; ++b) {
            allZero = allZero && mac[b] == 0;
        }
        if (allZero) {
            continue;
        }
        char text[kMacTextSize];
        (void)std::snprintf(text, sizeof text, "%2.2X:%2.2X:%2.2X:%2.2X:%2.2X:%2.2X", mac[0],
                            mac[1], mac[2], mac[3], mac[4], mac[5]);
        // The name is copied bounded: the kernel fills all IFNAMSIZ bytes of a long name.
        char name[IFNAMSIZ + 1] = {};
        std::memcpy(name, records[i].ifr_name, IFNAMSIZ);
        out.emplace(name, text);
    }
    return true;
}

int getLastError() { return errno; }

int* setLastError(int value) {
    errno = value;
    return &errno;
}

// Not joined to the enclosing namespace: the attribute cannot go on a joined name.
namespace [[gnu::visibility("hidden")]] internal {  // NOLINT(modernize-concat-nested-namespaces)

bool getTotalMemoryFrom(const char* path, int64_t* bytes) {
    if (bytes == nullptr) {
        return false;
    }
    *bytes = 0;
    // Opened by hand so that the descriptor is close-on-exec, which std::ifstream cannot ask
    // for; the file buffer takes it over and closes it.
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    __gnu_cxx::stdio_filebuf<char> buffer(fd, std::ios::in);
    if (!buffer.is_open()) {
        ::close(fd);
        return false;
    }
    std::istream file(&buffer);
    static constexpr char kKey[] = "MemTotal:";
    char line[kMemInfoLineSize];
    while (file.getline(line, kMemInfoLineSize)) {
        const char* key = std::strstr(line, kKey);
        if (key != nullptr) {
            *bytes = parseMemTotal(key + sizeof kKey - 1);
            return true;
        }
    }
    return false;
}

void setLocaleFields(OsInfo& info, const char* name) {
    std::memset(info.language, 0, sizeof info.language);
    std::memset(info.territory, 0, sizeof info.territory);
    std::memset(info.defaultLanguage, 0, sizeof info.defaultLanguage);
    std::memset(info.defaultTerritory, 0, sizeof info.defaultTerritory);
    if (name == nullptr || std::strcmp(name, "C") == 0 || std::strcmp(name, "POSIX") == 0) {
        return;
    }
    std::string copy(name);
    char* state = nullptr;
    const char* language = tokenize(copy.data(), "_.@", &state);
    if (language != nullptr) {
        copyString(info.language, language, sizeof info.language);
    }
    if (std::strchr(name, '_') != nullptr) {
        const char* territory = tokenize(nullptr, ".@", &state);
        if (territory != nullptr) {
            copyString(info.territory, territory, sizeof info.territory);
        }
    }
    copyString(info.defaultLanguage, info.language, sizeof info.defaultLanguage);
    copyString(info.defaultTerritory, info.territory, sizeof info.defaultTerritory);
}

}  // namespace internal

}  // namespace nuvra::utils
