#include "nuvra/utils/directory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// Descriptors of this process that a child would inherit.
std::set<int> inheritableFds() {
    std::set<int> fds;
    for (const auto& entry : stdfs::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename().string());
        const int flags = fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0) {
            fds.insert(fd);
        }
    }
    return fds;
}

// A tree in a fresh directory under /tmp, plus a directory outside it that a link points at:
//   a.txt  b.log  linkfile -> a.txt  linkdir -> outside/  dangling -> (nothing)
//   sub/c.txt  sub/deep/d.txt
class DirectoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char work[] = "/tmp/nuvra_dir_XXXXXX";
        char outside[] = "/tmp/nuvra_out_XXXXXX";
        ASSERT_NE(mkdtemp(work), nullptr) << std::strerror(errno);
        ASSERT_NE(mkdtemp(outside), nullptr) << std::strerror(errno);
        root_ = work;
        outside_ = outside;
        writeFile(at("a.txt"), "a");
        writeFile(at("b.log"), "b");
        ASSERT_EQ(mkdir(at("sub").c_str(), 0700), 0);
        ASSERT_EQ(mkdir(at("sub/deep").c_str(), 0700), 0);
        writeFile(at("sub/c.txt"), "c");
        writeFile(at("sub/deep/d.txt"), "d");
        writeFile(outside_ + "/o.txt", "o");
        ASSERT_EQ(symlink(at("a.txt").c_str(), at("linkfile").c_str()), 0);
        ASSERT_EQ(symlink(outside_.c_str(), at("linkdir").c_str()), 0);
        ASSERT_EQ(symlink("/nonexistent", at("dangling").c_str()), 0);
    }
    void TearDown() override {
        stdfs::remove_all(root_);
        stdfs::remove_all(outside_);
    }
    std::string at(const std::string& name) const { return root_ + "/" + name; }

    // The walk's paths relative to the root, in the order yielded.
    std::vector<std::string> walk(DirectoryIterator& it) const {
        std::vector<std::string> paths;
        for (; !it.atEnd(); it.next()) {
            const std::string path = it.currentPath();
            EXPECT_EQ(path.compare(0, root_.size() + 1, root_ + "/"), 0) << path;
            paths.push_back(path.substr(root_.size() + 1));
        }
        return paths;
    }

    std::string root_;
    std::string outside_;
};

using Paths = std::set<std::string>;

// ---------------------------------------------------------------------------------------
// DirectoryReader

TEST_F(DirectoryTest, ReaderReadsFixedTypesAndRewinds) {
    DirectoryReader reader;
    EXPECT_FALSE(reader.isOpen());
    EXPECT_FALSE(reader.open(nullptr));
    EXPECT_FALSE(reader.open(at("missing").c_str()));
    EXPECT_FALSE(reader.rewind());
    EXPECT_EQ(reader.readEntry(), nullptr);
    EXPECT_FALSE(reader.close());

    ASSERT_TRUE(reader.open(root_.c_str(), 7));
    EXPECT_FALSE(reader.open(at("sub").c_str()));  // the first directory stays
    EXPECT_EQ(reader.flags(), 7U);
    std::set<std::pair<std::string, int>> first;
    while (const dirent64* entry = reader.readEntry()) {
        first.emplace(entry->d_name, entry->d_type);
    }
    EXPECT_EQ(first.count({"linkdir", DT_LNK}), 1U);
    EXPECT_EQ(first.count({"dangling", DT_LNK}), 1U);
    EXPECT_EQ(first.count({"sub", DT_DIR}), 1U);
    EXPECT_EQ(first.count({"a.txt", DT_REG}), 1U);
    EXPECT_EQ(first.size(), 8U);

    EXPECT_TRUE(reader.rewind());
    std::set<std::pair<std::string, int>> again;
    while (const dirent64* entry = reader.readEntry()) {
        again.emplace(entry->d_name, entry->d_type);
    }
    EXPECT_EQ(again, first);
    EXPECT_TRUE(reader.close());
    EXPECT_FALSE(reader.isOpen());
    EXPECT_TRUE(reader.open(at("sub").c_str()));  // reusable after close
}

// ---------------------------------------------------------------------------------------
// DirectoryIterator: what is yielded

TEST_F(DirectoryTest, IteratorSelectsByModeAndFilters) {
    constexpr bool kAll = true;
    constexpr bool kDirsOnly = false;
    constexpr bool kDeep = true;
    constexpr bool kFlat = false;
    static const struct {
        const char* name;
        const char* filter;
        Paths expected;
        uint32_t flags;
        bool includeAll;
        bool recursive;
    } kCases[] = {
        // The dangling link is never yielded: stat fails on it.
        {"all, flat", nullptr, {"a.txt", "b.log", "linkfile", "linkdir", "sub"}, 0, kAll, kFlat},
        {"directories, flat", nullptr, {"linkdir", "sub"}, 0, kDirsOnly, kFlat},
        // Links are yielded but not descended into: nothing from outside.
        {"directories, deep", nullptr, {"linkdir", "sub", "sub/deep"}, 0, kDirsOnly, kDeep},
        {"all, deep",
         nullptr,
         {"a.txt", "b.log", "linkfile", "linkdir", "sub", "sub/c.txt", "sub/deep",
          "sub/deep/d.txt"},
         0,
         kAll,
         kDeep},
        // "sub" fails the name filter, so it is not descended into either.
        {"include by name", R"(.*\.txt)", {"a.txt"}, 0, kAll, kDeep},
        {"exclude by name",
         R"(.*\.txt)",
         {"b.log", "linkfile", "linkdir", "sub", "sub/deep"},
         kFilterExclude,
         kAll,
         kDeep},
        {"include by relative path",
         "sub(/.*)?",
         {"sub", "sub/c.txt", "sub/deep", "sub/deep/d.txt"},
         kFilterRelativePath,
         kAll,
         kDeep},
        {"exclude by relative path",
         "sub/deep",
         {"a.txt", "b.log", "linkfile", "linkdir", "sub", "sub/c.txt"},
         kFilterRelativePath | kFilterExclude,
         kAll,
         kDeep},
        {"include by full path",
         R"(/tmp/nuvra_dir_\w+/b\.log)",
         {"b.log"},
         kFilterFullPath,
         kAll,
         kFlat},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        DirectoryIterator it;
        if (c.filter != nullptr) {
            ASSERT_EQ(it.addFilter(c.filter, c.flags), 0);
        }
        ASSERT_TRUE(it.open(c.includeAll, c.recursive, root_));
        const std::vector<std::string> paths = walk(it);
        EXPECT_EQ(Paths(paths.begin(), paths.end()), c.expected);
        EXPECT_EQ(paths.size(), c.expected.size()) << "an entry was yielded twice";
    }
}

TEST_F(DirectoryTest, FilterConstructorAndIncludeFiltersCombine) {
    DirectoryIterator it(R"(a\..*)", 0, true, false, root_);
    ASSERT_EQ(it.addFilter(R"(b\..*)", 0), 0);  // added after open: applies from now on
    EXPECT_EQ(walk(it), (std::vector<std::string>{"a.txt"}));
    ASSERT_TRUE(it.open(true, false, root_));
    const std::vector<std::string> paths = walk(it);
    EXPECT_EQ(Paths(paths.begin(), paths.end()), (Paths{"a.txt", "b.log"}));
}

TEST_F(DirectoryTest, DirectoryComesBeforeItsContents) {
    DirectoryIterator it(true, true, root_);
    const std::vector<std::string> paths = walk(it);
    const auto position = [&paths](const std::string& path) {
        return std::find(paths.begin(), paths.end(), path) - paths.begin();
    };
    EXPECT_LT(position("sub"), position("sub/c.txt"));
    EXPECT_LT(position("sub"), position("sub/deep"));
    EXPECT_LT(position("sub/deep"), position("sub/deep/d.txt"));
}

TEST_F(DirectoryTest, AddFilterRefusesBadPatterns) {
    DirectoryIterator it;
    static const char* const kBad[] = {"", "(", "[a-", "a{2,1}", "*x"};
    for (const char* pattern : kBad) {
        SCOPED_TRACE(pattern);
        EXPECT_EQ(it.addFilter(pattern, 0), -1);
    }
    EXPECT_EQ(it.addFilter("(?i)A\\.TXT", 0), 0);  // Perl syntax
    ASSERT_TRUE(it.open(true, false, root_));
    EXPECT_EQ(walk(it), (std::vector<std::string>{"a.txt"}));
}

// ---------------------------------------------------------------------------------------
// DirectoryIterator: roots, ends and queries

TEST_F(DirectoryTest, EmptyDirectoryIsAtEndAtOnce) {
    ASSERT_EQ(mkdir(at("empty").c_str(), 0700), 0);
    DirectoryIterator it;
    EXPECT_TRUE(it.atEnd());
    EXPECT_FALSE(it.next());
    ASSERT_TRUE(it.open(true, true, at("empty")));
    EXPECT_TRUE(it.atEnd());
    EXPECT_FALSE(it.next());
    EXPECT_EQ(it.currentPath(), "");
    EXPECT_EQ(it.currentMode(), 0U);
    EXPECT_EQ(it.currentChangeTime(), 0);
    EXPECT_FALSE(it.isDirectory());
    EXPECT_FALSE(it.isRegularFile());

    EXPECT_FALSE(it.open(true, true, at("missing")));
    EXPECT_TRUE(it.atEnd());
    EXPECT_FALSE(it.open(true, true, at("a.txt")));
}

TEST_F(DirectoryTest, RootsRelativeEmptyNullAndWithTrailingSeparator) {
    const stdfs::path oldCwd = stdfs::current_path();
    stdfs::current_path(root_);
    DirectoryIterator relative(true, false, "sub");
    DirectoryIterator empty(false, false, "");
    DirectoryIterator null(false, false, static_cast<const char*>(nullptr));
    stdfs::current_path(oldCwd);
    DirectoryIterator trailing(true, false, at("sub/deep/"));

    ASSERT_FALSE(relative.atEnd());
    EXPECT_EQ(stdfs::path(relative.currentPath()).parent_path(), at("sub"));
    for (DirectoryIterator* it : {&empty, &null}) {
        const std::vector<std::string> paths = walk(*it);
        EXPECT_EQ(Paths(paths.begin(), paths.end()), (Paths{"linkdir", "sub"}));
    }
    ASSERT_FALSE(trailing.atEnd());
    EXPECT_EQ(trailing.currentPath(), at("sub/deep/d.txt"));
}

TEST_F(DirectoryTest, QueriesFollowLinksAndSeeVanishedEntries) {
    DirectoryIterator it(R"(linkdir|linkfile|b\.log)", 0, true, false, root_);
    size_t seen = 0;
    for (; !it.atEnd(); it.next(), ++seen) {
        const std::string name = stdfs::path(it.currentPath()).filename();
        SCOPED_TRACE(name);
        EXPECT_EQ(it.isDirectory(), name == "linkdir");
        EXPECT_EQ(it.isRegularFile(), name != "linkdir");
        EXPECT_EQ(S_ISDIR(it.currentMode()), name == "linkdir");
        EXPECT_GT(it.currentChangeTime(), 0);
        if (name == "b.log") {
            ASSERT_EQ(unlink(it.currentPath().c_str()), 0);
            EXPECT_FALSE(it.isRegularFile());
            EXPECT_EQ(it.currentMode(), 0U);
            EXPECT_EQ(it.currentChangeTime(), 0);
        }
    }
    EXPECT_EQ(seen, 3U);
}

TEST_F(DirectoryTest, OpenDirectoriesAreNotInherited) {
    const std::set<int> before = inheritableFds();
    DirectoryIterator it(true, true, root_);
    while (!it.atEnd() && it.currentPath() != at("sub/deep/d.txt")) {
        it.next();
    }
    ASSERT_FALSE(it.atEnd());  // three directories open now
    DirectoryReader reader;
    ASSERT_TRUE(reader.open(root_.c_str()));
    EXPECT_EQ(inheritableFds(), before);
}

// ---------------------------------------------------------------------------------------
// removeMatching

TEST_F(DirectoryTest, RemoveMatchingRemovesOnlyMatchingRegularFiles) {
    writeFile(at("e.txt"), "e");
    ASSERT_EQ(mkdir(at("dir.txt").c_str(), 0700), 0);
    ASSERT_EQ(symlink(at("b.log").c_str(), at("link.txt").c_str()), 0);
    ASSERT_EQ(symlink((outside_ + "/o.txt").c_str(), at("out.txt").c_str()), 0);

    EXPECT_TRUE(removeMatching(root_, R"(.*\.txt)"));
    std::set<std::string> left;
    for (const auto& entry : stdfs::directory_iterator(root_)) {
        left.insert(entry.path().filename());
    }
    EXPECT_EQ(left, (Paths{"b.log", "dir.txt", "linkfile", "linkdir", "dangling", "sub"}));
    EXPECT_TRUE(stdfs::exists(at("sub/c.txt")));
    EXPECT_TRUE(stdfs::exists(outside_ + "/o.txt"));  // the link went, not its target
}

TEST_F(DirectoryTest, RemoveMatchingFailures) {
    EXPECT_FALSE(removeMatching(root_, "("));  // nothing removed for a bad pattern
    EXPECT_TRUE(stdfs::exists(at("a.txt")));
    EXPECT_FALSE(removeMatching(at("missing"), ".*"));
    EXPECT_TRUE(removeMatching(root_, "nothing-matches"));
}

}  // namespace
}  // namespace nuvra::utils
