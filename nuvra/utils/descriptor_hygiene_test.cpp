// Descriptor hygiene across the library: with every module that opens files, directories,
// devices, sockets or pipes holding them open (and after the ones that open and close on
// their own), a child process must inherit nothing beyond standard input, output and error.
// That includes the socket getLocalAddresses keeps open on purpose, and the children the
// library starts itself.
//
// The child looks for itself: a shell tests, for every descriptor number open in the parent,
// whether that number is open in the child too, and prints those that are.

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/crypto/stream_digest.h"
#include "nuvra/tiny/process.h"
#include "nuvra/utils/directory.h"
#include "nuvra/utils/filesystem.h"
#include "nuvra/utils/host_info.h"
#include "nuvra/utils/inet_address.h"
#include "nuvra/testing/isolated_child_test_util.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/utils/os_info.h"
#include "nuvra/utils/random_source.h"
#include "nuvra/utils/stream.h"

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;

// The descriptors this process holds open now.
std::set<int> openFds() {
    std::set<int> fds;
    std::error_code error;
    // The iterator's own descriptor is gone again by the time the set is returned.
    for (const auto& entry : stdfs::directory_iterator("/proc/self/fd", error)) {
        fds.insert(std::stoi(entry.path().filename().string()));
    }
    std::set<int> stillOpen;
    for (const int fd : fds) {
        if (fcntl(fd, F_GETFD) != -1) {
            stillOpen.insert(fd);
        }
    }
    return stillOpen;
}

std::string readAll(int fd) {
    std::string text;
    char buffer[512];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        text.append(buffer, static_cast<size_t>(n > 0 ? n : 0));
    }
    return text;
}

// The descriptors in `now` that are not in `before`.
std::set<int> added(const std::set<int>& before, const std::set<int>& now) {
    std::set<int> fds;
    for (const int fd : now) {
        if (before.count(fd) == 0) {
            fds.insert(fd);
        }
    }
    return fds;
}

// The arguments of a shell that prints "fd -> target" for each of `fds` that is open in it.
// With `outputPath` it writes there instead of to its standard output.
std::vector<std::string> listerArguments(const std::set<int>& fds, const std::string& outputPath) {
    std::string script =
        "for fd; do [ -e /proc/$$/fd/$fd ] && echo \"$fd -> $(readlink /proc/$$/fd/$fd)\"; done; "
        "exit 0";
    if (!outputPath.empty()) {
        script.insert(0, "exec >'" + outputPath + "'; ");
    }
    std::vector<std::string> args = {"/bin/sh", "-c", script, "sh"};
    for (const int fd : fds) {
        args.push_back(std::to_string(fd));
    }
    return args;
}

std::vector<char*> argvOf(std::vector<std::string>& args) {
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    return argv;
}

// Starts the lister with posix_spawn and returns what it printed. A failure to start it, or
// a failing exit, comes back as text too: callers expect "", and this also serves from a
// forked child, where a test assertion would go unseen.
std::string inheritedInChild(const std::set<int>& fds) {
    std::vector<std::string> args = listerArguments(fds, "");
    std::vector<char*> argv = argvOf(args);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        return std::string("pipe2: ") + std::strerror(errno);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    pid_t pid = -1;
    const int spawnError = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    std::string listing = readAll(out[0]);
    close(out[0]);
    if (spawnError != 0) {
        return std::string("posix_spawn: ") + std::strerror(spawnError);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        listing += "lister ended with wait status " + std::to_string(status);
    }
    return listing;
}

// The descriptors `pid` holds, each with its target.
std::map<int, std::string> descriptorsOf(pid_t pid) {
    std::map<int, std::string> fds;
    std::error_code error;
    for (const auto& entry :
         stdfs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
        fds[std::stoi(entry.path().filename().string())] =
            stdfs::read_symlink(entry.path(), error).string();
    }
    return fds;
}

std::string describe(const std::map<int, std::string>& fds) {
    std::ostringstream text;
    for (const auto& [fd, target] : fds) {
        text << fd << " -> " << target << "\n";
    }
    return text.str();
}

class DescriptorHygieneTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char work[] = "/tmp/nuvra_fds_XXXXXX";
        ASSERT_NE(mkdtemp(work), nullptr) << std::strerror(errno);
        root_ = work;
        ASSERT_EQ(mkdir(at("tree").c_str(), 0700), 0);
        ASSERT_EQ(mkdir(at("tree/sub").c_str(), 0700), 0);
        ASSERT_EQ(mkdir(at("tree/sub/deep").c_str(), 0700), 0);
        for (const char* name : {"tree/a.txt", "tree/sub/b.txt", "tree/sub/deep/c.txt"}) {
            std::ofstream(at(name)) << name;
        }
    }
    void TearDown() override { stdfs::remove_all(root_); }

    std::string at(const std::string& name) const { return root_ + "/" + name; }

    std::string root_;
};

TEST_F(DescriptorHygieneTest, ChildInheritsOnlyTheStandardStreams) {
    // Whatever the test runner left open is not the library's doing.
    const std::set<int> before = openFds();

    // Modules that open and close within one call: nothing may stay behind.
    ASSERT_EQ(copyFile(at("tree/a.txt").c_str(), at("copy.txt").c_str(), false, true), kCopyOk);
    ASSERT_EQ(copyDirectory(at("tree").c_str(), at("tree-copy"), true), 0);
    ASSERT_TRUE(removeMatching(at("tree-copy"), ".*\\.txt"));
    ASSERT_EQ(removeTree(at("tree-copy").c_str()), 0);
    ASSERT_TRUE(touchFile(at("copy.txt")));
    EXPECT_EQ(RandomSource::makeUniqueId(32).size(), 32U);
    EXPECT_EQ(openFds(), before) << "a descriptor was left open";

    // Modules that hold descriptors while they live, each in use.
    NFile file;
    ASSERT_TRUE(file.open(at("file.txt").c_str(), "w+"));
    ASSERT_TRUE(file.lock());
    ASSERT_TRUE(file.puts("pending output"));
    NFile reader;
    ASSERT_TRUE(reader.open(at("tree/a.txt").c_str(), NFile::kRead, NFile::kOpenExisting));
    char byte = 0;
    ASSERT_EQ(reader.read(&byte, 1), 1U);

    FileLock lock;
    ASSERT_TRUE(lock.openPath(at("lockfile").c_str(), true));
    ASSERT_TRUE(lock.lockShared());

    DirectoryReader directory;
    ASSERT_TRUE(directory.open(at("tree").c_str()));
    ASSERT_NE(directory.readEntry(), nullptr);
    DirHandle* handle = openDir(at("tree/sub").c_str());
    ASSERT_NE(handle, nullptr);

    // Mid-walk, three levels deep: one open directory per level.
    DirectoryIterator walk(true, true, at("tree"));
    while (!walk.atEnd() && walk.currentPath().find("/deep/") == std::string::npos) {
        walk.next();
    }
    ASSERT_FALSE(walk.atEnd());

    RandomSource random;
    ASSERT_TRUE(random.haveDevice());
    std::string bytes;
    EXPECT_EQ(random.getBytes(bytes, 16).size(), 16U);

    crypto::StreamDigestMD5 md5(false);
    crypto::StreamDigestSHA512 sha512;
    md5 << "text";
    sha512 << "text";

    const std::set<int> opened = added(before, openFds());
    EXPECT_GE(opened.size(), 7U) << "the modules above should hold descriptors now";
    EXPECT_EQ(inheritedInChild(opened), "");

    closeDir(handle);
}

TEST_F(DescriptorHygieneTest, HostFactsAndProcessesLeaveNothingToAChild) {
    const std::set<int> before = openFds();

    // Modules that open and close within one call.
    int64_t memory = 0;
    EXPECT_TRUE(getTotalMemory(&memory));
    int64_t available = 0;
    int64_t total = 0;
    int64_t free = 0;
    EXPECT_TRUE(getDiskSpace(root_.c_str(), available, total, free));
    std::map<std::string, std::string> macs;
    EXPECT_TRUE(getMacAddresses(macs));
    OsInfo info;
    detectOsInfo(info);  // the release files, the appliance marker and the locale
    const char* const trueArgv[] = {"true", nullptr};
    EXPECT_EQ(tiny::runArgv(trueArgv), 0);
    EXPECT_EQ(openFds(), before) << "a descriptor was left open";

    // Kept open on purpose: the query socket of getLocalAddresses, one per call; and the
    // file-system table, which getFileSystemType leaves open when it finds no entry.
    std::vector<Inet4Address> addresses;
    EXPECT_TRUE(getLocalAddresses(addresses));
    std::string type;
    static_cast<void>(getFileSystemType(root_.c_str(), type));

    // Pipes: a channel of its own, and a running child with all three streams piped, which
    // has answered a line and had its out-of-memory adjustment written.
    tiny::PipeChannel channel;
    ASSERT_TRUE(channel.open(tiny::PipeSpec{}));
    tiny::ChildProcess cat(tiny::ChildProcess::RedirectStdio | tiny::ChildProcess::RedirectStderr |
                           tiny::ChildProcess::KillOnDestroy);
    const char* const catArgv[] = {"cat", nullptr};
    ASSERT_TRUE(cat.start(catArgv));
    EXPECT_EQ(cat.writeLine("ping"), 5);
    std::string line;
    EXPECT_EQ(cat.readStdoutLine(line), 5U);
    EXPECT_TRUE(tiny::setOomAdjust(cat.pid(), 0));

    const std::set<int> opened = added(before, openFds());
    EXPECT_GE(opened.size(), 6U) << "the modules above should hold descriptors now";
    EXPECT_EQ(inheritedInChild(opened), "");

    // The children the library starts: the running one holds its three pipes and, of the
    // parent's descriptors, only what the test runner left open; one started by a launcher
    // sees none of the library's either.
    const std::map<int, std::string> catFds = descriptorsOf(cat.pid());
    ASSERT_EQ(catFds.count(0) + catFds.count(1) + catFds.count(2), 3U) << describe(catFds);
    for (const auto& [fd, target] : catFds) {
        EXPECT_TRUE(fd <= 2 || before.count(fd) == 1)
            << "the child holds " << fd << " -> " << target;
    }
    std::vector<std::string> listerArgs = listerArguments(opened, at("launched.txt"));
    const std::vector<char*> listerArgv = argvOf(listerArgs);
    EXPECT_EQ(tiny::runArgv(listerArgv.data()), 0);
    ASSERT_TRUE(stdfs::exists(at("launched.txt")));
    EXPECT_EQ(testing::readFile(at("launched.txt")), "");

    // The test reaps its child: end of input ends cat.
    EXPECT_TRUE(cat.stdinPipe().close());
    EXPECT_EQ(cat.waitForExit(), 0);
}

// Name look-ups open sockets and files inside the resolver. They run in a child of the test
// in an empty network namespace, so that nothing leaves the machine; the child checks what
// they left behind itself. Whether any name is found does not matter here.
TEST_F(DescriptorHygieneTest, NameLookUpsLeaveNothingToAChild) {
    const testing::IsolatedResult result = testing::runIsolated(CLONE_NEWNET, [] {
        const std::set<int> before = openFds();
        static_cast<void>(getFullHostName());
        std::string name;
        static_cast<void>(reverseLookupIPv4("127.0.0.1", name));
        for (const char* host : {"localhost", "127.0.0.1", "name.invalid"}) {
            try {
                static_cast<void>(Inet4Address::resolve(host).getHostName());
            } catch (const CantResolveException&) {
            }
        }
        try {
            static_cast<void>(Inet4Address(0x7F000001U).getHostName());
        } catch (const CantResolveException&) {
        }
        try {
            static_cast<void>(Inet6Address::resolve("::1").getHostName());
        } catch (const CantResolveException&) {
        }
        const std::set<int> left = added(before, openFds());
        std::string report;
        for (const int fd : left) {
            report += "left open: " + std::to_string(fd) + "\n";
        }
        return report + inheritedInChild(left);
    });
    if (!result.isolated) {
        GTEST_SKIP() << "no private network namespace, look-ups skipped: " << result.output;
    }
    EXPECT_EQ(result.output, "");
}

}  // namespace
}  // namespace nuvra::utils
