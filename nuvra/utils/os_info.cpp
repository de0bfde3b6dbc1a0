// SPDX-License-Identifier: Apache-2.0
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

// How a row's description is made once its pattern matched.
enum class Describe {
    kFirstLine,      // the first line of the file
    kDebianVersion,  // the first line, prefixed "Debian GNU/Linux " when it is a bare version
    kUbuntuRelease,  // the text after "=" on the first line, a blank and "major.minor"
};

struct ReleaseRow {
    const char* file;
    const char* pattern;
    const char* distributionId;
    const char* packageType;
    Describe describe;
};

// One to three dot-separated version numbers, captured.
#define NUVRA_RELEASE_VERSION R"((\d+)(?:\.(\d+)(?:\.(\d+))?)?)"

// Tried in this order; the first match wins. CentOS comes before Red Hat on the same file so
// that a CentOS system is never reported as Red Hat.
const ReleaseRow kRows[] = {
    {"/etc/fedora-release", "Fedora.*release.* " NUVRA_RELEASE_VERSION, "FEDORA_LINUX",
     "PACKAGE_RPM", Describe::kFirstLine},
    {"/etc/redhat-release", "CentOS.*release.* " NUVRA_RELEASE_VERSION, "CENTOS_LINUX",
     "PACKAGE_RPM", Describe::kFirstLine},
    {"/etc/redhat-release", "Red.*Hat.* " NUVRA_RELEASE_VERSION, "REDHAT_LINUX", "PACKAGE_RPM",
     Describe::kFirstLine},
    {"/etc/mandrake-release", "Mandrake.* " NUVRA_RELEASE_VERSION, "MANDRAKE_LINUX", "PACKAGE_RPM",
     Describe::kFirstLine},
    {"/etc/SuSE-release", "SuSE.* " NUVRA_RELEASE_VERSION, "SUSE_LINUX", "PACKAGE_RPM",
     Describe::kFirstLine},
    {"/etc/UnitedLinux-release", "UnitedLinux.* " NUVRA_RELEASE_VERSION, "UNITED_LINUX",
     "PACKAGE_RPM", Describe::kFirstLine},
    {"/etc/slackware-version", "^" NUVRA_RELEASE_VERSION, "SLACKWARE_LINUX", "PACKAGE_TGZ",
     Describe::kFirstLine},
    {"/etc/lsb-release", "DISTRIB_ID=Ubuntu.*DISTRIB_RELEASE=" NUVRA_RELEASE_VERSION ".*",
     "UBUNTU_LINUX", "PACKAGE_DEB", Describe::kUbuntuRelease},
    {"/etc/debian_version", "^" NUVRA_RELEASE_VERSION, "DEBIAN_LINUX", "PACKAGE_DEB",
     Describe::kDebianVersion},
};

#undef NUVRA_RELEASE_VERSION

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

// The whole content of `path` into `content`; false only when it cannot be opened. A read
// error after the open leaves `content` empty: a release file that exists is searched, as
// empty text, rather than passed over.
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
    if (std::ferror(file) != 0) {
        content.clear();
    }
    static_cast<void>(std::fclose(file));
    return true;
}

// Turns out.description, the first line of the row's file, into the row's description.
void describe(Describe how, const std::string (&captures)[3], OsInfo& out) {
    std::string& description = out.description;
    switch (how) {
        case Describe::kFirstLine:
            break;
        case Describe::kDebianVersion:
            if (description.empty() || (description[0] >= '0' && description[0] <= '9')) {
                out.description.insert(0, "Debian GNU/Linux ");
            }
            break;
        case Describe::kUbuntuRelease: {
            const size_t equals = description.find('=');
            if (equals != std::string::npos) {
                description.erase(0, equals + 1);
            }
            description += ' ' + captures[0] + '.' + captures[1];
            break;
        }
    }
}

}  // namespace

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

// Not joined to the enclosing namespace: the attribute cannot go on a joined name.
namespace [[gnu::visibility("hidden")]] internal {  // NOLINT(modernize-concat-nested-namespaces)

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
        std::string captures[3];
        if (!searchReleaseFile(root + row.file, row.pattern, captures[0], captures[1], captures[2],
                               out.description)) {
            continue;
        }
        captureToInt(captures[0], out.versionMajor);
        captureToInt(captures[1], out.versionMinor);
        captureToInt(captures[2], out.versionPatch);
        describe(row.describe, captures, out);
        out.distributionId = row.distributionId;
        out.packageType = row.packageType;
        if (isVirtualApplianceAt(root)) {
            out.description += kApplianceSuffix;
        }
        return;
    }
}

}  // namespace internal
}  // namespace nuvra::utils
