#include "nuvra/utils/host_info.h"

#include <fstab.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/utils/internal/host_info_seam.h"
#include "nuvra/testing/isolated_child_test_util.h"

namespace nuvra::utils {
namespace {

using testing::IsolatedResult;
using testing::runIsolated;

// A directory of the test's own, removed with what it holds.
struct TempDir {
    TempDir() : path(mkdtemp(pattern) != nullptr ? pattern : "") {}
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(path + "/" + name) << content;
        return path + "/" + name;
    }
    char pattern[28] = "/tmp/nuvra_host_info_XXXXXX";
    std::string path;
};

TEST(TotalMemoryTest, ReadsTheMemTotalLineInItsUnit) {
    const TempDir dir;
    const struct {
        std::string content;
        int64_t bytes;  // 0: no figure found, and false
    } cases[] = {
        {"MemTotal:       16384256 kB\nMemFree: 1 kB\n", int64_t{16384256} * 1024},
        {"MemTotal: 1000\n", 1000},
        {"MemTotal:1000", 1000},
        {"MemTotal:\t 2 MB\n", int64_t{2} << 20},
        {"MemTotal: 3 g\n", int64_t{3} << 30},
        {"MemTotal: 7 bytes\n", 7},
        {"MemFree: 9 kB\nBuffers: 1 kB\nMemTotal: 8 K\n", 8192},
        {"  MemTotal: 4 kB\n", 4096},
        {"MemTotal: 8589934592 G\n", INT64_MAX},
        {"MemFree: 9 kB\nmemtotal: 1 kB\n", 0},
        {"", 0},
        {std::string(200, 'x') + "\nMemTotal: 1\n", 0},  // a line past 127 characters ends it
    };
    for (const auto& c : cases) {
        const std::string path = dir.write("meminfo", c.content);
        int64_t bytes = -1;
        EXPECT_EQ(internal::getTotalMemoryFrom(path.c_str(), &bytes), c.bytes != 0) << c.content;
        EXPECT_EQ(bytes, c.bytes) << c.content;
    }
    int64_t bytes = -1;
    EXPECT_FALSE(internal::getTotalMemoryFrom((dir.path + "/missing").c_str(), &bytes));
    EXPECT_EQ(bytes, 0);
    EXPECT_FALSE(getTotalMemory(nullptr));
}

TEST(TotalMemoryTest, MatchesTheKernelsMemTotalLine) {
    int64_t bytes = 0;
    ASSERT_TRUE(getTotalMemory(&bytes));
    // Read plainly rather than through sysconf or sysinfo: a 32-bit C library, and qemu-user
    // for a 32-bit program, give the total in a 32-bit word that wraps past 4 GiB.
    std::ifstream meminfo("/proc/meminfo");
    int64_t kib = -1;
    for (std::string line; kib < 0 && std::getline(meminfo, line);) {
        if (line.rfind("MemTotal:", 0) == 0) {
            kib = std::strtoll(line.c_str() + 9, nullptr, 10);  // "MemTotal:  25678 kB"
        }
    }
    ASSERT_GT(kib, 0);
    EXPECT_EQ(bytes, kib * 1024);
}

TEST(LocaleTest, SplitsTheLocaleNameIntoLanguageAndTerritory) {
    const struct {
        const char* name;
        const char* language;
        const char* territory;
    } cases[] = {
        {"de_AT.UTF-8", "de", "AT"},
        {"fr", "fr", ""},
        {"sr_RS.UTF-8@latin", "sr", "RS"},
        {"C.UTF-8", "C", ""},
        {"languagelong_TERRITORYLONG", "language", "TERRITOR"},
        {"POSIX", "", ""},
        {nullptr, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name != nullptr ? c.name : "(null)");
        OsInfo info;
        std::strcpy(info.territory, "old");
        std::strcpy(info.defaultLanguage, "old");
        internal::setLocaleFields(info, c.name);
        EXPECT_STREQ(info.getLanguage(), c.language);
        EXPECT_STREQ(info.getTerritory(), c.territory);
        EXPECT_STREQ(info.getDefaultLanguage(), c.language);
        EXPECT_STREQ(info.getDefaultTerritory(), c.territory);
    }
}

// Each case runs in a child of its own, so the environment and locale it sets go with it.
TEST(LocaleTest, ReadsTheEnvironmentAndRestoresTheLocale) {
    static const struct {
        const char* lcAll;
        const char* expected;  // language|territory|default language|locale afterwards
    } kCases[] = {{"C", "|||C.UTF-8"},
                  {"POSIX", "|||C.UTF-8"},
                  {"C.UTF-8", "C||C|C.UTF-8"},
                  {"xx_YY.no-such-locale", "|||C.UTF-8"}};
    for (const auto& c : kCases) {
        const char* lcAll = c.lcAll;
        const IsolatedResult result = runIsolated(0, [lcAll] {
            if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) {
                return std::string("C.UTF-8 is not installed");
            }
            setenv("LC_ALL", lcAll, 1);
            OsInfo info;
            readLocale(info);
            return std::string(info.getLanguage()) + "|" + info.getTerritory() + "|" +
                   info.getDefaultLanguage() + "|" + std::setlocale(LC_ALL, nullptr);
        });
        ASSERT_TRUE(result.isolated) << result.output;
        EXPECT_EQ(result.output, c.expected) << lcAll;
    }
}

// How the sizes of the root file system relate.
std::string rootSpace() {
    int64_t available = -1;
    int64_t total = -1;
    int64_t free = -1;
    if (!getDiskSpace("/", available, total, free)) {
        return "failed";
    }
    if (total <= 0 || free > total || available > free) {
        return "out of order";
    }
    return available == free ? "all free" : "reserved";
}

// Root may use the reserved blocks, others not; a failure leaves the outputs alone.
TEST(DiskSpaceTest, ReportsTheRootFileSystem) {
    const std::string own = rootSpace();
    EXPECT_TRUE(own == "all free" || (getuid() != 0 && own == "reserved")) << own;
    const IsolatedResult nobody = runIsolated(0, [] {
        return getuid() == 0 && setuid(65534) != 0 ? std::string("setuid failed") : rootSpace();
    });
    ASSERT_TRUE(nobody.isolated) << nobody.output;
    EXPECT_TRUE(nobody.output == "all free" || nobody.output == "reserved") << nobody.output;
    int64_t available = 11;
    int64_t total = 22;
    int64_t free = 33;
    EXPECT_FALSE(getDiskSpace("/no/such/path/here", available, total, free));
    EXPECT_TRUE(available == 11 && total == 22 && free == 33);
}

// Each path looked up with a table of the test's own in place of /etc/fstab, in a private
// mount namespace, from the test's directory: "path=type;" per path, "path=-;" for false.
TEST(FileSystemTypeTest, TakesTheNearestEntryUpThePath) {
    const TempDir dir;
    const struct {
        std::string table;
        std::vector<std::string> paths;
        std::string expected;
    } cases[] = {
        {"# test table\n/dev/sda1 / ext4 defaults 0 1\n/dev/sda2 /home xfs defaults 0 2\n"
         "/dev/sda3 " +
             dir.path + " btrfs defaults 0 2\n",
         {"/home/user/file", "/home", "/homework/x", "/", "sub/file", ".", dir.path + "/a/b"},
         "/home/user/file=xfs;/home=xfs;/homework/x=ext4;/=ext4;sub/file=btrfs;.=btrfs;" +
             dir.path + "/a/b=btrfs;"},
        {"/dev/sda2 /home xfs defaults 0 2\n",
         {"/home/u", "/usr/bin", "/", "sub"},
         "/home/u=xfs;/usr/bin=-;/=-;sub=-;"},
    };
    for (const auto& c : cases) {
        const std::string table = dir.write("fstab", c.table);
        const IsolatedResult result = runIsolated(CLONE_NEWNS, [&] {
            endfsent();  // Drop a table a former call may have left open.
            if (mount(table.c_str(), "/etc/fstab", nullptr, MS_BIND, nullptr) != 0) {
                return std::string("bind mount: ") + std::strerror(errno);
            }
            if (chdir(dir.path.c_str()) != 0) {
                return std::string("chdir: ") + std::strerror(errno);
            }
            std::string out;
            for (const std::string& path : c.paths) {
                std::string type = "-";
                (void)getFileSystemType(path.c_str(), type);
                out.append(path).append("=").append(type).append(";");
            }
            return out;
        });
        if (!result.isolated) {
            GTEST_SKIP() << "no private mount namespace for a table of our own: " << result.output;
        }
        EXPECT_EQ(result.output, c.expected);
    }
    std::string type = "unchanged";
    EXPECT_FALSE(getFileSystemType(nullptr, type));
    EXPECT_EQ(type, "unchanged");
}

TEST(HostNameTest, IsTheNodeNameCopiedBounded) {
    struct utsname names = {};
    ASSERT_EQ(uname(&names), 0);
    const std::string node = names.nodename;
    EXPECT_EQ(getHostName(), node);
    char small[4] = {'#', '#', '#', '#'};
    getHostName(small, sizeof small);
    EXPECT_EQ(std::string(small), node.substr(0, 3));
    char untouched = '#';
    getHostName(&untouched, 0);
    EXPECT_EQ(untouched, '#');
}

// With a private host name, in a network namespace of its own: "string form|buffer form".
TEST(HostNameTest, FullNameIsTheCanonicalNameOrTheMarker) {
    static const struct {
        const char* node;
        const char* expected;
    } kCases[] = {{"localhost", "localhost|localhost"},
                  {"nuvra-unknown-node.invalid", "|unspecified.host"}};
    for (const auto& c : kCases) {
        const std::string node = c.node;
        const IsolatedResult result = runIsolated(CLONE_NEWUTS | CLONE_NEWNET, [&node] {
            if (sethostname(node.c_str(), node.size()) != 0) {
                return std::string("sethostname: ") + std::strerror(errno);
            }
            char buf[64];
            getFullHostName(buf, sizeof buf);
            return getFullHostName() + "|" + buf;
        });
        if (!result.isolated) {
            GTEST_SKIP() << "no private host name and network namespace: " << result.output;
        }
        EXPECT_EQ(result.output, c.expected);
    }
}

TEST(InterfaceTest, LocalAddressesAreAppendedAndIncludeLoopback) {
    std::vector<Inet4Address> addresses = {Inet4Address(0x01020304)};
    ASSERT_TRUE(getLocalAddresses(addresses));
    ASSERT_GE(addresses.size(), 2U);
    EXPECT_EQ(addresses[0].toString(), "1.2.3.4");
    bool loopback = false;
    for (const Inet4Address& a : addresses) {
        loopback = loopback || a.toString() == "127.0.0.1";
    }
    EXPECT_TRUE(loopback);
}

TEST(InterfaceTest, MacAddressesAreUpperCaseHexAndSkipLoopback) {
    std::map<std::string, std::string> macs = {{"stale", "x"}};
    ASSERT_TRUE(getMacAddresses(macs));
    EXPECT_EQ(macs.count("stale"), 0U);
    EXPECT_EQ(macs.count("lo"), 0U);  // all zero
    const std::regex shape("([0-9A-F]{2}:){5}[0-9A-F]{2}");
    for (const auto& [name, text] : macs) {
        EXPECT_TRUE(std::regex_match(text, shape)) << name << " " << text;
        EXPECT_NE(text, "00:00:00:00:00:00") << name;
    }
}

// 20 veth pairs, each end with one address and a known MAC: 40 interface records, more than
// the 30 first offered to the kernel and the 32 that getMacAddresses reads.
TEST(InterfaceTest, ManyInterfacesGrowTheAddressListButNotTheMacList) {
    const TempDir dir;
    std::string batch;
    for (int i = 1; i <= 20; ++i) {
        char line[200];
        (void)std::snprintf(line, sizeof line,
                            "link add a%d address 02:00:00:00:0a:%02x type veth peer name b%d "
                            "address 02:00:00:00:0b:%02x\naddr add 10.1.0.%d/32 dev a%d\n"
                            "addr add 10.2.0.%d/32 dev b%d\n",
                            i, i, i, i, i, i, i, i);
        batch += line;
    }
    const std::string batchFile = dir.write("batch", batch);
    const IsolatedResult result = runIsolated(CLONE_NEWNET, [&batchFile] {
        const char* argv[] = {"ip", "-batch", batchFile.c_str(), nullptr};
        pid_t pid = 0;
        int status = 0;
        if (posix_spawnp(&pid, "ip", nullptr, nullptr, const_cast<char* const*>(argv), environ) !=
                0 ||
            waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            return std::string("skip: ip could not make the interfaces");
        }
        std::vector<Inet4Address> addresses;
        std::map<std::string, std::string> macs;
        if (!getLocalAddresses(addresses) || !getMacAddresses(macs)) {
            return std::string("failed");
        }
        int listed = 0;
        for (const Inet4Address& a : addresses) {
            listed += a.toString().rfind("10.", 0) == 0 ? 1 : 0;
        }
        int matching = 0;
        for (const auto& [name, text] : macs) {
            char expected[18];
            (void)std::snprintf(expected, sizeof expected, "02:00:00:00:0%c:%02lX",
                                name[0] == 'a' ? 'A' : 'B',
                                std::strtol(name.c_str() + 1, nullptr, 10));
            matching += text == expected ? 1 : 0;
        }
        return std::to_string(listed) + " addresses, " + std::to_string(macs.size()) + " MACs, " +
               std::to_string(matching) + " as set";
    });
    if (!result.isolated || result.output.rfind("skip: ", 0) == 0) {
        GTEST_SKIP() << "no private network namespace with veth interfaces: " << result.output;
    }
    EXPECT_EQ(result.output, "40 addresses, 32 MACs, 32 as set");
}

TEST(LastErrorTest, SetsAndReadsErrno) {
    EXPECT_EQ(setLastError(EAGAIN), &errno);
    EXPECT_EQ(getLastError(), EAGAIN);
    errno = 0;
    EXPECT_EQ(getLastError(), 0);
}

}  // namespace
}  // namespace nuvra::utils
