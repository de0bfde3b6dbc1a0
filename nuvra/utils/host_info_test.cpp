#include "nuvra/utils/host_info.h"

#include <fstab.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
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
#include "nuvra/utils/internal/isolated_child.h"

namespace nuvra::utils {
namespace {

using internal::IsolatedResult;
using internal::runIsolated;

// A directory of the test's own, removed with what it holds.
class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/nuvra_host_info_XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string write(const std::string& name, const std::string& content) const {
        std::string file = path_ + "/" + name;
        std::ofstream(file) << content;
        return file;
    }

  private:
    std::string path_;
};

// ---- total memory ----

TEST(TotalMemoryTest, ReadsTheMemTotalLineInItsUnit) {
    const TempDir dir;
    const struct {
        const char* content;
        int64_t bytes;
    } cases[] = {
        {"MemTotal:       16384256 kB\nMemFree: 1 kB\n", int64_t{16384256} * 1024},
        {"MemTotal: 1000\n", 1000},
        {"MemTotal:1000", 1000},
        {"MemTotal:\t 2 MB\n", int64_t{2} << 20},
        {"MemTotal: 3 g\n", int64_t{3} << 30},
        {"MemTotal: 5 m\n", int64_t{5} << 20},
        {"MemTotal: 7 bytes\n", 7},
        {"MemFree: 9 kB\nBuffers: 1 kB\nMemTotal: 8 K\n", 8192},
        {"  MemTotal: 4 kB\n", 4096},
        {"MemTotal: 8589934592 G\n", INT64_MAX},
    };
    for (const auto& c : cases) {
        const std::string path = dir.write("meminfo", c.content);
        int64_t bytes = -1;
        EXPECT_TRUE(internal::getTotalMemoryFrom(path.c_str(), &bytes)) << c.content;
        EXPECT_EQ(bytes, c.bytes) << c.content;
    }
}

TEST(TotalMemoryTest, FailsWithZeroWithoutAMemTotalLine) {
    const TempDir dir;
    const std::string longLine(200, 'x');
    const struct {
        const char* what;
        std::string path;
    } cases[] = {
        {"no such line", dir.write("a", "MemFree: 9 kB\nmemtotal: 1 kB\n")},
        {"empty file", dir.write("b", "")},
        {"a line past 127 characters ends the search",
         dir.write("c", longLine + "\nMemTotal: 1\n")},
        {"missing file", dir.path() + "/missing"},
    };
    for (const auto& c : cases) {
        int64_t bytes = -1;
        EXPECT_FALSE(internal::getTotalMemoryFrom(c.path.c_str(), &bytes)) << c.what;
        EXPECT_EQ(bytes, 0) << c.what;
    }
    EXPECT_FALSE(getTotalMemory(nullptr));
}

TEST(TotalMemoryTest, MatchesTheKernelsMemTotalLine) {
    int64_t bytes = 0;
    ASSERT_TRUE(getTotalMemory(&bytes));
    // Read plainly rather than through sysconf or sysinfo: a 32-bit C library, and qemu-user
    // for a 32-bit program, give the total in a 32-bit word that wraps past 4 GiB.
    std::ifstream meminfo("/proc/meminfo");
    std::string line;
    int64_t kib = -1;
    const std::string head = "MemTotal:";
    while (std::getline(meminfo, line)) {
        if (line.compare(0, head.size(), head) == 0) {
            kib = std::strtoll(line.c_str() + head.size(), nullptr, 10);  // "...  25678 kB"
            break;
        }
    }
    ASSERT_GT(kib, 0);
    EXPECT_EQ(bytes, kib * 1024);
}

// ---- locale ----

TEST(LocaleTest, SplitsTheLocaleNameIntoLanguageAndTerritory) {
    const struct {
        const char* name;
        const char* language;
        const char* territory;
    } cases[] = {
        {"de_AT.UTF-8", "de", "AT"},
        {"fr", "fr", ""},
        {"en_US@euro", "en", "US"},
        {"sr_RS.UTF-8@latin", "sr", "RS"},
        {"C.UTF-8", "C", ""},
        {"de.UTF-8", "de", ""},
        {"languagelong_TERRITORYLONG", "language", "TERRITOR"},
        {"C", "", ""},
        {"POSIX", "", ""},
        {nullptr, "", ""},
    };
    for (const auto& c : cases) {
        OsInfo info;
        std::strcpy(info.territory, "old");
        std::strcpy(info.defaultLanguage, "old");
        internal::setLocaleFields(info, c.name);
        const char* label = c.name != nullptr ? c.name : "(null)";
        EXPECT_STREQ(info.getLanguage(), c.language) << label;
        EXPECT_STREQ(info.getTerritory(), c.territory) << label;
        EXPECT_STREQ(info.getDefaultLanguage(), c.language) << label;
        EXPECT_STREQ(info.getDefaultTerritory(), c.territory) << label;
    }
}

// Each case runs in a child of its own, so the environment and locale it sets go with it.
TEST(LocaleTest, ReadsTheEnvironmentAndRestoresTheLocale) {
    const struct {
        const char* lcAll;
        const char* language;
    } cases[] = {
        {"C", ""},
        {"POSIX", ""},
        {"C.UTF-8", "C"},
        {"xx_YY.no-such-locale", ""},
    };
    for (const auto& c : cases) {
        const IsolatedResult result = runIsolated(0, [&c] {
            if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) {
                return std::string("C.UTF-8 is not installed");
            }
            setenv("LC_ALL", c.lcAll, 1);
            OsInfo info;
            readLocale(info);
            return std::string(info.getLanguage()) + "|" + info.getTerritory() + "|" +
                   info.getDefaultLanguage() + "|" + std::setlocale(LC_ALL, nullptr);
        });
        ASSERT_TRUE(result.isolated) << result.output;
        EXPECT_EQ(result.output, std::string(c.language) + "||" + c.language + "|C.UTF-8")
            << c.lcAll;
    }
}

// ---- disk space ----

TEST(DiskSpaceTest, ReportsTheRootFileSystem) {
    int64_t available = -1;
    int64_t total = -1;
    int64_t free = -1;
    ASSERT_TRUE(getDiskSpace("/", available, total, free));
    EXPECT_GT(total, 0);
    EXPECT_LE(free, total);
    if (getuid() == 0) {
        EXPECT_EQ(available, free) << "root may use the reserved blocks";
    }
    EXPECT_LE(available, free);
}

TEST(DiskSpaceTest, OrdinaryUserSeesNoMoreThanTheFreeSpace) {
    const IsolatedResult result = runIsolated(0, [] {
        if (getuid() == 0 && setuid(65534) != 0) {
            return std::string("setuid failed");
        }
        int64_t available = -1;
        int64_t total = -1;
        int64_t free = -1;
        if (!getDiskSpace("/", available, total, free)) {
            return std::string("failed");
        }
        return std::string(available <= free && free <= total ? "ok" : "sizes out of order");
    });
    ASSERT_TRUE(result.isolated) << result.output;
    EXPECT_EQ(result.output, "ok");
}

TEST(DiskSpaceTest, FailureLeavesTheOutputsAlone) {
    int64_t available = 11;
    int64_t total = 22;
    int64_t free = 33;
    EXPECT_FALSE(getDiskSpace("/no/such/path/here", available, total, free));
    EXPECT_EQ(available, 11);
    EXPECT_EQ(total, 22);
    EXPECT_EQ(free, 33);
}

// ---- file-system type ----

// Looks up each path with `table` in place of /etc/fstab, in a private mount namespace,
// from the working directory `cwd`. Gives "path=type;" per path, "path=-;" for false.
IsolatedResult typesWithTable(const std::string& tableFile, const std::string& cwd,
                              const std::vector<std::string>& paths) {
    return runIsolated(CLONE_NEWNS, [&] {
        endfsent();  // Drop a table a former call may have left open.
        if (mount(tableFile.c_str(), "/etc/fstab", nullptr, MS_BIND, nullptr) != 0) {
            return std::string("bind mount: ") + std::strerror(errno);
        }
        if (chdir(cwd.c_str()) != 0) {
            return std::string("chdir: ") + std::strerror(errno);
        }
        std::string out;
        for (const std::string& path : paths) {
            std::string type = "-";
            (void)getFileSystemType(path.c_str(), type);
            out.append(path).append("=").append(type).append(";");
        }
        return out;
    });
}

TEST(FileSystemTypeTest, TakesTheNearestEntryUpThePath) {
    const TempDir dir;
    const std::string table =
        dir.write("fstab",
                  "# test table\n/dev/sda1 / ext4 defaults 0 1\n/dev/sda2 /home xfs defaults 0 2\n"
                  "/dev/sda3 " +
                      dir.path() + " btrfs defaults 0 2\n");
    const IsolatedResult result =
        typesWithTable(table, dir.path(),
                       {"/home/user/file", "/home", "/homework/x", "/", "/usr/bin/env", "sub/file",
                        ".", dir.path() + "/a/b"});
    if (!result.isolated) {
        GTEST_SKIP() << "no private mount namespace for a table of our own: " << result.output;
    }
    EXPECT_EQ(result.output,
              "/home/user/file=xfs;/home=xfs;/homework/x=ext4;/=ext4;"
              "/usr/bin/env=ext4;sub/file=btrfs;.=btrfs;" +
                  dir.path() + "/a/b=btrfs;");
}

TEST(FileSystemTypeTest, FailsWhenNoEntryHoldsThePath) {
    const TempDir dir;
    const std::string table = dir.write("fstab", "/dev/sda2 /home xfs defaults 0 2\n");
    const IsolatedResult result = typesWithTable(table, "/", {"/home/u", "/usr/bin", "/", "etc"});
    if (!result.isolated) {
        GTEST_SKIP() << "no private mount namespace for a table of our own: " << result.output;
    }
    EXPECT_EQ(result.output, "/home/u=xfs;/usr/bin=-;/=-;etc=-;");
}

TEST(FileSystemTypeTest, NullPathFails) {
    std::string type = "unchanged";
    EXPECT_FALSE(getFileSystemType(nullptr, type));
    EXPECT_EQ(type, "unchanged");
}

// ---- host name ----

std::string nodeName() {
    struct utsname names = {};
    return uname(&names) == 0 ? names.nodename : "";
}

TEST(HostNameTest, IsTheNodeNameCopiedBounded) {
    const std::string node = nodeName();
    ASSERT_FALSE(node.empty());
    EXPECT_EQ(getHostName(), node);
    char buf[256];
    getHostName(buf, sizeof buf);
    EXPECT_EQ(std::string(buf), node);
    char small[4] = {'#', '#', '#', '#'};
    getHostName(small, sizeof small);
    EXPECT_EQ(std::string(small), node.substr(0, 3));
    char untouched = '#';
    getHostName(&untouched, 0);
    EXPECT_EQ(untouched, '#');
}

// Sets the host name in a private host-name and network namespace and reports both forms
// of the full name, "string|buffer".
IsolatedResult fullNamesAs(const std::string& node) {
    return runIsolated(CLONE_NEWUTS | CLONE_NEWNET, [node] {
        if (sethostname(node.c_str(), node.size()) != 0) {
            return std::string("sethostname: ") + std::strerror(errno);
        }
        char buf[64];
        getFullHostName(buf, sizeof buf);
        return getFullHostName() + "|" + buf;
    });
}

TEST(HostNameTest, FullNameIsTheCanonicalNameOfTheNode) {
    const IsolatedResult result = fullNamesAs("localhost");
    if (!result.isolated) {
        GTEST_SKIP() << "no private host name and network namespace: " << result.output;
    }
    EXPECT_EQ(result.output, "localhost|localhost");
}

TEST(HostNameTest, UnknownNodeGivesEmptyTextOrTheMarker) {
    const IsolatedResult result = fullNamesAs("nuvra-unknown-node.invalid");
    if (!result.isolated) {
        GTEST_SKIP() << "no private host name and network namespace: " << result.output;
    }
    EXPECT_EQ(result.output, "|unspecified.host");
}

// ---- interfaces ----

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
    EXPECT_EQ(macs.count("lo"), 0U);
    const std::regex shape("([0-9A-F]{2}:){5}[0-9A-F]{2}");
    for (const auto& [name, text] : macs) {
        EXPECT_TRUE(std::regex_match(text, shape)) << name << " " << text;
        EXPECT_NE(text, "00:00:00:00:00:00") << name;
    }
}

// Runs the ip tool with `argv` and tells whether it succeeded.
bool runIp(std::vector<const char*> argv) {
    pid_t pid = 0;
    if (posix_spawnp(&pid, "ip", nullptr, nullptr, const_cast<char* const*>(argv.data()),
                     environ) != 0) {
        return false;
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
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
        if (!runIp({"ip", "-batch", batchFile.c_str(), nullptr})) {
            return std::string("skip: ip could not make the interfaces");
        }
        std::vector<Inet4Address> addresses;
        std::map<std::string, std::string> macs;
        if (!getLocalAddresses(addresses) || !getMacAddresses(macs)) {
            return std::string("failed");
        }
        int listed = 0;
        for (const Inet4Address& a : addresses) {
            const std::string text = a.toString();
            listed += text.rfind("10.1.0.", 0) == 0 || text.rfind("10.2.0.", 0) == 0 ? 1 : 0;
        }
        int matching = 0;
        for (const auto& [name, text] : macs) {
            char expected[18];
            const auto index = std::strtol(name.c_str() + 1, nullptr, 10);
            (void)std::snprintf(expected, sizeof expected, "02:00:00:00:%s:%02lX",
                                name[0] == 'a' ? "0A" : "0B", index);
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

// ---- errno ----

TEST(LastErrorTest, SetsAndReadsErrno) {
    int* where = setLastError(EAGAIN);
    EXPECT_EQ(where, &errno);
    EXPECT_EQ(getLastError(), EAGAIN);
    *where = 0;
    EXPECT_EQ(getLastError(), 0);
}

}  // namespace
}  // namespace nuvra::utils
