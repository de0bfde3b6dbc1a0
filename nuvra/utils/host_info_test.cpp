// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/host_info.h"

#include <clocale>

#include "gtest/gtest.h"
#include "nuvra/testing/offline_host_test_util.h"
#include "nuvra/testing/spawn_test_util.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/utils/internal/host_info_seam.h"

namespace nuvra::utils {
namespace {

// 0 stands for none found, and false.
TEST(TotalMemory, IsTheMemTotalFigureInItsUnit) {
    const testing::TempDir dir;
    static const std::pair<std::string, int64_t> kCases[] = {
        {"MemFree: 9 kB\nMemTotal:       16384256 kB\n", int64_t{16384256} << 10},
        {"MemTotal:\t 2 mB\n", int64_t{2} << 20},
        {"MemTotal: 3 7 G", int64_t{3} << 30},  // digits and blanks before the unit are passed
        {"MemTotal: 77\n", 77},                 // no unit: bytes
        {"MemTotal: 9999999999999 g\n", INT64_MAX},
        {std::string(128, 'x') + "\nMemTotal: 1\n", 0},  // a line past 127 characters ends it
    };
    for (const auto& [content, expected] : kCases) {
        testing::writeFile(dir.at("meminfo"), content);
        int64_t bytes = -1;
        EXPECT_EQ(internal::getTotalMemoryFrom(dir.at("meminfo").c_str(), &bytes), expected != 0);
        EXPECT_EQ(bytes, expected) << content;
    }
    int64_t bytes = -1;
    EXPECT_FALSE(internal::getTotalMemoryFrom(dir.at("missing").c_str(), &bytes) || bytes != 0);
}

// language|territory|default language|default territory
std::string localeFields(const OsInfo& info) {
    return std::string(info.getLanguage()) + "|" + info.getTerritory() + "|" +
           info.getDefaultLanguage() + "|" + info.getDefaultTerritory();
}

TEST(Locale, IsSplitIntoLanguageAndTerritoryOfAtMost8Characters) {
    static const std::pair<const char*, const char*> kCases[] = {
        {"de_AT.UTF-8", "de|AT"}, {"sr_RS.UTF-8@latin", "sr|RS"},
        {"C.UTF-8", "C|"},        {"abcdefghi_JKLMNOPQR", "abcdefgh|JKLMNOPQ"},
        {"POSIX", "|"},           {nullptr, "|"}};
    for (const auto& [name, expected] : kCases) {
        OsInfo info;
        std::strcpy(info.territory, "old");
        internal::setLocaleFields(info, name);
        EXPECT_EQ(localeFields(info), std::string(expected) + "|" + expected);
    }
}

// Root may use the blocks kept in reserve; a failure leaves the sizes alone.
TEST(DiskSpace, RootMayUseTheReservedBlocks) {
    int64_t sizes[3] = {11, 22, 33};  // available, total, free
    EXPECT_FALSE(getDiskSpace("/no/such/path", sizes[0], sizes[1], sizes[2]));
    EXPECT_EQ(sizes[0] + sizes[1] + sizes[2], 66);
    ASSERT_TRUE(getDiskSpace("/", sizes[0], sizes[1], sizes[2]));
    EXPECT_TRUE(sizes[0] <= sizes[2] && sizes[2] <= sizes[1]);
    EXPECT_TRUE(getuid() != 0 || sizes[0] == sizes[2]);
}

constexpr const char* kNull = nullptr;

// A host of the test's own: a file-system table, a hosts file that names the node, and 42
// interface records (loopback's, 40 on p, then q's), more than the 30 first offered to the
// kernel; q's lies past the 32 that getMacAddresses reads.
TEST(HostFacts, OnAHostOfItsOwn) {
    const testing::TempDir dir;
    std::string batch =
        "link set lo up\nlink add p address 2:0:0:0:0:a type veth peer name p2\n"
        "link add q type veth peer name q2\naddr add 10.0.1.1/32 dev q\n";
    for (int i = 1; i <= 40; ++i) {
        batch += "addr add 10.0.0." + std::to_string(i) + "/32 dev p\n";
    }
    const std::map<std::string, std::string> etc = {
        {"fstab", "a / ext4 0 1\nb /home xfs 0 2\nc " + dir.path() + " btrfs 0 2\n"},
        {"hosts", "10.0.0.7 node.example node\n"},
        {"ip-batch", batch}};
    const auto result = testing::runOffline("node", etc, [&dir] {
        if (chdir(dir.path().c_str()) != 0 ||
            testing::spawnAndCapture({"/sbin/ip", "-batch", "/etc/ip-batch"}).status != 0) {
            return std::string("skip: could not make the interfaces");
        }
        // The nearest table entry up a path, by mount-point text alone; relative from here.
        std::string out = "types:";
        for (const char* path : {"/home/user/file", "/homework/x", "/", "sub/file", kNull}) {
            std::string type = "none";
            (void)getFileSystemType(path, type);
            out += " " + type;
        }
        // Names copied bounded; the string forms give "" for an unknown node.
        char buffer[6] = "#####";
        getHostName(buffer, 3);
        getHostName(&buffer[3], 0);
        out +=
            "\nnames: " + getHostName() + " " + buffer + "/" + &buffer[3] + " " + getFullHostName();
        (void)sethostname("other", 5);
        getFullHostName(buffer, sizeof buffer);
        out += " [" + getFullHostName() + "] " + buffer;
        // The environment's locale is read, and the one in force before put back.
        OsInfo info;
        setenv("LC_ALL", "C.UTF-8", 1);
        readLocale(info);
        out += "\nlocale: " + localeFields(info) + " in " + std::setlocale(LC_ALL, nullptr);
        // Addresses are appended; MACs replace the map and leave out all-zero ones (loopback).
        std::vector<Inet4Address> addresses = {Inet4Address(0x01020304)};
        std::map<std::string, std::string> macs = {{"lo", "stale"}};
        out += getLocalAddresses(addresses) && getMacAddresses(macs) ? "\n" : "\nfailed ";
        out += std::to_string(addresses.size()) + " addresses from " + addresses[0].toString() +
               ", " + addresses[1].toString() + "; " + std::to_string(macs.size()) + " MAC, p " +
               macs["p"];
        return out;
    });
    if (!result.isolated || result.output.rfind("skip: ", 0) == 0) {
        GTEST_SKIP() << "no private host with interfaces of its own: " << result.output;
    }
    EXPECT_EQ(
        result.output,
        "types: xfs ext4 ext4 btrfs none\nnames: node no/## node.example [] unspe\n"
        "locale: C||C| in C\n43 addresses from 1.2.3.4, 127.0.0.1; 1 MAC, p 02:00:00:00:00:0A");
}

}  // namespace
}  // namespace nuvra::utils
