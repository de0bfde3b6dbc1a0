// SPDX-License-Identifier: Apache-2.0
// Descriptor hygiene across the library, the one place that checks it: calls that open and
// close within themselves leave nothing open, and every descriptor the library holds is
// close-on-exec while it is held, so that a program started then inherits none of them.

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <thread>

#include "gtest/gtest.h"
#include "nuvra/testing/offline_host_test_util.h"
#include "nuvra/testing/spawn_test_util.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/tiny/process.h"
#include "nuvra/utils/directory.h"
#include "nuvra/utils/filesystem.h"
#include "nuvra/utils/host_info.h"
#include "nuvra/utils/internal/host_info_seam.h"
#include "nuvra/utils/os_info.h"
#include "nuvra/utils/random_source.h"
#include "nuvra/utils/stream.h"

namespace nuvra::utils {
namespace {

// The descriptors open now but not in `before`.
std::set<int> openFds(const std::set<int>& before = {}) {
    std::set<int> fds;
    for (int fd = 0; fd < 4096; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 && before.count(fd) == 0) {
            fds.insert(fd);
        }
    }
    return fds;
}

// "fd -> target" for each of `fds` that lacks close-on-exec.
std::string withoutCloseOnExec(const std::set<int>& fds) {
    std::string found;
    for (const int fd : fds) {
        if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) {
            const std::string link = "/proc/self/fd/" + std::to_string(fd);
            found +=
                std::to_string(fd) + " -> " + std::filesystem::read_symlink(link).string() + "\n";
        }
    }
    return found;
}

// "fd -> target" for each of `fds` that a shell started now finds open.
std::string inherited(const std::set<int>& fds) {
    std::string script = "for fd in";
    for (const int fd : fds) {
        script += " " + std::to_string(fd);
    }
    script +=
        R"sh(; do [ -e /proc/$$/fd/$fd ] && echo "$fd -> $(readlink /proc/$$/fd/$fd)"; done; :)sh";
    const testing::SpawnResult lister = testing::spawnAndCapture({"/bin/sh", "-c", script});
    return lister.out + lister.err;
}

// Collects, in the child, the conditions that failed; an assertion there would go unseen.
#define NEED(condition) failed += (condition) ? "" : #condition "\n"

// On a host of its own, so that release files and the file-system table are the test's.
TEST(DescriptorHygiene, NothingLeaksAndChildrenInheritOnlyTheStandardStreams) {
    const testing::TempDir dir;
    const std::string tree = dir.at("tree");
    const std::string copy = dir.at("copy");
    std::filesystem::create_directories(tree + "/sub/deep");
    testing::writeFile(tree + "/sub/deep/a", "a");
    const std::map<std::string, std::string> etc = {{"fstab", "#\n"}, {"debian_version", "12"}};
    const auto result = testing::runOffline("node", etc, [&] {
        std::string failed;
        std::string text;
        int64_t size = 0;
        std::map<std::string, std::string> macs;
        OsInfo os;
        const std::set<int> before = openFds();
        NEED(copyFile((tree + "/sub/deep/a").c_str(), copy.c_str(), false, true) == kCopyOk);
        NEED(copyDirectory(tree.c_str(), copy + "2", true) == 0 && removeMatching(copy + "2", "a"));
        NEED(removeTree((copy + "2").c_str()) == 0 && touchFile(copy));
        NEED(RandomSource::makeUniqueId(32).size() == 32 && getTotalMemory(&size));
        // Meminfo as a FIFO, answered only once the reader's descriptor has been looked at.
        const std::string fifo = dir.at("meminfo");
        const int fd =
            mkfifo(fifo.c_str(), 0600) == 0 ? open(fifo.c_str(), O_RDWR | O_CLOEXEC) : -1;
        std::string seen = "meminfo: no descriptor seen\n";
        std::thread writer([&] {
            std::set<int> fds;
            for (int tries = 0; tries < 1000 && fds.empty(); ++tries) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                fds = openFds(before);
                fds.erase(fd);
            }
            seen = fds.empty() ? seen : withoutCloseOnExec(fds);
            seen += write(fd, "MemTotal: 1 kB\n", 15) == 15 ? "" : "meminfo: not written\n";
        });
        NEED(internal::getTotalMemoryFrom(fifo.c_str(), &size) && size == 1024);
        writer.join();
        failed += seen;
        close(fd);
        detectOsInfo(os);  // release files, the appliance marker and the locale
        NEED(os.getVersionMajor() == 12 && getMacAddresses(macs));
        NEED(tiny::runProgram("true", nullptr) == 0);
        failed += openFds() == before ? "" : "a descriptor was left open\n";

        // Held while they live, each in use; the first two are kept open on purpose.
        std::vector<Inet4Address> addresses;
        NEED(getLocalAddresses(addresses) && !getFileSystemType(tree.c_str(), text));
        NFile file;
        NEED(file.open(dir.at("file").c_str(), "w+") && file.lock() && file.puts("pending"));
        FileLock lock;
        NEED(lock.openPath(dir.at("lock").c_str(), true) && lock.lockShared());
        DirectoryReader directory;
        DirHandle* handle = openDir(tree.c_str());  // closed once the lister has run
        NEED(directory.open(tree.c_str()) && directory.readEntry() != nullptr && handle);
        DirectoryIterator walk(true, true, tree);
        RandomSource random;
        NEED(!walk.atEnd() && random.haveDevice() && random.getBytes(text, 16).size() == 16);
        using Child = tiny::ChildProcess;
        Child cat(Child::RedirectStdio | Child::RedirectStderr | Child::KillOnDestroy);
        const char* const catArgv[] = {"cat", nullptr};
        NEED(cat.start(catArgv) && cat.writeLine("ping") == 5);
        NEED(cat.readStdoutLine(text) == 5 && tiny::setOomAdjust(cat.pid(), 0));
        const std::set<int> held = openFds(before);
        failed += held.size() >= 11 ? "" : "only " + std::to_string(held.size()) + " held\n";
        failed += withoutCloseOnExec(held);
        closeDir(handle);
        return failed + inherited(held);
    });
    if (!result.isolated) {
        GTEST_SKIP() << "no private network, mount and host-name namespaces: " << result.output;
    }
    EXPECT_EQ(result.output, "");
}

}  // namespace
}  // namespace nuvra::utils
