#include "nuvra/utils/filesystem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;

constexpr int64_t kFourGiB = int64_t{1} << 32;
constexpr int64_t kFiveGiB = int64_t{5} << 30;

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

mode_t permissionsOf(const std::string& path) {
    struct stat64 info {};
    EXPECT_EQ(lstat64(path.c_str(), &info), 0) << path << ": " << std::strerror(errno);
    return info.st_mode & 07777;
}

// Sets the umask for one scope.
class ScopedUmask {
  public:
    explicit ScopedUmask(mode_t mask) : saved_(umask(mask)) {}
    ~ScopedUmask() { umask(saved_); }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

  private:
    mode_t saved_;
};

// Every test runs inside a fresh directory under /tmp (also the current directory), with a
// second one beside it standing for "outside the tree"; both are removed afterwards.
class FileSystemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char work[] = "/tmp/nuvra_fs_XXXXXX";
        char outside[] = "/tmp/nuvra_out_XXXXXX";
        ASSERT_NE(mkdtemp(work), nullptr) << std::strerror(errno);
        ASSERT_NE(mkdtemp(outside), nullptr) << std::strerror(errno);
        dir_ = work;
        outside_ = outside;
        oldCwd_ = stdfs::current_path();
        stdfs::current_path(dir_);
    }
    void TearDown() override {
        stdfs::current_path(oldCwd_);
        stdfs::remove_all(dir_);
        stdfs::remove_all(outside_);
    }
    std::string at(const std::string& name) const { return dir_ + "/" + name; }

    std::string dir_;
    std::string outside_;
    stdfs::path oldCwd_;
};

// ---------------------------------------------------------------------------------------
// Making directories

TEST_F(FileSystemTest, MakeDirectoryResultsAndErrno) {
    writeFile(at("file"), "x");
    static const struct {
        const char* path;
        uint32_t flags;
        int result;
        int error;
    } kCases[] = {
        {"a/b/c", kMakeParents, 0, 0},
        {"a/b/c", kMakeParents, -1, EEXIST},  // the last component is never skipped
        {"a/b/c/", 0, -1, EEXIST},
        {"a//b//d///", kMakeParents, 0, 0},
        {"///", kMakeParents, 0, 0},
        {"/", 0, 0, 0},
        {"", 0, -1, -1},
        {"missing/x", 0, -1, ENOENT},
        {"file/x/y", kMakeParents, -1, ENOTDIR},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.path);
        errno = 12345;
        EXPECT_EQ(makeDirectory(c.path, 0755, c.flags), c.result);
        if (c.error != -1) {
            EXPECT_EQ(errno, c.error);
        }
    }
    EXPECT_TRUE(stdfs::is_directory(at("a/b/c")));
    EXPECT_TRUE(stdfs::is_directory(at("a/b/d")));
    EXPECT_EQ(makeDirectory(nullptr, 0755, kMakeParents), -1);
}

TEST_F(FileSystemTest, MakeDirectoryTreeTakesBackslashOnlyAsPrefixSeparator) {
    EXPECT_TRUE(makeDirectoryTree("x\\y"));
    EXPECT_TRUE(stdfs::is_directory(at("x")));
    EXPECT_TRUE(stdfs::is_directory(at("x\\y")));  // one name on this system

    EXPECT_TRUE(makeDirectoryTree("p/q/r", 0700));
    EXPECT_TRUE(stdfs::is_directory(at("p/q/r")));
    EXPECT_TRUE(makeDirectoryTree("p/q/r"));  // existing: still true
    EXPECT_TRUE(makeDirectoryTree(""));

    writeFile(at("plain"), "x");
    EXPECT_TRUE(makeDirectoryTree("plain"));  // any existing name counts, kept
    EXPECT_FALSE(makeDirectoryTree("plain/sub"));
    EXPECT_EQ(errno, ENOTDIR);
}

// ---------------------------------------------------------------------------------------
// Removing trees

TEST_F(FileSystemTest, RemoveTreeUnlinksLinksAndLeavesOutsideAlone) {
    writeFile(outside_ + "/keep.txt", "outside");
    ASSERT_EQ(makeDirectory("t/sub/deep", 0700, kMakeParents), 0);
    writeFile(at("t/f1"), "1");
    writeFile(at("t/sub/deep/f2"), "2");
    ASSERT_EQ(symlink(outside_.c_str(), at("t/sub/out").c_str()), 0);
    ASSERT_EQ(symlink((outside_ + "/keep.txt").c_str(), at("t/filelink").c_str()), 0);
    ASSERT_EQ(symlink("/nonexistent/target", at("t/dangling").c_str()), 0);
    ASSERT_EQ(mkfifo(at("t/fifo").c_str(), 0600), 0);

    EXPECT_EQ(removeTree(at("t").c_str()), 0);
    EXPECT_FALSE(stdfs::exists(stdfs::symlink_status(at("t"))));
    EXPECT_EQ(readFile(outside_ + "/keep.txt"), "outside");
}

TEST_F(FileSystemTest, RemoveTreeFailures) {
    errno = 0;
    EXPECT_EQ(removeTree(nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(removeTree(at("missing").c_str()), -1);
    writeFile(at("file"), "x");
    EXPECT_EQ(removeTree(at("file").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(stdfs::exists(at("file")));
}

// ---------------------------------------------------------------------------------------
// Copying

TEST_F(FileSystemTest, CopyFileCopiesBytesAndCreatesPrivateFiles) {
    const ScopedUmask mask(0);
    std::string content;
    for (int i = 0; i < 10007; ++i) {
        content += static_cast<char>(i * 7);
    }
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
    static const struct {
        const char* name;
        std::string source;
        std::string destination;
        int result;
        int error;
    } kCases[] = {
        {"missing source", at("missing"), at("d1"), kCopySourceFailed, ENOENT},
        {"source is a directory", at("dir"), at("d2"), kCopySourceFailed, EISDIR},
        {"destination parent missing", at("src"), at("no/d3"), kCopyDestinationFailed, ENOENT},
        {"destination is a directory", at("src"), at("dir"), kCopyDestinationFailed, EISDIR},
        {"write fails", at("big"), "/dev/full", kCopyDestinationFailed, ENOSPC},
        // Only the flush at close fails: the result is already settled, errno tells.
        {"close fails", at("src"), "/dev/full", kCopyOk, ENOSPC},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        errno = 0;
        EXPECT_EQ(copyFile(c.source.c_str(), c.destination.c_str(), false, false), c.result);
        EXPECT_EQ(errno, c.error);
    }
}

TEST_F(FileSystemTest, CopyDirectorySkipsLinksAndMakesPrivateDirectories) {
    const ScopedUmask mask(0);
    writeFile(outside_ + "/keep.txt", "outside");
    ASSERT_EQ(makeDirectory("s/sub/deep", 0755, kMakeParents), 0);
    writeFile(at("s/a"), "A");
    writeFile(at("s/sub/b"), "B");
    writeFile(at("s/sub/deep/c"), "C");
    ASSERT_EQ(symlink(outside_.c_str(), at("s/outdir").c_str()), 0);
    ASSERT_EQ(symlink(at("s/a").c_str(), at("s/sub/alink").c_str()), 0);
    ASSERT_EQ(symlink("/nonexistent", at("s/dangling").c_str()), 0);
    ASSERT_EQ(mkfifo(at("s/fifo").c_str(), 0600), 0);  // would block if opened

    EXPECT_EQ(copyDirectory(at("s").c_str(), at("d/e"), true), 0);
    std::set<std::string> copied;
    for (const auto& entry : stdfs::recursive_directory_iterator(at("d/e"))) {
        copied.insert(entry.path().lexically_relative(at("d/e")).string());
        EXPECT_FALSE(entry.is_symlink()) << entry.path();
    }
    EXPECT_EQ(copied, (std::set<std::string>{"a", "sub", "sub/b", "sub/deep", "sub/deep/c"}));
    EXPECT_EQ(readFile(at("d/e/sub/deep/c")), "C");
    EXPECT_EQ(permissionsOf(at("d/e")), 0700U);
    EXPECT_EQ(permissionsOf(at("d/e/sub/deep")), 0700U);
    EXPECT_EQ(permissionsOf(at("d/e/a")), 0600U);
    EXPECT_EQ(readFile(outside_ + "/keep.txt"), "outside");
    EXPECT_EQ(std::distance(stdfs::directory_iterator(outside_), stdfs::directory_iterator()), 1);

    EXPECT_EQ(copyDirectory(at("s").c_str(), at("flat"), false), 0);
    EXPECT_TRUE(stdfs::exists(at("flat/a")));
    EXPECT_FALSE(stdfs::exists(at("flat/sub")));
}

TEST_F(FileSystemTest, CopyDirectoryResults) {
    ASSERT_EQ(mkdir(at("s").c_str(), 0700), 0);
    writeFile(at("s/a"), "A");
    writeFile(at("blocker"), "x");
    ASSERT_EQ(mkdir(at("s/a_dir_named_like_a_file").c_str(), 0700), 0);
    EXPECT_EQ(copyDirectory(nullptr, at("d1"), true), 1);
    EXPECT_EQ(copyDirectory(at("missing").c_str(), at("d2"), true), 1);
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("blocker/d3"), false), 1);  // cannot make it
    EXPECT_EQ(copyDirectory(at("s").c_str(), at("blocker"), false), 3);     // exists, not a dir
}

// ---------------------------------------------------------------------------------------
// Queries and time stamps

TEST_F(FileSystemTest, SizesAreSixtyFourBitAndOnlyForRegularFiles) {
    writeFile(at("small"), "12345");
    { std::ofstream(at("big")) << ""; }
    ASSERT_EQ(truncate64(at("big").c_str(), kFourGiB + 3), 0);
    ASSERT_EQ(symlink(at("small").c_str(), at("link").c_str()), 0);
    static const struct {
        const char* name;
        bool follow;
        int64_t size;
    } kCases[] = {
        {"small", true, 5}, {"big", true, kFourGiB + 3}, {"link", true, 5}, {"link", false, 0},
        {".", true, 0},     {"missing", true, 0},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.name) + (c.follow ? " followed" : ""));
        EXPECT_EQ(getFileSize(at(c.name), c.follow), c.size);
    }

    time_t mtime = 0;
    uint32_t low = 0;
    ASSERT_TRUE(getFileTimeAndSize(at("big").c_str(), mtime, low));
    EXPECT_EQ(low, 3U);
    EXPECT_GT(mtime, 0);
    EXPECT_FALSE(getFileTimeAndSize(at("missing").c_str(), mtime, low));
}

TEST_F(FileSystemTest, PathExistsByType) {
    writeFile(at("file"), "x");
    ASSERT_EQ(mkdir(at("dir").c_str(), 0700), 0);
    ASSERT_EQ(symlink(at("dir").c_str(), at("dirlink").c_str()), 0);
    ASSERT_EQ(symlink("/nonexistent", at("dangling").c_str()), 0);
    static const struct {
        const char* name;
        bool useLstat;
        bool linkIsMissing;
        bool exists;
        bool isDirectory;
    } kCases[] = {
        {"file", false, false, true, false},      {"dir", false, false, true, true},
        {"dir/", false, false, true, true},       {"dirlink", false, true, true, true},
        {"dirlink", true, false, true, false},    {"dirlink", true, true, false, false},
        {"dangling", false, false, false, false}, {"dangling", true, false, true, false},
        {"missing", true, false, false, false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
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

// ---------------------------------------------------------------------------------------
// Path text

TEST(PathTextTest, NormalizeSeparators) {
    static const struct {
        const char* in;
        bool trailing;
        const char* out;
    } kCases[] = {
        {"a\\\\b//c", true, "a/b/c/"},
        {"a\\\\b//c", false, "a/b/c"},
        {"", true, "/"},
        {"", false, ""},
        {"a/", true, "a/"},
        {"\\\\x", false, "/x"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.in);
        std::string path = c.in;
        EXPECT_EQ(normalizeSeparators(path, c.trailing), c.out);
        EXPECT_EQ(path, c.out);
    }
}

TEST(PathTextTest, NormalizePathFoldsDotSegments) {
    static const struct {
        const char* in;
        const char* out;
    } kCases[] = {
        {"/a/./b/../c", "/a/c"},
        {"/a/b/../../c", "/c"},
        {"/a/b/c/../..", "/a"},
        {"/../..", "/"},
        {"/a/../../b", "/b"},  // above the root stays at the root
        {"//a\\\\b/", "/a/b/"},
        {R"(\x\..\y)", "/y"},
        {"a/../../b", "../b"},
        {"a/..", "."},
        {"/..foo/.bar/...", "/..foo/.bar/..."},
        {".", "."},
        {"\\", "\\"},  // one character: as it is
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.in);
        EXPECT_EQ(normalizePath(c.in), c.out);
    }
}

TEST_F(FileSystemTest, MakeAbsolutePathUsesCurrentDirectory) {
    std::string out;
    ASSERT_TRUE(makeAbsolutePath(out, "x/./y/../z"));
    EXPECT_EQ(out, dir_ + "/x/z");
    ASSERT_TRUE(makeAbsolutePath(out, "../" + stdfs::path(dir_).filename().string()));
    EXPECT_EQ(out, dir_);
    ASSERT_TRUE(makeAbsolutePath(out, "\\abs\\..\\p"));
    EXPECT_EQ(out, "/p");
}

TEST(PathTextTest, EndsWithNoCase) {
    static const struct {
        const char* text;
        const char* suffix;
        bool result;
    } kCases[] = {
        {"file.TXT", ".txt", true}, {"file.txt", "FILE.TXT", true}, {"txt", ".txt", false},
        {"a.txt", "", true},        {"a.txb", ".txt", false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.text) + " " + c.suffix);
        EXPECT_EQ(endsWithNoCase(c.text, c.suffix), c.result);
    }
}

// ---------------------------------------------------------------------------------------
// Descriptors, streams and sockets

TEST_F(FileSystemTest, TruncateAtOffsetOrCurrentPosition) {
    writeFile(at("f"), std::string(100, 'x'));
    const int fd = open64(at("f").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(fd, -1);
    EXPECT_EQ(truncateAt(fd, 40), 0);
    EXPECT_EQ(getFileSize(at("f")), 40);
    ASSERT_EQ(lseek64(fd, 7, SEEK_SET), 7);
    EXPECT_EQ(truncateAt(fd, -1), 0);
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
}

TEST_F(FileSystemTest, FileSeekAndTellBeyondFourGiB) {
    EXPECT_EQ(fileSeek(nullptr, 1, SEEK_SET), 0);
    EXPECT_EQ(fileTell(nullptr), 0);
    FILE* file = std::fopen(at("f").c_str(), "w+e");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fileSeek(file, kFiveGiB, SEEK_SET), 0);
    EXPECT_EQ(fileTell(file), kFiveGiB);
    EXPECT_EQ(std::fclose(file), 0);
}

TEST(DescriptorTest, SetBlockingTogglesNonBlock) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    EXPECT_EQ(setBlocking(fds[0], false), 0);
    EXPECT_NE(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(setBlocking(fds[0], true), 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFL) & O_NONBLOCK, 0);
    close(fds[0]);
    close(fds[1]);
}

TEST(DescriptorTest, SocketTimeoutAndAbortiveClose) {
    EXPECT_EQ(setSocketTimeout(-1, SO_RCVTIMEO, 3), -1);
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
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

// ---------------------------------------------------------------------------------------
// Directory handles

TEST_F(FileSystemTest, DirHandleReadsFixedTypesAndIsCloseOnExec) {
    EXPECT_EQ(openDir(nullptr), nullptr);
    EXPECT_EQ(openDir(at("missing").c_str()), nullptr);
    closeDir(nullptr);

    writeFile(at("file"), "x");
    ASSERT_EQ(mkdir(at("dir").c_str(), 0700), 0);
    ASSERT_EQ(symlink(at("dir").c_str(), at("dirlink").c_str()), 0);
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);

    DirHandle* handle = openDir((dir_ + "/").c_str());
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(fcntl(dirFd(handle->dir), F_GETFD) & FD_CLOEXEC, 0);
    std::set<std::pair<std::string, int>> seen;
    while (dirent64* entry = readDirEntry(handle)) {
        seen.emplace(entry->d_name, entry->d_type);
    }
    closeDir(handle);
    EXPECT_EQ(seen, (std::set<std::pair<std::string, int>>{{".", DT_DIR},
                                                           {"..", DT_DIR},
                                                           {"file", DT_REG},
                                                           {"dir", DT_DIR},
                                                           {"dirlink", DT_LNK},
                                                           {"fifo", DT_FIFO}}));

    handle = openDir(dir_.c_str());
    ASSERT_NE(handle, nullptr);
    dirent64 buffer{};
    dirent64* result = nullptr;
    size_t count = 0;
    while (readDirEntryR(handle, &buffer, &result) == 0 && result != nullptr) {
        EXPECT_EQ(result, &buffer);
        if (std::strcmp(result->d_name, "dirlink") == 0) {
            EXPECT_EQ(result->d_type, DT_LNK);
        }
        ++count;
    }
    closeDir(handle);
    EXPECT_EQ(count, seen.size());

    dirent64 entry{};
    std::strcpy(entry.d_name, "gone");
    entry.d_type = DT_SOCK;
    fixEntryType(&entry, dir_.c_str());
    EXPECT_EQ(entry.d_type, DT_SOCK);  // lstat failed: left as it was
}

}  // namespace
}  // namespace nuvra::utils
