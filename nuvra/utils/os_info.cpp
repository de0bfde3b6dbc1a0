#include "nuvra/utils/os_info.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <boost/regex.hpp>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "nuvra/utils/host_info.h"
#include "nuvra/utils/internal/os_info_seam.h"

namespace nuvra::utils {
namespace {

struct ReleaseRow {
    const char* file;
    const char* pattern;
    const char* distributionId;
    const char* packageType;
};

// Tried in this order; the first match wins. CentOS comes before Red Hat on the same file so
// that a CentOS system is never reported as Red Hat.
const ReleaseRow kRows[] = {
    {"/etc/fedora-release", R"(Fedora.*release.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "FEDORA_LINUX",
     "PACKAGE_RPM"},
    {"/etc/redhat-release", R"(CentOS.*release.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "CENTOS_LINUX",
     "PACKAGE_RPM"},
    {"/etc/redhat-release", R"(Red.*Hat.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "REDHAT_LINUX",
     "PACKAGE_RPM"},
    {"/etc/mandrake-release", R"(Mandrake.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "MANDRAKE_LINUX",
     "PACKAGE_RPM"},
    {"/etc/SuSE-release", R"(SuSE.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "SUSE_LINUX", "PACKAGE_RPM"},
    {"/etc/UnitedLinux-release", R"(UnitedLinux.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "UNITED_LINUX",
     "PACKAGE_RPM"},
    {"/etc/slackware-version", R"(^(\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "SLACKWARE_LINUX",
     "PACKAGE_TGZ"},
    {"/etc/lsb-release", R"(DISTRIB_ID=Ubuntu.*DISTRIB_RELEASE=(\d+)(?:\.(\d+)(?:\.(\d+))?)?.*)",
     "UBUNTU_LINUX", "PACKAGE_DEB"},
    {"/etc/debian_version", R"(^(\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "DEBIAN_LINUX", "PACKAGE_DEB"},
};
constexpr const char* kUbuntuFile = "/etc/lsb-release";
constexpr const char* kDebianFile = "/etc/debian_version";
constexpr const char* kApplianceMarker = "/etc/nuvra-vmware-va";
constexpr const char* kApplianceSuffix = " (Nuvra VA)";
constexpr size_t kReadChunk = 4096;

// The leading decimal number of `text` into `target`; `target` keeps its value when there
// is none.
void captureToInt(const std::string& text, int& target) {
    std::istringstream in(text);
    int value = 0;
    if (in >> value) {
        target = value;
    }
}

// The whole content of `path` into `content`; false when it cannot be opened or read.
bool readWholeFile(const std::string& path, std::string& content) {
    FILE* file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        return false;
    }
    char chunk[kReadChunk];
    size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) {
        content.append(chunk, got);
    }
    const bool readFailed = std::ferror(file) != 0;
    static_cast<void>(std::fclose(file));
    return !readFailed;
}

// The Ubuntu row's description: the text after the first "=" of the first line, a blank and
// "major.minor".
void describeUbuntu(std::string& description, const std::string& major, const std::string& minor) {
    const size_t equals = description.find('=');
    if (equals != std::string::npos) {
        description.erase(0, equals + 1);
    }
    description += ' ';
    description += major;
    description += '.';
    description += minor;
}

}  // namespace

const VirtInfo& OsInfo::getVirtInfo(const std::string& vmdPath) {
    if (!virtInfoValid || vmdPath != virtInfoProbePath) {
        virtInfo = VmInfo::getVirtInfo(vmdPath);
        virtInfoProbePath = vmdPath;
        virtInfoValid = true;
    }
    return virtInfo;
}

bool searchReleaseFile(const std::string& path, const std::string& pattern, std::string& capture1,
                       std::string& capture2, std::string& capture3, std::string& description) {
    capture1.clear();
    capture2.clear();
    capture3.clear();
    std::string content;
    if (!readWholeFile(path, content)) {
        return false;
    }
    boost::smatch match;
    try {
        const boost::regex expression(pattern, boost::regex::perl | boost::regex::icase);
        if (!boost::regex_search(content, match, expression)) {
            return false;
        }
    } catch (const std::runtime_error&) {
        // A pattern that does not compile, or a search too complex to finish.
        return false;
    }
    capture1 = match[1].str();
    capture2 = match[2].str();
    capture3 = match[3].str();
    description = content.substr(0, content.find_first_of("\r\n"));
    return true;
}

bool matchReleaseFile(const std::string& path, const std::string& pattern, int& major, int& minor,
                      int& patch, std::string& description) {
    std::string captures[3];
    if (!searchReleaseFile(path, pattern, captures[0], captures[1], captures[2], description)) {
        return false;
    }
    captureToInt(captures[0], major);
    captureToInt(captures[1], minor);
    captureToInt(captures[2], patch);
    return true;
}

bool isVirtualAppliance() { return internal::isVirtualApplianceAt(""); }

void detectOsInfo(OsInfo& out) { internal::detectOsInfoAt(out, ""); }

namespace [[gnu::visibility("hidden")]] internal {

bool isVirtualApplianceAt(const std::string& root) {
    struct stat status {};
    return stat((root + kApplianceMarker).c_str(), &status) == 0;
}

void applyUname(OsInfo& out, const char* machine, const char* release) {
    if (std::strstr(machine, "86") == nullptr) {
        out.platform = "LINUX.PPC";
        out.architecture = 1;
    } else if (std::strcmp(machine, "x86_64") == 0) {
        out.architecture = 2;
        out.osCode = 0x4000;
        out.platform = "LINUX.X64";
    } else {
        out.architecture = 0;
        out.platform = "LINUX.X86";
    }
    int numbers[3] = {};
    // Only how many numbers lead the release matters; they are small.
    // NOLINTNEXTLINE(cert-err34-c)
    const int count = std::sscanf(release, "%d.%d.%d", &numbers[0], &numbers[1], &numbers[2]);
    for (int i = 0; i < count; ++i) {
        if (i > 0) {
            out.kernelVersion += '.';
        }
        out.kernelVersion += std::to_string(numbers[i]);
    }
}

void detectOsInfoAt(OsInfo& out, const std::string& root) {
    out = OsInfo{};
    readLocale(out);
    out.processorCount = sysconf(_SC_NPROCESSORS_ONLN);

    utsname name{};
    if (uname(&name) == 0) {
        applyUname(out, name.machine, name.release);
    }

    for (const ReleaseRow& row : kRows) {
        const std::string path = root + row.file;
        bool matched = false;
        if (std::strcmp(row.file, kUbuntuFile) == 0) {
            std::string captures[3];
            matched = searchReleaseFile(path, row.pattern, captures[0], captures[1], captures[2],
                                        out.description);
            if (matched) {
                describeUbuntu(out.description, captures[0], captures[1]);
                captureToInt(captures[0], out.versionMajor);
                captureToInt(captures[1], out.versionMinor);
                captureToInt(captures[2], out.versionPatch);
            }
        } else {
            matched = matchReleaseFile(path, row.pattern, out.versionMajor, out.versionMinor,
                                       out.versionPatch, out.description);
            if (matched && std::strcmp(row.file, kDebianFile) == 0 &&
                (out.description.empty() ||
                 (out.description[0] >= '0' && out.description[0] <= '9'))) {
                out.description.insert(0, "Debian GNU/Linux ");
            }
        }
        if (matched) {
            out.distributionId = row.distributionId;
            out.packageType = row.packageType;
            if (isVirtualApplianceAt(root)) {
                out.description += kApplianceSuffix;
            }
            return;
        }
    }
}

}  // namespace internal
}  // namespace nuvra::utils
