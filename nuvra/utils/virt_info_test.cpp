#include "nuvra/utils/virt_info.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "gtest/gtest.h"
#include "nuvra/tiny/clock.h"
#include "nuvra/tiny/internal/process_seam.h"
#include "nuvra/utils/filesystem.h"
#include "nuvra/utils/os_info.h"

namespace nuvra::utils {
namespace {

// A directory of probe scripts. Each probe appends its argument to a log, then exits with
// the code chosen for that family. The probe wait polls every 10 ms instead of every second.
class VirtProbe : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(dir_), nullptr) << std::strerror(errno);
        tiny::internal::setWaitPollMsForTesting(10);
        log_ = std::string(dir_) + "/log";
    }
    void TearDown() override {
        tiny::internal::setWaitPollMsForTesting(tiny::internal::kDefaultWaitPollMs);
        VmInfo::vmdpath.clear();
        EXPECT_EQ(removeTree(dir_), 0);
    }

    // Writes an executable probe `name` whose answer per family is a shell command ("exit 5",
    // "exec sleep 10", "kill -9 $$"); returns its path.
    std::string writeProbe(const std::string& name, const std::string& parallels,
                           const std::string& vmware, const std::string& unknownvm) {
        std::string path = std::string(dir_) + "/" + name;
        std::ofstream(path) << "#!/bin/sh\necho \"$1\" >> " << log_ << "\ncase \"$1\" in\n"
                            << "parallels) " << parallels << ";;\nvmware) " << vmware
                            << ";;\nunknownvm) " << unknownvm << ";;\nesac\nexit 99\n";
        EXPECT_EQ(chmod(path.c_str(), 0700), 0);
        return path;
    }

    // The families probed so far, in order, separated by blanks.
    std::string probed() const {
        std::ifstream in(log_);
        std::string family;
        std::string all;
        while (in >> family) {
            all += all.empty() ? family : " " + family;
        }
        return all;
    }

    char dir_[32] = "/tmp/nuvra-virt-XXXXXX";
    std::string log_;
};

TEST(VirtualizationText, CoversEveryCodeAndGivesNativeForAnyOther) {
    std::string texts;
    for (int code = -1; code <= 9; ++code) {
        texts.append(virtualizationText(code)).append("|");
    }
    EXPECT_EQ(texts,
              "Native OS|Native OS|Unknown virtual machine|VmWare (unknown version)|VmWare Express|"
              "VmWare Workstation|VmWare ESX|VmWare GSX|Parallels|Virtualization undetected|"
              "Native OS|");
}

TEST_F(VirtProbe, ExitCodesDecideTheFamilyAndDetectionStopsAtTheFirstFailure) {
    static const struct {
        const char* parallels;
        const char* vmware;
        const char* unknownvm;
        int code;
        const char* probed;
        bool isVirtual;
    } kCases[] = {
        {"exit 71", "exit 71", "exit 71", 0, "parallels vmware unknownvm", false},
        {"exit 0", "exit 71", "exit 71", 7, "parallels", true},  // only 71 means no
        {"exit 5", "exit 71", "exit 71", 7, "parallels", true},
        {"exit 71", "exit 5", "exit 71", 5, "parallels vmware", true},
        {"exit 71", "exit 2", "exit 71", 2, "parallels vmware", true},
        {"exit 71", "exit 0", "exit 71", 0, "parallels vmware", false},
        {"exit 71", "exit 9", "exit 71", 9, "parallels vmware", true},  // text "Native OS"
        {"exit 71", "exit 71", "exit 0", 1, "parallels vmware unknownvm", true},
        {"exit 71", "exit 71", "exit 3", 1, "parallels vmware unknownvm", true},
        {"exit 255", "exit 71", "exit 71", 8, "parallels", false},
        {"kill -9 $$", "exit 71", "exit 71", 8, "parallels", false},
        {"exit 71", "exit 255", "exit 71", 8, "parallels vmware", false},
        {"exit 71", "exit 71", "exit 255", 8, "parallels vmware unknownvm", false},
    };
    int index = 0;
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.parallels) + " / " + c.vmware + " / " + c.unknownvm);
        const std::string probe =
            writeProbe("probe" + std::to_string(index++), c.parallels, c.vmware, c.unknownvm);
        ASSERT_EQ(std::remove(log_.c_str()) == 0 || errno == ENOENT, true);
        VmInfo::vmdpath = probe;
        EXPECT_EQ(detectVirtualization(), c.code);
        EXPECT_EQ(probed(), c.probed);

        const VirtInfo info = VmInfo::getVirtInfo(probe);
        EXPECT_EQ(info.isVirtual, c.isVirtual);
        EXPECT_EQ(info.description, virtualizationText(c.code));
        EXPECT_EQ(VmInfo::cachedInfo.description, info.description);
        uint32_t bits = 0;
        std::memcpy(&bits, &info.confidence, sizeof bits);
        EXPECT_EQ(bits, 0x3F733333u);
    }
}

TEST_F(VirtProbe, RunVmProbePassesTheFamilyName) {
    const std::string probe = writeProbe("p", "exit 11", "exit 12", "exit 13");
    VmInfo::vmdpath = probe;
    EXPECT_EQ(runVmProbe(kParallels), 11);
    EXPECT_EQ(runVmProbe(kVmwareUnknownVersion), 12);
    EXPECT_EQ(runVmProbe(kUnknownVirtualMachine), 13);
    EXPECT_EQ(runVmProbe(kVmwareEsx), 99);  // no argument the probe knows
    EXPECT_EQ(probed(), "parallels vmware unknownvm");
}

TEST_F(VirtProbe, MissingOrHangingProbeIsUndetected) {
    const std::string missing = std::string(dir_) + "/missing";
    const VirtInfo info = VmInfo::getVirtInfo(missing);
    EXPECT_FALSE(info.isVirtual);
    EXPECT_EQ(info.description, "Virtualization undetected");
    EXPECT_FLOAT_EQ(info.confidence, 0.95F);
    EXPECT_EQ(VmInfo::vmdpath, missing);

    const std::string probe = writeProbe("hang", "exec sleep 10", "exit 71", "exit 71");
    const uint64_t start = tiny::tickClockMs();
    EXPECT_EQ(VmInfo::getVirtInfo(probe).description, "Virtualization undetected");
    const uint64_t elapsed = tiny::tickClockMs() - start;
    EXPECT_EQ(probed(), "parallels");  // killed at the limit, not tried again
    EXPECT_GT(elapsed, 2000u);
    EXPECT_LT(elapsed, 4000u);
}

TEST_F(VirtProbe, ProbePathIsResolvedAgainstTheWorkingDirectory) {
    writeProbe("vmd", "exit 71", "exit 4", "exit 71");
    ASSERT_EQ(mkdir((std::string(dir_) + "/sub").c_str(), 0700), 0);
    writeProbe("sub/probe", "exit 71", "exit 6", "exit 71");
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
    ASSERT_EQ(chdir(dir_), 0);
    const VirtInfo byDefault = VmInfo::getVirtInfo("");
    const std::string defaultPath = VmInfo::vmdpath;
    const VirtInfo relative = VmInfo::getVirtInfo("sub/probe");
    ASSERT_EQ(chdir("sub"), 0);
    // A bare name is not searched on PATH: there is no "sh" here, though PATH has one.
    const VirtInfo bareName = VmInfo::getVirtInfo("sh");
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(byDefault.description, "VmWare Workstation");
    EXPECT_EQ(defaultPath, "vmd");
    EXPECT_EQ(relative.description, "VmWare GSX");
    EXPECT_EQ(bareName.description, "Virtualization undetected");
}

TEST_F(VirtProbe, OsInfoRunsDetectionOncePerProbePath) {
    const std::string first = writeProbe("first", "exit 71", "exit 3", "exit 71");
    const std::string second = writeProbe("second", "exit 1", "exit 71", "exit 71");
    OsInfo info;
    EXPECT_EQ(info.getVirtInfo(first).description, "VmWare Express");
    EXPECT_EQ(info.getVirtInfo(first).description, "VmWare Express");
    EXPECT_EQ(probed(), "parallels vmware");
    EXPECT_TRUE(info.virtInfoValid);
    EXPECT_EQ(info.virtInfoProbePath, first);
    EXPECT_EQ(info.getVirtInfo(second).description, "Parallels");
    EXPECT_EQ(info.getVirtInfo(first).description, "VmWare Express");
    EXPECT_EQ(probed(), "parallels vmware parallels parallels vmware");
}

}  // namespace
}  // namespace nuvra::utils
