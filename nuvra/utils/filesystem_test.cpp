#include "nuvra/utils/filesystem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <numeric>
#include <set>
#include <string>

#include "nuvra/testing/temp_dir_test_util.h"

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;

constexpr int64_t kFiveGiB = int64_t{5} << 30;

using testing::readFile;
using testing::writeFile;

mode_t permissionsOf(const std::string& path) {
    struct stat64 info {};
    EXPECT_EQ(lstat64(path.c_str(), &info), 0) << path << ": " << std::strerror(errno);
    return info.st_mode & 07777;
}

// The shared tree, also as the current directory, with umask 0.
class FileSystemTest : public testing::TempTreeTest {
  protected:
    void SetUp() override {
        TempTreeTest::SetUp();
        oldCwd_ = stdfs::current_path();
        stdfs::current_path(root_);
        oldMask_ = umask(0);
    }
    void TearDown() override {
        umask(oldMask_);
        stdfs::current_path(oldCwd_);
        TempTreeTest::TearDown();
    }

    // Links out of the tree, to a directory and to a file, a dangling one and a FIFO.
    void addLinks(const std::string& dir) const {
        ASSERT_EQ(symlink(outside_.c_str(), at(dir + "/outdir").c_str()), 0);
        ASSERT_EQ(symlink((outside_ + "/keep.txt").c_str(), at(dir + "/outfile").c_str()), 0);
        ASSERT_EQ(symlink("/nonexistent", at(dir + "/dangling").c_str()), 0);
        ASSERT_EQ(mkfifo(at(dir + "/fifo").c_str(), 0600), 0);  // blocks if opened
    }

    stdfs::path oldCwd_;
    mode_t oldMask_ = 0;
};

TEST_F(FileSystemTest, MakeDirectoryResultsAndErrno) {
    writeFile(at("file"), "x");
    static const struct {
        const char* path;
        uint32_t flags;
        int result;
        int error;  // -1: not checked
    } kCases[] = {
        {"a/b/c", kMakeParents, 0, 0},
        {"a/b/c", kMakeParents, -1, EEXIST},  // the last component is never skipped
        {"a/b/c/", 0, -1, EEXIST},
        {"a//b//d///", kMakeParents, 0, 0},
        {"///", kMakeParents, 0, 0},
        {"/", 0, 0, 0},
        {"", 0, -1, -1},
        {nullptr, kMakeParents, -1, -1},
        {"missing/x", 0, -1, ENOENT},
        {"file/x/y", kMakeParents, -1, ENOTDIR},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.path != nullptr ? c.path : "null");
        errno = 12345;
        EXPECT_EQ(makeDirectory(c.path, 0755, c.flags), c.result);
        if (c.error != -1) {
            EXPECT_EQ(errno, c.error);
        }
    }
    EXPECT_TRUE(stdfs::is_directory(at("a/b/c")) && stdfs::is_directory(at("a/b/d")));

    EXPECT_TRUE(makeDirectoryTree("x\\y"));  // '\' separates only where no '/' follows
    EXPECT_TRUE(stdfs::is_directory(at("x")) && stdfs::is_directory(at("x\\y")));
    EXPECT_TRUE(makeDirectoryTree("p/q/r") && makeDirectoryTree("p/q/r") && makeDirectoryTree(""));
    EXPECT_TRUE(stdfs::is_directory(at("p/q/r")));
    EXPECT_TRUE(makeDirectoryTree("file"));  // any existing name counts
    EXPECT_FALSE(makeDirectoryTree("file/sub"));
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(FileSystemTest, RemoveTreeUnlinksLinksAndLeavesOutsideAlone) {
    ASSERT_EQ(makeDirectory("t/sub/deep", 0700, kMakeParents), 0);
    writeFile(at("t/f1"), "1");
    writeFile(at("t/sub/deep/f2"), "2");
    addLinks("t");
    addLinks("t/sub/deep");
    EXPECT_EQ(removeTree(at("t").c_str()), 0);
    EXPECT_FALSE(stdfs::exists(stdfs::symlink_status(at("t"))));
    expectOutsideUntouched();

    errno = 0;
    EXPECT_EQ(removeTree(nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(removeTree(at("missing").c_str()), -1);
    writeFile(at("file"), "x");
    EXPECT_EQ(removeTree(at("file").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(stdfs::exists(at("file")));
}

TEST_F(FileSystemTest, CopyFileCopiesBytesAndCreatesPrivateFiles) {
    std::string content(10007, '\0');
    std::iota(content.begin(), content.end(), '\0');  // every byte value, NUL included
    writeFile(at("src"), content);
    ASSERT_EQ(chmod(at("src").c_str(), 0751), 0);
    EXPECT_EQ(copyFile(at("src").c_str(), at("plain").c_str(), false, false), kCopyOk);
    EXPECT_EQ(readFile(at("plain")), content);
    EXPECT_EQ(permissionsOf(at("plain")), 0600U);
    EXPECT_EQ(copyFile(at("src").c_str(), at("moded").c_str(), false, true), kCopyOk);
    EXPECT_EQ(permissionsOf(at("moded")), 0751U);

    writeFile(at("existing"), "old");
    EXPECT_EQ(copyFile(at("src").c_str(), at("existing").c_str(), true, false),
              kCopyDestinationFailed);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(readFile(at("existing")), "old");
    EXPECT_EQ(copyFile(at("src").c_str(), at("existing").c_str(), false, false), kCopyOk);
    EXPECT_EQ(readFile(at("existing")), content);
}

TEST_F(FileSystemTest, CopyFileFailures) {
    writeFile(at("src"), "data");
    writeFile(at("big"), std::string(size_t{1} << 20, 'b'));
    ASSERT_EQ(mkdir(at("dir").c_str(), 0700), 0);
    const struct {
        std::string source, destination;
        int result;
        int error;
    } kCases[] = {
        {at("missing"), at("d1"), kCopySourceFailed, ENOENT},
        {at("dir"), at("d2"), kCopySourceFailed, EISDIR},
        {at("src"), at("no/d3"), kCopyDestinationFailed, ENOENT},
        {at("src"), at("dir"), kCopyDestinationFailed, EISDIR},
        {at("big"), "/dev/full", kCopyDestinationFailed, ENOSPC},
        // Only the flush at close fails: the result is already settled, errno tells.
        {at("src"), "/dev/full", kCopyOk, ENOSPC},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.source + " -> " + c.destination);
        errno = 0;
        EXPECT_EQ(copyFile(c.source.c_str(), c.destination.c_str(), false, false), c.result);
        EXPECT_EQ(errno, c.error);
    }
}

TEST_F(FileSystemTest, CopyDirectorySkipsLinksAndMakesPrivateDirectories) {
    ASSERT_EQ(makeDirectory("s/sub/deep", 0755, kMakeParents), 0);
    writeFile(at("s/a"), "A");
    writeFile(at("s/sub/b"), "B");
    writeFile(at("s/sub/deep/c"), "C");
    addLinks("s");
    addLinks("s/sub");
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("d/e"), true), 0);
    std::set<std::string> copied;
    for (const auto& entry : stdfs::recursive_directory_iterator(at("d/e"))) {
        copied.insert(entry.path().lexically_relative(at("d/e")).string());
    }
    EXPECT_EQ(copied, (std::set<std::string>{"a", "sub", "sub/b", "sub/deep", "sub/deep/c"}));
    EXPECT_EQ(readFile(at("d/e/sub/deep/c")), "C");
    EXPECT_EQ(permissionsOf(at("d/e")), 0700U);
    EXPECT_EQ(permissionsOf(at("d/e/sub/deep")), 0700U);
    EXPECT_EQ(permissionsOf(at("d/e/a")), 0600U);
    expectOutsideUntouched();

    EXPECT_EQ(copyDirectory(at("s").c_str(), at("flat"), false), 0);
    EXPECT_TRUE(stdfs::exists(at("flat/a")));
    EXPECT_FALSE(stdfs::exists(at("flat/sub")));

    writeFile(at("blocker"), "x");
    EXPECT_EQ(copyDirectory(nullptr, at("d1"), true), 1);
    EXPECT_EQ(copyDirectory(at("missing").c_str(), at("d2"), true), 1);
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("blocker/d3"), false), 1);  // cannot make it
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("blocker"), false), 3);     // exists, not a dir
}

TEST_F(FileSystemTest, SizesTimesAndExistence) {
    writeFile(at("small"), "12345");
    writeFile(at("big"), "");
    ASSERT_EQ(truncate64(at("big").c_str(), (int64_t{1} << 32) + 3), 0);
    ASSERT_EQ(mkdir(at("dir").c_str(), 0700), 0);
    ASSERT_EQ(symlink(at("small").c_str(), at("link").c_str()), 0);
    ASSERT_EQ(symlink(at("dir").c_str(), at("dirlink").c_str()), 0);
    ASSERT_EQ(symlink("/nonexistent", at("dangling").c_str()), 0);
    static const struct {
        const char* name;
        bool follow;
        int64_t size;
    } kSizes[] = {{"small", true, 5}, {"big", true, (int64_t{1} << 32) + 3},
                  {"link", true, 5},  {"link", false, 0},
                  {"dir", true, 0},   {"missing", true, 0}};
    for (const auto& c : kSizes) {
        SCOPED_TRACE(std::string(c.name) + (c.follow ? " followed" : ""));
        EXPECT_EQ(getFileSize(at(c.name), c.follow), c.size);
    }
    time_t mtime = 0;
    uint32_t low = 0;
    ASSERT_TRUE(getFileTimeAndSize(at("big").c_str(), mtime, low));
    EXPECT_EQ(low, 3U);
    EXPECT_GT(mtime, 0);
    EXPECT_FALSE(getFileTimeAndSize(at("missing").c_str(), mtime, low));

    static const struct {
        const char* name;
        bool useLstat, linkIsMissing, exists, isDirectory;
    } kExists[] = {
        {"small", false, false, true, false},     {"dir", false, false, true, true},
        {"dir/", false, false, true, true},       {"dirlink", false, true, true, true},
        {"dirlink", true, false, true, false},    {"dirlink", true, true, false, false},
        {"dangling", false, false, false, false}, {"dangling", true, false, true, false},
        {"missing", true, false, false, false},
    };
    for (const auto& c : kExists) {
        SCOPED_TRACE(std::string(c.name) + (c.useLstat ? " lstat" : ""));
        bool isDirectory = !c.isDirectory;
        EXPECT_EQ(pathExists(at(c.name).c_str(), c.useLstat, isDirectory, c.linkIsMissing),
                  c.exists);
        EXPECT_EQ(isDirectory, c.isDirectory);
    }
    EXPECT_TRUE(pathExists("/"));
    EXPECT_FALSE(pathExists(nullptr));
}

TEST_F(FileSystemTest, TouchFileSetsChosenStampsAndCreatesNothing) {
    writeFile(at("f"), "x");
    ASSERT_TRUE(touchFile(at("f"), 1000000, kTouchModification | kTouchAccess));
    ASSERT_TRUE(touchFile(at("f"), 2000000, kTouchModification));
    struct stat64 info {};
    ASSERT_EQ(stat64(at("f").c_str(), &info), 0);
    EXPECT_EQ(info.st_mtime, 2000000);
    EXPECT_EQ(info.st_atime, 1000000);
    ASSERT_TRUE(touchFile(at("f")));
    ASSERT_EQ(stat64(at("f").c_str(), &info), 0);
    EXPECT_GE(info.st_atime + 5, std::time(nullptr));
    EXPECT_FALSE(touchFile(at("missing")));
    EXPECT_FALSE(stdfs::exists(at("missing")));
}

TEST(PathTextTest, NormalizeSeparatorsAndPaths) {
    static const struct {
        const char* in;
        bool trailing;
        const char* out;
    } kSeparators[] = {{"a\\\\b//c", true, "a/b/c/"},
                       {"a\\\\b//c", false, "a/b/c"},
                       {"", true, "/"},
                       {"", false, ""},
                       {"a/", true, "a/"},
                       {"\\\\x", false, "/x"}};
    for (const auto& c : kSeparators) {
        SCOPED_TRACE(c.in);
        std::string path = c.in;
        EXPECT_EQ(normalizeSeparators(path, c.trailing), c.out);
        EXPECT_EQ(path, c.out);
    }
    static const struct {
        const char* in;
        const char* out;
    } kPaths[] = {
        {"/a/./b/../c", "/a/c"},
        {"/a/b/c/../..", "/a"},
        {"/a/../../b", "/b"},  // above the root stays at the root
        {"/../..", "/"},
        {"//a\\\\b/", "/a/b/"},
        {R"(\x\..\y)", "/y"},
        {"a/../../b", "../b"},
        {"a/..", "."},
        {"/..foo/.bar/...", "/..foo/.bar/..."},
        {"\\", "\\"},  // one character: as it is
    };
    for (const auto& c : kPaths) {
        SCOPED_TRACE(c.in);
        EXPECT_EQ(normalizePath(c.in), c.out);
    }
    EXPECT_TRUE(endsWithNoCase("file.TXT", ".txt") && endsWithNoCase("a.txt", ""));
    EXPECT_FALSE(endsWithNoCase("txt", ".txt") || endsWithNoCase("a.txb", ".txt"));
}

TEST_F(FileSystemTest, MakeAbsolutePathUsesCurrentDirectory) {
    std::string out;
    ASSERT_TRUE(makeAbsolutePath(out, "x/./y/../z"));
    EXPECT_EQ(out, root_ + "/x/z");
    ASSERT_TRUE(makeAbsolutePath(out, "../" + stdfs::path(root_).filename().string()));
    EXPECT_EQ(out, root_);
    ASSERT_TRUE(makeAbsolutePath(out, "\\abs\\..\\p"));
    EXPECT_EQ(out, "/p");
}

TEST_F(FileSystemTest, TruncateAtAndStreamPositionsBeyondFourGiB) {
    writeFile(at("f"), std::string(100, 'x'));
    const int fd = open64(at("f").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(truncateAt(fd, 40), 0);
    EXPECT_EQ(getFileSize(at("f")), 40);
    ASSERT_EQ(lseek64(fd, 7, SEEK_SET), 7);
    EXPECT_EQ(truncateAt(fd, -1), 0);  // at the current position
    EXPECT_EQ(getFileSize(at("f")), 7);
    EXPECT_EQ(truncateAt(fd, kFiveGiB), 0);
    EXPECT_EQ(getFileSize(at("f")), kFiveGiB);
    close(fd);
    const int readOnly = open64(at("f").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(truncateAt(readOnly, 1), -1);
    close(readOnly);
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    EXPECT_EQ(truncateAt(pipeFds[1], -1), 0);  // no position: taken as nothing to do
    close(pipeFds[0]);
    close(pipeFds[1]);

    EXPECT_EQ(fileSeek(nullptr, 1, SEEK_SET), 0);
    EXPECT_EQ(fileTell(nullptr), 0);
    FILE* file = std::fopen(at("f").c_str(), "r+e");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fileSeek(file, kFiveGiB - 1, SEEK_SET), 0);
    EXPECT_EQ(fileTell(file), kFiveGiB - 1);
    EXPECT_EQ(std::fclose(file), 0);
}

TEST(DescriptorTest, BlockingSocketTimeoutAndAbortiveClose) {
    EXPECT_EQ(setSocketTimeout(-1, SO_RCVTIMEO, 3), -1);
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
    EXPECT_EQ(setBlocking(sockets[0], false), 0);
    EXPECT_NE(fcntl(sockets[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(setBlocking(sockets[0], true), 0);
    EXPECT_EQ(fcntl(sockets[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(setSocketTimeout(sockets[0], SO_RCVTIMEO, 3), 0);
    timeval timeout{};
    socklen_t size = sizeof timeout;
    ASSERT_EQ(getsockopt(sockets[0], SOL_SOCKET, SO_RCVTIMEO, &timeout, &size), 0);
    EXPECT_EQ(timeout.tv_sec, 3);
    EXPECT_EQ(closeSocketNow(sockets[0]), 0);
    EXPECT_EQ(fcntl(sockets[0], F_GETFD), -1);
    close(sockets[1]);

    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    EXPECT_EQ(closeSocketNow(fds[0]), -1);  // not a socket: left open
    EXPECT_NE(fcntl(fds[0], F_GETFD), -1);
    close(fds[0]);
    close(fds[1]);
}

TEST_F(FileSystemTest, DirHandleReportsLinksAsLinks) {
    EXPECT_EQ(openDir(nullptr), nullptr);
    EXPECT_EQ(openDir(at("missing").c_str()), nullptr);
    closeDir(nullptr);
    writeFile(at("file"), "x");
    ASSERT_EQ(mkdir(at("dir").c_str(), 0700), 0);
    addLinks(".");
    const std::set<std::pair<std::string, int>> expected = {
        {".", DT_DIR},      {"..", DT_DIR},      {"file", DT_REG},     {"dir", DT_DIR},
        {"outdir", DT_LNK}, {"outfile", DT_LNK}, {"dangling", DT_LNK}, {"fifo", DT_FIFO}};

    DirHandle* handle = openDir((root_ + "/").c_str());
    ASSERT_NE(handle, nullptr);
    std::set<std::pair<std::string, int>> seen;
    while (dirent64* entry = readDirEntry(handle)) {
        seen.emplace(entry->d_name, entry->d_type);
    }
    EXPECT_EQ(seen, expected);
    closeDir(handle);

    // Called directly, as on file systems that do not report types.
    for (const std::string& path : {root_, root_ + "/"}) {
        for (const auto& [name, type] : expected) {
            dirent64 entry{};  // DT_UNKNOWN
            std::strcpy(entry.d_name, name.c_str());
            fixEntryType(&entry, path.c_str());
            EXPECT_EQ(entry.d_type, type) << path << " " << name;
        }
    }
    dirent64 gone{};
    std::strcpy(gone.d_name, "gone");
    gone.d_type = DT_SOCK;
    fixEntryType(&gone, root_.c_str());
    EXPECT_EQ(gone.d_type, DT_SOCK);  // lstat failed: left as it was
}

}  // namespace
}  // namespace nuvra::utils
