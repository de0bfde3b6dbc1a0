// Distribution detection over release files of arbitrary content.
//
// Input: byte 0 chooses which of the eight release files exist (bit i: file i of kFiles),
// byte 1 whether the appliance marker exists (bit 0) and which row's pattern the direct
// search uses (the rest, modulo 9); the remaining bytes, split at 0x1E, are the contents of
// the chosen files in order (missing pieces give empty files).
//
// Checked: searchReleaseFile clears its captures, and on a match gives the content up to the
// first CR or LF as description and captures that are digits only, each present only when
// the one before is; without a match the description is untouched. matchReleaseFile agrees
// with it and converts the captures that fit an int, leaving the other targets alone.
// detectOsInfoAt over a root holding the files agrees with the rows tried in order through
// the public functions, with the Ubuntu and Debian description rules and the appliance
// suffix. Everything runs in one directory of this process under /tmp.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>

#include "fuzz_check.h"
#include "nuvra/utils/internal/os_info_seam.h"
#include "nuvra/utils/os_info.h"

namespace {

namespace nu = nuvra::utils;

constexpr const char* kFiles[] = {
    "fedora-release",      "redhat-release",    "mandrake-release", "SuSE-release",
    "UnitedLinux-release", "slackware-version", "lsb-release",      "debian_version",
};

struct Row {
    int file;  // index into kFiles
    const char* pattern;
    const char* distributionId;
    const char* packageType;
};

// The documented rows, in the order they are tried.
const Row kRows[] = {
    {0, R"(Fedora.*release.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "FEDORA_LINUX", "PACKAGE_RPM"},
    {1, R"(CentOS.*release.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "CENTOS_LINUX", "PACKAGE_RPM"},
    {1, R"(Red.*Hat.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "REDHAT_LINUX", "PACKAGE_RPM"},
    {2, R"(Mandrake.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "MANDRAKE_LINUX", "PACKAGE_RPM"},
    {3, R"(SuSE.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "SUSE_LINUX", "PACKAGE_RPM"},
    {4, R"(UnitedLinux.* (\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "UNITED_LINUX", "PACKAGE_RPM"},
    {5, R"(^(\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "SLACKWARE_LINUX", "PACKAGE_TGZ"},
    {6, R"(DISTRIB_ID=Ubuntu.*DISTRIB_RELEASE=(\d+)(?:\.(\d+)(?:\.(\d+))?)?.*)", "UBUNTU_LINUX",
     "PACKAGE_DEB"},
    {7, R"(^(\d+)(?:\.(\d+)(?:\.(\d+))?)?)", "DEBIAN_LINUX", "PACKAGE_DEB"},
};
constexpr int kRowCount = sizeof kRows / sizeof kRows[0];
constexpr int kUbuntuRow = 7;
constexpr int kDebianRow = 8;
constexpr int kUntouched = -7;

// "<root>/etc" of this process, removed at exit.
struct Root {
    Root() : path("/tmp/nuvra_os_info_fuzz." + std::to_string(getpid())) {
        std::filesystem::create_directories(path + "/etc");
    }
    ~Root() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Root(const Root&) = delete;
    Root& operator=(const Root&) = delete;
    static const Root& instance() {
        static const Root root;
        return root;
    }
    std::string file(const char* name) const { return path + "/etc/" + name; }
    const std::string path;
};

void writeFile(const std::string& path, const std::string& content) {
    FILE* file = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(file != nullptr);
    FUZZ_CHECK(std::fwrite(content.data(), 1, content.size(), file) == content.size());
    FUZZ_CHECK(std::fclose(file) == 0);
}

bool allDigits(const std::string& text) {
    return text.find_first_not_of("0123456789") == std::string::npos;
}

// A capture as an int: its value when it is a number that fits, else `previous`.
int converted(const std::string& capture, int previous) {
    if (capture.empty()) {
        return previous;
    }
    const std::string significant =
        capture.substr(std::min(capture.find_first_not_of('0'), capture.size() - 1));
    if (significant.size() > 10) {
        return previous;
    }
    const long long value = std::stoll(significant);
    return value <= std::numeric_limits<int>::max() ? static_cast<int>(value) : previous;
}

struct Search {
    bool matched = false;
    std::string captures[3];
    std::string description;
};

// searchReleaseFile with every documented property of its outputs checked.
Search checkedSearch(const std::string& path, const char* pattern, const std::string* content) {
    Search search;
    search.captures[0] = search.captures[1] = search.captures[2] = "stale";
    search.description = "untouched";
    search.matched = nu::searchReleaseFile(path, pattern, search.captures[0], search.captures[1],
                                           search.captures[2], search.description);
    if (content == nullptr) {
        FUZZ_CHECK(!search.matched);
    }
    if (!search.matched) {
        FUZZ_CHECK(search.description == "untouched");
        for (const std::string& capture : search.captures) {
            FUZZ_CHECK(capture.empty());
        }
        return search;
    }
    FUZZ_CHECK(search.description == content->substr(0, content->find_first_of("\r\n")));
    FUZZ_CHECK(!search.captures[0].empty());
    FUZZ_CHECK(search.captures[2].empty() || !search.captures[1].empty());
    for (const std::string& capture : search.captures) {
        FUZZ_CHECK(allDigits(capture));
        FUZZ_CHECK(content->find(capture) != std::string::npos);
    }
    return search;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    const Root& root = Root::instance();
    const unsigned present = data[0];
    const bool appliance = (data[1] & 1) != 0;
    const int directRow = (data[1] >> 1) % kRowCount;
    const std::string rest(reinterpret_cast<const char*>(data) + 2, size - 2);

    std::string contents[8];
    size_t at = 0;
    for (int i = 0; i < 8; ++i) {
        const std::string path = root.file(kFiles[i]);
        if ((present & (1U << i)) == 0) {
            static_cast<void>(std::remove(path.c_str()));
            continue;
        }
        if (at <= rest.size()) {
            const size_t end = std::min(rest.find('\x1e', at), rest.size());
            contents[i] = rest.substr(at, end - at);
            at = end + 1;
        }
        writeFile(path, contents[i]);
    }
    const std::string marker = root.file("nuvra-vmware-va");
    if (appliance) {
        writeFile(marker, "");
    } else {
        static_cast<void>(std::remove(marker.c_str()));
    }
    const auto contentOf = [&](int file) {
        return (present & (1U << file)) != 0 ? &contents[file] : nullptr;
    };

    // The direct search and its conversion.
    const Row& direct = kRows[directRow];
    const std::string directPath = root.file(kFiles[direct.file]);
    const Search search = checkedSearch(directPath, direct.pattern, contentOf(direct.file));
    int versions[3] = {kUntouched, kUntouched, kUntouched};
    std::string description = "untouched";
    FUZZ_CHECK(nu::matchReleaseFile(directPath, direct.pattern, versions[0], versions[1],
                                    versions[2], description) == search.matched);
    FUZZ_CHECK(description == search.description);
    for (int i = 0; i < 3; ++i) {
        FUZZ_CHECK(versions[i] ==
                   (search.matched ? converted(search.captures[i], kUntouched) : kUntouched));
    }

    // Detection over the whole root, against the rows tried one by one.
    nu::OsInfo expected;
    for (int row = 0; row < kRowCount; ++row) {
        const Search found = checkedSearch(root.file(kFiles[kRows[row].file]), kRows[row].pattern,
                                           contentOf(kRows[row].file));
        if (!found.matched) {
            continue;
        }
        expected.description = found.description;
        if (row == kUbuntuRow) {
            const size_t equals = expected.description.find('=');
            if (equals != std::string::npos) {
                expected.description.erase(0, equals + 1);
            }
            expected.description += " " + found.captures[0] + "." + found.captures[1];
        }
        if (row == kDebianRow &&
            (expected.description.empty() ||
             (expected.description[0] >= '0' && expected.description[0] <= '9'))) {
            expected.description = "Debian GNU/Linux " + expected.description;
        }
        if (appliance) {
            expected.description += " (Nuvra VA)";
        }
        expected.distributionId = kRows[row].distributionId;
        expected.packageType = kRows[row].packageType;
        expected.versionMajor = converted(found.captures[0], 0);
        expected.versionMinor = converted(found.captures[1], 0);
        expected.versionPatch = converted(found.captures[2], 0);
        break;
    }
    nu::OsInfo info;
    info.description = "stale";
    info.versionPatch = kUntouched;
    nu::internal::detectOsInfoAt(info, root.path);
    FUZZ_CHECK(info.description == expected.description);
    FUZZ_CHECK(info.distributionId == expected.distributionId);
    FUZZ_CHECK(info.packageType == expected.packageType);
    FUZZ_CHECK(info.versionMajor == expected.versionMajor);
    FUZZ_CHECK(info.versionMinor == expected.versionMinor);
    FUZZ_CHECK(info.versionPatch == expected.versionPatch);
    FUZZ_CHECK(!info.virtInfoValid);
    return 0;
}
