// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/virt_info.h"

#include <sys/stat.h>

#include "gtest/gtest.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/tiny/clock.h"
#include "nuvra/tiny/internal/process_seam.h"
#include "nuvra/utils/os_info_record.h"

namespace nuvra::utils {
namespace {

// A probe "vmd" that answers each family as the test's case branches say ("vmware) exit 5;;")
// and any other with 99; its wait polls every 10 ms instead of every second.
class VirtProbe : public ::testing::Test {
  protected:
    void SetUp() override { tiny::internal::setWaitPollMsForTesting(10); }
    void TearDown() override {
        tiny::internal::setWaitPollMsForTesting(tiny::internal::kDefaultWaitPollMs);
    }
    std::string probe(const std::string& answers) {
        testing::writeFile(dir_.at("vmd"), "#!/bin/sh\ncase $1 in " + answers + " esac\nexit 99\n");
        EXPECT_EQ(chmod(dir_.at("vmd").c_str(), 0700), 0);
        return dir_.at("vmd");
    }
    testing::TempDir dir_;
};

// Families are asked in order, Parallels, VMware, the rest; exit code 71 alone means "not this
// family"; the VMware probe's code names the variant; a probe that cannot be run ends detection.
TEST_F(VirtProbe, ExitCodesNameTheHypervisor) {
    static const std::pair<const char*, const char*> kCases[] = {
        {"*) exit 71;;", "Native OS"},
        {"parallels) exit 0;;", "Parallels (virtual)"},
        {"parallels) exit 71;; vmware) exit 2;;", "VmWare (unknown version) (virtual)"},
        {"parallels) exit 71;; vmware) exit 3;;", "VmWare Express (virtual)"},
        {"parallels) exit 71;; vmware) exit 4;;", "VmWare Workstation (virtual)"},
        {"parallels) exit 71;; vmware) exit 5;;", "VmWare ESX (virtual)"},
        {"parallels) exit 71;; vmware) exit 6;;", "VmWare GSX (virtual)"},
        {"parallels) exit 71;; vmware) exit 0;;", "Native OS"},
        {"parallels) exit 71;; vmware) exit 9;;", "Native OS (virtual)"},  // kept so
        {"unknownvm) exit 3;; *) exit 71;;", "Unknown virtual machine (virtual)"},
        {"parallels) exit 71;; vmware) exit 255;;", "Virtualization undetected"},
        {"unknownvm) exit 255;; *) exit 71;;", "Virtualization undetected"},
        {"parallels) kill -9 $$;;", "Virtualization undetected"},
    };
    for (const auto& [answers, expected] : kCases) {
        const VirtInfo info = VmInfo::getVirtInfo(probe(answers));
        EXPECT_EQ(info.description + (info.isVirtual ? " (virtual)" : ""), expected) << answers;
        EXPECT_EQ(VmInfo::cachedInfo.description, info.description);
        EXPECT_EQ(info.confidence, 0.95F);  // after every detection
    }
    EXPECT_EQ(runVmProbe(kVmwareEsx), 99);  // the last probe, with an argument it does not know
    EXPECT_STREQ(virtualizationText(-1), "Native OS");
}

// Through OsInfo, which detects once per probe path: the default "vmd" and any other relative
// path are taken from the working directory, never PATH; a probe past its 2 seconds is killed.
TEST_F(VirtProbe, RunsFromTheWorkingDirectoryWithinItsLimitOncePerPath) {
    probe("parallels) exec sleep 10;;");
    char saved[4096];
    ASSERT_TRUE(getcwd(saved, sizeof saved) != nullptr && chdir(dir_.path().c_str()) == 0);
    OsInfo info;
    const uint64_t start = tiny::tickClockMs();
    std::string out = info.getVirtInfo("").description + ", " + VmInfo::vmdpath + ", ";
    out += info.getVirtInfo("").description + ", ";
    const uint64_t elapsed = tiny::tickClockMs() - start;
    out += info.getVirtInfo("sh").description + ", " + VmInfo::vmdpath;
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(out,
              "Virtualization undetected, vmd, Virtualization undetected, "
              "Virtualization undetected, sh");
    EXPECT_TRUE(elapsed > 2000 && elapsed < 3000) << elapsed;
}

}  // namespace
}  // namespace nuvra::utils
