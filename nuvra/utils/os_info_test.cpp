// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/os_info.h"

#include <filesystem>
#include <sstream>
#include <tuple>

#include "gtest/gtest.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/utils/internal/os_info_seam.h"

namespace nuvra::utils {
namespace {

// Detection over an /etc of the test's own holding `files` ("name:content|name:content"; a
// name ending in "/" is a directory, which opens but cannot be read), into a record holding
// stale values: "distribution|package|major.minor.patch|description".
std::string detectWith(const std::string& files) {
    const testing::TempDir root;
    std::filesystem::create_directory(root.at("etc"));
    std::istringstream list(files);
    for (std::string file; std::getline(list, file, '|');) {
        const std::string path = root.at("etc/" + file.substr(0, file.find(':')));
        if (path.back() == '/') {
            std::filesystem::create_directory(path);
        } else {
            testing::writeFile(path, file.substr(file.find(':') + 1));
        }
    }
    OsInfo info;
    info.description = "stale";
    info.versionMajor = 3;
    internal::detectOsInfoAt(info, root.path());
    return info.getDistributionId() + "|" + info.getPackageType() + "|" +
           std::to_string(info.getVersionMajor()) + "." + std::to_string(info.getVersionMinor()) +
           "." + std::to_string(info.getVersionPatch()) + "|" + info.getDescription();
}

TEST(DetectOsInfo, TheFirstMatchingReleaseFileWins) {
    static const std::pair<const char*, const char*> kCases[] = {
        {"fedora-release:fedora RELEASE 7.1|debian_version:9",
         "FEDORA_LINUX|PACKAGE_RPM|7.1.0|fedora RELEASE 7.1"},
        {"redhat-release:CentOS Red Hat release 7.9.2009 (Core)\r\n",
         "CENTOS_LINUX|PACKAGE_RPM|7.9.2009|CentOS Red Hat release 7.9.2009 (Core)"},
        {"redhat-release:Red Hat 6.10|nuvra-vmware-va/",
         "REDHAT_LINUX|PACKAGE_RPM|6.10.0|Red Hat 6.10 (Nuvra VA)"},
        {"mandrake-release:Mandrake 10", "MANDRAKE_LINUX|PACKAGE_RPM|10.0.0|Mandrake 10"},
        {"SuSE-release:SuSE\nVERSION = 9.1", "SUSE_LINUX|PACKAGE_RPM|9.1.0|SuSE"},
        {"UnitedLinux-release:UnitedLinux 1.0", "UNITED_LINUX|PACKAGE_RPM|1.0.0|UnitedLinux 1.0"},
        {"slackware-version:14.2.1\n", "SLACKWARE_LINUX|PACKAGE_TGZ|14.2.1|14.2.1"},
        {"lsb-release:DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=16.04",
         "UBUNTU_LINUX|PACKAGE_DEB|16.4.0|Ubuntu 16.04"},
        {"lsb-release:DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=18",
         "UBUNTU_LINUX|PACKAGE_DEB|18.0.0|Ubuntu 18."},
        {"debian_version:9.4\n", "DEBIAN_LINUX|PACKAGE_DEB|9.4.0|Debian GNU/Linux 9.4"},
        {"debian_version:testing\n12.1", "DEBIAN_LINUX|PACKAGE_DEB|12.1.0|testing"},
        {"debian_version:\n7", "DEBIAN_LINUX|PACKAGE_DEB|7.0.0|Debian GNU/Linux "},
        {"debian_version:buster/sid|nuvra-vmware-va:", "LINUX|PACKAGE_OTHER|0.0.0|Linux"},
        // Unreadable and unmatched files pass on.
        {"fedora-release/|lsb-release:DISTRIB_ID=Ubuntu|debian_version:11",
         "DEBIAN_LINUX|PACKAGE_DEB|11.0.0|Debian GNU/Linux 11"},
    };
    for (const auto& [files, expected] : kCases) {
        EXPECT_EQ(detectWith(files), expected) << files;
    }
    // A file that opens but cannot be read (a directory) is searched as empty text; a pattern
    // that does not compile matches nothing.
    std::string text[4] = {"x", "x", "x", "stale"};
    EXPECT_TRUE(searchReleaseFile("/", "^$", text[0], text[1], text[2], text[3]));
    EXPECT_EQ(text[0] + text[1] + text[2] + text[3], "");
    EXPECT_FALSE(searchReleaseFile("/", "(", text[0], text[1], text[2], text[3]));
}

TEST(DetectOsInfo, TakesPlatformArchitectureAndKernelFromUname) {
    static const std::tuple<const char*, const char*, const char*> kCases[] = {
        {"i686", "2.6.32-754.el6.i686", "LINUX.X86|0|40|2.6.32"},
        {"x86_64", "6.1.0-13-amd64", "LINUX.X64|2|4000|6.1.0"},
        {"x86_64x", "5.4", "LINUX.X86|0|40|5.4"},  // only exactly x86_64 is 64-bit
        {"aarch64", "abc", "LINUX.PPC|1|40|"}};
    for (const auto& [machine, release, expected] : kCases) {
        OsInfo info;
        internal::applyUname(info, machine, release);
        std::ostringstream fields;
        fields << info.getPlatform() << '|' << info.getArchitecture() << '|' << std::hex
               << info.getOsCode() << '|' << info.getKernelVersion();
        EXPECT_EQ(fields.str(), expected);
    }
}

}  // namespace
}  // namespace nuvra::utils
