#include "nuvra/utils/os_info.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "gtest/gtest.h"
#include "nuvra/utils/filesystem.h"
#include "nuvra/utils/host_info.h"
#include "nuvra/utils/internal/os_info_seam.h"

namespace nuvra::utils {
namespace {

// A directory standing in for the file-system root; each test writes the /etc it needs.
class OsInfoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(root_), nullptr) << std::strerror(errno);
        ASSERT_EQ(mkdir((std::string(root_) + "/etc").c_str(), 0700), 0);
    }
    void TearDown() override { EXPECT_EQ(removeTree(root_), 0); }

    // Writes "<root>/etc/<name>" holding `content`; returns its path.
    std::string write(const std::string& name, const std::string& content) {
        std::string path = std::string(root_) + "/etc/" + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    // Empties <root>/etc again.
    void clearEtc() {
        const std::string etc = std::string(root_) + "/etc";
        ASSERT_EQ(removeTree(etc.c_str()), 0);
        ASSERT_EQ(mkdir(etc.c_str(), 0700), 0);
    }

    OsInfo detect() {
        OsInfo info;
        internal::detectOsInfoAt(info, root_);
        return info;
    }

    char root_[32] = "/tmp/nuvra-osinfo-XXXXXX";
};

// Distribution id, package type, version and description, separated by "|".
std::string release(const OsInfo& info) {
    return info.getDistributionId() + "|" + info.getPackageType() + "|" +
           std::to_string(info.getVersionMajor()) + "." + std::to_string(info.getVersionMinor()) +
           "." + std::to_string(info.getVersionPatch()) + "|" + info.getDescription();
}

TEST_F(OsInfoTest, RecognisesEachReleaseFile) {
    static const struct {
        const char* file;
        const char* content;
        const char* expected;
    } kCases[] = {
        {"fedora-release", "Fedora release 38 (Thirty Eight)\n",
         "FEDORA_LINUX|PACKAGE_RPM|38.0.0|Fedora release 38 (Thirty Eight)"},
        {"fedora-release", "fedora RELEASE 7.1\n",
         "FEDORA_LINUX|PACKAGE_RPM|7.1.0|fedora RELEASE 7.1"},
        // "." crosses line breaks; the description is the first line only.
        {"fedora-release", "Fedora\nrelease 21\n", "FEDORA_LINUX|PACKAGE_RPM|21.0.0|Fedora"},
        {"redhat-release", "CentOS Linux release 7.9.2009 (Core)\n",
         "CENTOS_LINUX|PACKAGE_RPM|7.9.2009|CentOS Linux release 7.9.2009 (Core)"},
        {"redhat-release", "CentOS release 6.5 (Final)\r\n",
         "CENTOS_LINUX|PACKAGE_RPM|6.5.0|CentOS release 6.5 (Final)"},
        {"redhat-release", "Red Hat Enterprise Linux Server release 6.10 (Santiago)",
         "REDHAT_LINUX|PACKAGE_RPM|6.10.0|Red Hat Enterprise Linux Server release 6.10 (Santiago)"},
        {"mandrake-release", "Mandrake Linux release 10.0 (Community) for i586\n",
         "MANDRAKE_LINUX|PACKAGE_RPM|10.0.0|Mandrake Linux release 10.0 (Community) for i586"},
        {"SuSE-release", "SuSE Linux 9.1 (i586)\nVERSION = 9.1\n",
         "SUSE_LINUX|PACKAGE_RPM|9.1.0|SuSE Linux 9.1 (i586)"},
        {"UnitedLinux-release", "UnitedLinux 1.0 (i586)\r\nVERSION = 1.0\r\n",
         "UNITED_LINUX|PACKAGE_RPM|1.0.0|UnitedLinux 1.0 (i586)"},
        {"slackware-version", "14.2.1\n", "SLACKWARE_LINUX|PACKAGE_TGZ|14.2.1|14.2.1"},
        {"lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=16.04\nDISTRIB_CODENAME=xenial\n",
         "UBUNTU_LINUX|PACKAGE_DEB|16.4.0|Ubuntu 16.04"},
        {"lsb-release", "DISTRIB_ID=Ubuntu\r\nDISTRIB_RELEASE=18\r\n",
         "UBUNTU_LINUX|PACKAGE_DEB|18.0.0|Ubuntu 18."},
        {"lsb-release", "#generated=by hand\nDISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=20.04.6\n",
         "UBUNTU_LINUX|PACKAGE_DEB|20.4.6|by hand 20.04"},
        {"debian_version", "9.4\n", "DEBIAN_LINUX|PACKAGE_DEB|9.4.0|Debian GNU/Linux 9.4"},
        // "^" matches at any line start; a first line not starting with a digit is kept.
        {"debian_version", "testing\n12.1\n", "DEBIAN_LINUX|PACKAGE_DEB|12.1.0|testing"},
        {"debian_version", "\n7\n", "DEBIAN_LINUX|PACKAGE_DEB|7.0.0|Debian GNU/Linux "},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.file) + ": " + c.content);
        clearEtc();
        write(c.file, c.content);
        EXPECT_EQ(release(detect()), c.expected);
    }
}

TEST_F(OsInfoTest, FilesThatMatchNoRowKeepTheDefaults) {
    static const struct {
        const char* file;
        const char* content;
    } kCases[] = {
        {"debian_version", "buster/sid\n"},
        {"debian_version", ""},
        {"slackware-version", "Slackware 14.2\n"},  // the version must start a line
        {"lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_CODENAME=xenial\n"},
        {"lsb-release", "DISTRIB_ID=LinuxMint\nDISTRIB_RELEASE=21\n"},
        {"redhat-release", "Rocky Linux release 9.2\n"},
        {"fedora-release", "Fedora release rawhide\n"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.file) + ": " + c.content);
        clearEtc();
        write(c.file, c.content);
        write("nuvra-vmware-va", "");  // looked for only after a match
        EXPECT_EQ(release(detect()), "LINUX|PACKAGE_OTHER|0.0.0|Linux");
    }
}

TEST_F(OsInfoTest, EarlierRowsWinAndFailedOrUnreadableRowsPassOnToTheNext) {
    static const struct {
        const char* files[2][2];
        const char* id;
    } kCases[] = {
        {{{"fedora-release", "Fedora release 30\n"},
          {"redhat-release", "Red Hat Enterprise Linux release 8.0\n"}},
         "FEDORA_LINUX"},
        {{{"redhat-release", "CentOS Red Hat release 8.0\n"}, {"debian_version", "9\n"}},
         "CENTOS_LINUX"},
        {{{"lsb-release", "DISTRIB_ID=Ubuntu\n"}, {"debian_version", "11.2\n"}}, "DEBIAN_LINUX"},
        {{{"fedora-release", "Fedora\n"}, {"slackware-version", "15.0\n"}}, "SLACKWARE_LINUX"},
        // A directory opens but cannot be read.
        {{{"fedora-release", nullptr}, {"redhat-release", "Red Hat Linux release 9\n"}},
         "REDHAT_LINUX"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.id);
        clearEtc();
        for (const auto& file : c.files) {
            if (file[1] == nullptr) {
                ASSERT_EQ(mkdir((std::string(root_) + "/etc/" + file[0]).c_str(), 0700), 0);
            } else {
                write(file[0], file[1]);
            }
        }
        EXPECT_EQ(detect().getDistributionId(), c.id);
    }
}

TEST_F(OsInfoTest, ApplianceSuffixFollowsAMatch) {
    EXPECT_FALSE(internal::isVirtualApplianceAt(root_));
    write("redhat-release", "Red Hat Enterprise Linux release 8.0\n");
    ASSERT_EQ(mkdir((std::string(root_) + "/etc/nuvra-vmware-va").c_str(), 0700), 0);
    EXPECT_TRUE(internal::isVirtualApplianceAt(root_));  // any type of file counts
    EXPECT_EQ(detect().getDescription(), "Red Hat Enterprise Linux release 8.0 (Nuvra VA)");
}

// Platform, architecture, OS code (in hexadecimal) and kernel version, separated by "|".
std::string unameFields(const OsInfo& info) {
    std::ostringstream text;
    text << info.getPlatform() << '|' << info.getArchitecture() << '|' << std::hex
         << info.getOsCode() << '|' << info.getKernelVersion();
    return text.str();
}

TEST_F(OsInfoTest, FillsHostFieldsAndResetsTheRecord) {
    OsInfo info;
    info.virtInfoValid = true;
    info.versionMajor = 3;
    info.kernelVersion = "stale";
    internal::detectOsInfoAt(info, root_);

    OsInfo locale;
    readLocale(locale);
    EXPECT_STREQ(info.getLanguage(), locale.getLanguage());
    EXPECT_STREQ(info.getTerritory(), locale.getTerritory());
    EXPECT_STREQ(info.getDefaultLanguage(), locale.getLanguage());
    EXPECT_STREQ(info.getDefaultTerritory(), locale.getTerritory());
    EXPECT_EQ(info.getProcessorCount(), sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(info.getOsFamilyMask(), 0xC0C0u);
    EXPECT_FALSE(info.getVirtInfoValid());
    EXPECT_EQ(info.getVersionMajor(), 0);
    EXPECT_EQ(info.getExtraText1(), "");

    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    OsInfo expected;
    internal::applyUname(expected, name.machine, name.release);
    EXPECT_EQ(unameFields(info), unameFields(expected));
    EXPECT_FALSE(info.getKernelVersion().empty());
}

TEST(OsInfoUname, MachineAndReleaseSetPlatformArchitectureAndKernel) {
    static const struct {
        const char* machine;
        const char* release;
        const char* expected;
    } kCases[] = {
        {"i686", "2.6.32-754.el6.i686", "LINUX.X86|0|40|2.6.32"},
        {"i386", "3.2.1.4", "LINUX.X86|0|40|3.2.1"},
        {"x86_64", "6.1.0-13-amd64", "LINUX.X64|2|4000|6.1.0"},
        {"x86_64x", "5.4", "LINUX.X86|0|40|5.4"},  // only exactly x86_64 is 64-bit
        {"ppc64", "4-generic", "LINUX.PPC|1|40|4"},
        {"aarch64", "abc", "LINUX.PPC|1|40|"},
        {"armv7l", "", "LINUX.PPC|1|40|"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.machine) + " " + c.release);
        OsInfo info;
        internal::applyUname(info, c.machine, c.release);
        EXPECT_EQ(unameFields(info), c.expected);
    }
}

TEST_F(OsInfoTest, SearchAndMatchReleaseFile) {
    const std::string path = write("some-release", "Name 4..7\nsecond 8\n");
    std::string one = "x";
    std::string two = "x";
    std::string three = "x";
    std::string description = "untouched";
    EXPECT_FALSE(searchReleaseFile(path, "nothing (\\d+)", one, two, three, description));
    EXPECT_EQ(one + two + three, "");  // cleared even so
    EXPECT_EQ(description, "untouched");
    EXPECT_FALSE(searchReleaseFile(path, "(", one, two, three, description));
    EXPECT_FALSE(searchReleaseFile(path + ".missing", ".*", one, two, three, description));
    EXPECT_EQ(description, "untouched");

    ASSERT_TRUE(
        searchReleaseFile(path, "name (\\d+)\\.(\\d*)\\.(\\d+)", one, two, three, description));
    EXPECT_EQ(one + "|" + two + "|" + three, "4||7");
    EXPECT_EQ(description, "Name 4..7");

    // An empty capture leaves its number as it was.
    int major = 1;
    int minor = 2;
    int patch = 3;
    ASSERT_TRUE(matchReleaseFile(path, "^second (\\d+)(x)?", major, minor, patch, description));
    EXPECT_EQ(std::to_string(major) + std::to_string(minor) + std::to_string(patch), "823");
}

}  // namespace
}  // namespace nuvra::utils
