// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/filesystem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <tuple>

#include "nuvra/testing/temp_dir_test_util.h"

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;
using testing::readFile;
using testing::writeFile;

stdfs::perms permissionsOf(const std::string& path) { return stdfs::status(path).permissions(); }

class FileSystemTest : public testing::TempTreeTest {
  protected:
    // A file, a FIFO (which blocks whoever opens it) and links out of the tree.
    void addEntries(const std::string& dir) const {
        writeFile(at(dir + "/file"), dir);
        ASSERT_EQ(symlink(outside_.c_str(), at(dir + "/outdir").c_str()), 0);
        ASSERT_EQ(symlink((outside_ + "/keep.txt").c_str(), at(dir + "/outfile").c_str()), 0);
        ASSERT_EQ(mkfifo(at(dir + "/fifo").c_str(), 0600), 0);
    }
};

TEST_F(FileSystemTest, MakeDirectoryResultsAndErrno) {
    writeFile(at("file"), "x");
    for (const auto& [path, flags, result, error] : {
             std::tuple{at("a/b/c"), kMakeParents, 0, 0},
             {at("a/b/c"), kMakeParents, -1, EEXIST},  // the last component is never passed over
             {at("a//b//d///"), kMakeParents, 0, 0},
             {at("missing/x"), 0U, -1, ENOENT},
             {at("file/x/y"), kMakeParents, -1, ENOTDIR},
             {std::string("///"), 0U, 0, 0},
         }) {
        errno = 12345;
        EXPECT_EQ(makeDirectory(path.c_str(), 0755, flags), result) << path;
        EXPECT_EQ(errno, error) << path;
    }

    EXPECT_TRUE(makeDirectoryTree(at("x\\y")) && makeDirectoryTree(at("x\\y")));
    // '\' separates only where no '/' follows
    EXPECT_TRUE(stdfs::is_directory(at("x")) && stdfs::is_directory(at("x\\y")));
    EXPECT_TRUE(makeDirectoryTree(at("file")) && makeDirectoryTree(""));  // any name counts
    EXPECT_FALSE(makeDirectoryTree(at("file/sub")));
}

TEST_F(FileSystemTest, RemoveTreeUnlinksLinksAndLeavesOutsideAlone) {
    ASSERT_EQ(makeDirectory(at("t/sub").c_str(), 0700, kMakeParents), 0);
    addEntries("t");
    addEntries("t/sub");
    EXPECT_EQ(removeTree(at("t").c_str()), 0);
    errno = 0;
    EXPECT_TRUE(removeTree(nullptr) == -1 && errno == ENOENT);
    expectOutsideUntouched();
}

TEST_F(FileSystemTest, CopyFileResultsModesAndErrno) {
    std::string content;  // every byte value, NUL included, more than the stdio buffers hold
    for (int i = 0; i < (1 << 18); ++i) {
        content += static_cast<char>(i);
    }
    writeFile(at("src"), content);
    ASSERT_EQ(chmod(at("src").c_str(), 0751), 0);
    writeFile(at("kept"), "old");
    ASSERT_EQ(mkdir(at("dir").c_str(), 0700), 0);
    // Source, destination, failIfExists, copyMode; the result and errno after.
    for (const auto& [source, destination, failIfExists, copyMode, result, error] : {
             std::tuple{at("src"), at("plain"), false, false, kCopyOk, 0},
             {at("src"), at("moded"), false, true, kCopyOk, 0},
             {at("src"), at("kept"), true, false, kCopyDestinationFailed, EEXIST},
             {at("src"), at("new"), true, false, kCopyOk, ENOENT},  // from the look for "new"
             {at("src"), at("dir"), false, false, kCopyDestinationFailed, EISDIR},
             {at("src"), std::string("/dev/full"), false, false, kCopyDestinationFailed, ENOSPC},
             {at("missing"), at("d1"), false, false, kCopySourceFailed, ENOENT},
             {at("dir"), at("d2"), false, false, kCopySourceFailed, EISDIR},
             // Only the flush at close fails: the result is already settled, errno tells.
             {at("kept"), std::string("/dev/full"), false, false, kCopyOk, ENOSPC},
         }) {
        SCOPED_TRACE(std::string(source).append(" -> ").append(destination));
        errno = 0;
        EXPECT_EQ(copyFile(source.c_str(), destination.c_str(), failIfExists, copyMode), result);
        EXPECT_EQ(errno, error);
    }
    EXPECT_EQ(readFile(at("plain")), content);
    EXPECT_EQ(permissionsOf(at("plain")), stdfs::perms(0600));
    EXPECT_EQ(permissionsOf(at("moded")), stdfs::perms(0751));
    EXPECT_EQ(readFile(at("kept")), "old");
}

TEST_F(FileSystemTest, CopyDirectorySkipsLinksAndMakesPrivateDirectories) {
    ASSERT_EQ(makeDirectory(at("s/sub/deep").c_str(), 0755, kMakeParents), 0);
    addEntries("s");
    addEntries("s/sub/deep");
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("d/e"), true), 0);
    EXPECT_EQ(std::distance(stdfs::recursive_directory_iterator(at("d/e")), {}), 4);
    EXPECT_EQ(readFile(at("d/e/file")) + readFile(at("d/e/sub/deep/file")), "ss/sub/deep");
    EXPECT_EQ(permissionsOf(at("d/e/sub/deep")), stdfs::perms(0700));
    EXPECT_EQ(permissionsOf(at("d/e/file")), stdfs::perms(0600));
    expectOutsideUntouched();

    EXPECT_EQ(copyDirectory(at("s").c_str(), at("flat"), false), 0);
    EXPECT_TRUE(stdfs::exists(at("flat/file")) && !stdfs::exists(at("flat/sub")));
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("s/file/d3"), false), 1);  // cannot make it
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("s/file"), false), 3);     // not a directory
}

TEST_F(FileSystemTest, SizesTimesTruncationAndExistence) {
    writeFile(at("big"), std::string(100, 'x'));
    const int fd = open64(at("big").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(lseek64(fd, 7, SEEK_SET), 7);
    EXPECT_EQ(truncateAt(fd, -1), 0);  // at the current position
    EXPECT_EQ(getFileSize(at("big")), 7);
    EXPECT_EQ(truncateAt(fd, (int64_t{1} << 32) + 3), 0);
    close(fd);
    EXPECT_EQ(truncateAt(-1, 1), 0);  // no position: taken as nothing to do
    const int readOnly = open64(at("big").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(truncateAt(readOnly, 1), -1);
    close(readOnly);
    ASSERT_TRUE(touchFile(at("big"), 1000000, kTouchModification | kTouchAccess));
    ASSERT_TRUE(touchFile(at("big"), 2000000, kTouchModification));
    EXPECT_FALSE(touchFile(at("missing")) || stdfs::exists(at("missing")));
    struct stat64 info {};
    EXPECT_TRUE(stat64(at("big").c_str(), &info) == 0 && info.st_atime == 1000000);
    time_t mtime = 0;
    uint32_t low = 0;  // the low half of the size
    EXPECT_TRUE(getFileTimeAndSize(at("big").c_str(), mtime, low) && mtime == 2000000 && low == 3);

    ASSERT_EQ(mkdir(at("dir").c_str(), 0700), 0);
    ASSERT_EQ(symlink(at("big").c_str(), at("link").c_str()), 0);
    ASSERT_EQ(symlink(at("dir").c_str(), at("dirlink").c_str()), 0);
    ASSERT_EQ(symlink("/nonexistent", at("dangling").c_str()), 0);
    EXPECT_EQ(getFileSize(at("link")), (int64_t{1} << 32) + 3);
    EXPECT_EQ(getFileSize(at("link"), false) + getFileSize(at("dir")) + getFileSize(at("x")), 0);
    for (const auto& [name, useLstat, linkIsMissing, exists, isDirectory] : {
             std::tuple{"dir/", false, false, true, true},
             {"dirlink", false, true, true, true},
             {"dirlink", true, true, false, false},
             {"dangling", true, false, true, false},
         }) {
        SCOPED_TRACE(std::string(name) + (useLstat ? " lstat" : ""));
        bool directory = !isDirectory;
        EXPECT_EQ(pathExists(at(name).c_str(), useLstat, directory, linkIsMissing), exists);
        EXPECT_EQ(directory, isDirectory);
    }
    EXPECT_TRUE(pathExists("/") && !pathExists(nullptr));
}

TEST(PathTextTest, SeparatorsDotSegmentsAndSuffixes) {
    std::string path;
    for (const auto& [in, trailing, out] : {std::tuple{R"(\\a\\b//c)", true, "/a/b/c/"},
                                            {"a/", true, "a/"},
                                            {"", true, "/"},
                                            {"a\\b", false, "a/b"}}) {
        path = in;
        EXPECT_EQ(normalizeSeparators(path, trailing), out) << in;
        EXPECT_EQ(path, out) << in;  // also stored back
    }
    for (const auto& [in, out] : {std::tuple{"/a/./b/../c", "/a/c"},
                                  {"/a/../../b", "/b"},  // above the root stays at the root
                                  {"//a\\b/", "/a/b/"},
                                  {"a/../../b", "../b"},
                                  {"a/..", "."},
                                  {"/..foo/.bar/...", "/..foo/.bar/..."},
                                  {"\\", "\\"}}) {  // one character: as it is
        EXPECT_EQ(normalizePath(in), out) << in;
    }
    EXPECT_TRUE(makeAbsolutePath(path, "x/./y/../z") &&
                path == stdfs::current_path().string() + "/x/z");
    EXPECT_TRUE(makeAbsolutePath(path, "\\abs\\..\\p") && path == "/p");
    EXPECT_TRUE(endsWithNoCase("file.TXT", ".txt") && endsWithNoCase(".TXT", ".txt"));
    EXPECT_FALSE(endsWithNoCase("txt", ".txt") || endsWithNoCase("a.txb", ".txt"));
}

TEST(DescriptorTest, SettingsAndAnAbortiveCloseThatLeavesANonSocketOpen) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    EXPECT_EQ(setBlocking(fds[0], false) + setSocketTimeout(fds[0], SO_RCVTIMEO, 3), 0);
    EXPECT_NE(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(closeSocketNow(fds[0]) + closeSocketNow(fds[1]) + setSocketTimeout(-1, 0, 0), -1);
    const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(closeSocketNow(file), -1);
    EXPECT_EQ(close(file), 0);  // still open
}

}  // namespace
}  // namespace nuvra::utils
