// Descriptor hygiene across the library: with every module that opens files, directories or
// devices holding them open (and after the ones that open and close on their own), a child
// process must inherit nothing beyond standard input, output and error.
//
// The child looks for itself: a shell tests, for every descriptor number open in the parent,
// whether that number is open in the child too, and prints those that are.

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/crypto/stream_digest.h"
#include "nuvra/utils/directory.h"
#include "nuvra/utils/filesystem.h"
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

// Starts a shell that prints "fd -> target" for each of `fds` that is open in it, and
// returns what it printed.
std::string inheritedInChild(const std::set<int>& fds) {
    std::vector<std::string> args = {
        "/bin/sh", "-c",
        "for fd; do [ -e /proc/$$/fd/$fd ] && echo \"$fd -> $(readlink /proc/$$/fd/$fd)\"; done; "
        "exit 0",
        "sh"};
    for (const int fd : fds) {
        args.push_back(std::to_string(fd));
    }
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << std::strerror(errno);
        return {};
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
        ADD_FAILURE() << "posix_spawn: " << std::strerror(spawnError);
        return {};
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    return listing;
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

    const std::set<int> held = openFds();
    std::set<int> opened;
    for (const int fd : held) {
        if (before.count(fd) == 0) {
            opened.insert(fd);
        }
    }
    EXPECT_GE(opened.size(), 7U) << "the modules above should hold descriptors now";
    EXPECT_EQ(inheritedInChild(opened), "");

    closeDir(handle);
}

}  // namespace
}  // namespace nuvra::utils
