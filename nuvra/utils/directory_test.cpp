// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/directory.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "nuvra/testing/isolated_child_test_util.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/utils/filesystem.h"

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;

// root_ holds a.txt b.log fifo sub/c.txt sub/deep/d.txt, sub/up -> root_, and links out of
// the tree: linkfile -> outside_/keep.txt, linkdir -> outside_, dangling -> nothing.
class DirectoryTest : public testing::TempTreeTest {
  protected:
    void SetUp() override {
        TempTreeTest::SetUp();
        ASSERT_EQ(makeDirectory(at("sub/deep").c_str(), 0700, kMakeParents), 0);
        for (const char* name : {"a.txt", "b.log", "sub/c.txt", "sub/deep/d.txt"}) {
            testing::writeFile(at(name), name);
        }
        ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);  // blocks whoever opens it
        ASSERT_EQ(symlink((outside_ + "/keep.txt").c_str(), at("linkfile").c_str()), 0);
        ASSERT_EQ(symlink(outside_.c_str(), at("linkdir").c_str()), 0);
        ASSERT_EQ(symlink("/nonexistent", at("dangling").c_str()), 0);
        ASSERT_EQ(symlink("..", at("sub/up").c_str()), 0);
    }

    // The paths a walk yields below `base`, sorted and space-separated. Checks on the way
    // that nothing comes twice and that each entry comes after the directory holding it.
    static std::string walk(DirectoryIterator& it, const std::string& base) {
        std::set<std::string> seen;
        for (; !it.atEnd(); it.next()) {
            const std::string below = stdfs::path(it.currentPath()).lexically_relative(base);
            const std::string parent = stdfs::path(below).parent_path();
            EXPECT_TRUE(parent.empty() || seen.count(parent) == 1) << below;
            EXPECT_TRUE(seen.insert(below).second) << below;
        }
        std::string text;
        for (const std::string& path : seen) {
            text += (text.empty() ? "" : " ") + path;
        }
        return text;
    }
};

TEST_F(DirectoryTest, ReadersReportLinksAsLinks) {
    const std::map<std::string, int> expected = {
        {".", DT_DIR},        {"..", DT_DIR},      {"a.txt", DT_REG},
        {"b.log", DT_REG},    {"fifo", DT_FIFO},   {"sub", DT_DIR},
        {"linkfile", DT_LNK}, {"linkdir", DT_LNK}, {"dangling", DT_LNK}};
    std::map<std::string, int> seen;
    DirectoryReader reader;
    ASSERT_TRUE(reader.open(root_.c_str()));
    EXPECT_FALSE(reader.open(at("sub").c_str()));  // the first directory stays
    while (const dirent64* entry = reader.readEntry()) {
        seen[entry->d_name] = entry->d_type;
    }
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(reader.rewind() && reader.readEntry() != nullptr);
    EXPECT_TRUE(reader.close());
    EXPECT_FALSE(reader.open(nullptr) || reader.rewind() || reader.close() || reader.readEntry());

    dirent64 entry{};                               // as file systems that report no types need it
    for (const char* name : {"linkdir", "gone"}) {  // a failed lstat leaves the type alone
        std::strcpy(entry.d_name, name);
        fixEntryType(&entry, (root_ + "/").c_str());
        EXPECT_EQ(entry.d_type, DT_LNK) << name;
    }
}

TEST_F(DirectoryTest, IteratorSelectsByModeAndFilters) {
    // A dangling link is never yielded (stat fails on it); a link to a directory is entered
    // like one, unless it leads back up the walk; only yielded directories are entered.
    static const struct {
        bool includeAll, recursive;
        const char* filter;  // null: none added
        uint32_t flags;
        const char* expected;
    } kCases[] = {
        {true, false, nullptr, 0, "a.txt b.log fifo linkdir linkfile sub"},
        {false, true, nullptr, 0, "linkdir sub sub/deep sub/up"},
        {true, true, R"(.*\.txt)", 0, "a.txt"},
        {true, true, R"(.*\.txt|sub)", kFilterExclude, "b.log fifo linkdir linkfile"},
        {true, true, "sub(/.*)?", kFilterRelativePath,
         "sub sub/c.txt sub/deep sub/deep/d.txt sub/up"},
        {true, true, "sub/deep", kFilterRelativePath | kFilterExclude,
         "a.txt b.log fifo linkdir linkdir/keep.txt linkfile sub sub/c.txt sub/up"},
        {true, false, R"(/tmp/nuvra_test_\w+/b\.log)", kFilterFullPath, "b.log"},
        {true, false, "(?i)A\\.TXT", 0, "a.txt"},  // Perl syntax
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.expected);
        DirectoryIterator it;
        if (c.filter != nullptr) {
            ASSERT_EQ(it.addFilter(c.filter, c.flags), 0);
        }
        ASSERT_TRUE(it.open(c.includeAll, c.recursive, root_));
        EXPECT_EQ(walk(it, root_), c.expected);
    }
    DirectoryIterator it(R"(a\..*)", 0, true, false, root_);
    ASSERT_EQ(it.addFilter(R"(b\..*)", 0), 0);  // added after open: applies from now on
    ASSERT_TRUE(it.open(true, false, root_));
    EXPECT_EQ(walk(it, root_), "a.txt b.log");  // include filters: any one may match
    EXPECT_EQ(it.addFilter("", 0) + it.addFilter("(", 0) + it.addFilter("a{2,1}", 0), -3);
}

TEST_F(DirectoryTest, RootsEndsAndQueries) {
    const stdfs::path oldCwd = stdfs::current_path();
    stdfs::current_path(root_);
    DirectoryIterator relative(true, false, "sub");
    stdfs::current_path(oldCwd);
    EXPECT_EQ(walk(relative, at("sub")), "c.txt deep up");
    DirectoryIterator it(true, false, at("sub/deep\\"));  // one trailing separator goes
    EXPECT_EQ(walk(it, at("sub/deep")), "d.txt");

    ASSERT_EQ(it.addFilter("linkfile", 0), 0);
    ASSERT_TRUE(it.open(true, false, root_));  // the queries follow links
    EXPECT_TRUE(it.isRegularFile() && S_ISREG(it.currentMode()) && it.currentChangeTime() > 0);
    ASSERT_EQ(mkdir(at("empty").c_str(), 0700), 0);
    ASSERT_TRUE(it.open(true, true, at("empty")));
    EXPECT_FALSE(!it.atEnd() || it.next() || it.isDirectory() || it.isRegularFile());
    EXPECT_TRUE(it.currentPath().empty() && it.currentMode() == 0 && it.currentChangeTime() == 0);
    EXPECT_FALSE(it.open(true, true, at("a.txt")) || it.open(true, false, "/"));
}

TEST_F(DirectoryTest, EntriesThatCannotBeStatedAreNotYielded) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to walk as another user";
    }
    // Others may list sub but not search it: its names can be read, not stat'ed.
    ASSERT_EQ(chmod(root_.c_str(), 0711) + chmod(at("sub").c_str(), 0704), 0);
    const auto result = testing::runIsolated(0, [this] {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
            return std::string("cannot become an unprivileged user");
        }
        DirectoryIterator it;
        return std::to_string(static_cast<int>(it.open(true, true, at("sub")))) +
               walk(it, at("sub"));
    });
    EXPECT_EQ(result.output, "1");  // opened, and nothing yielded
}

TEST_F(DirectoryTest, RemoveMatchingRemovesOnlyMatchingRegularFiles) {
    ASSERT_EQ(symlink(at("b.log").c_str(), at("link.txt").c_str()), 0);
    ASSERT_EQ(mkdir(at("dir.txt").c_str(), 0700), 0);
    EXPECT_FALSE(removeMatching(root_, "") || removeMatching(root_, "(") ||
                 removeMatching(at("missing"), ".*"));
    EXPECT_TRUE(removeMatching(root_, R"(.*\.txt|linkfile)"));
    DirectoryIterator left(true, true, root_);
    EXPECT_EQ(walk(left, root_),
              "b.log dir.txt fifo linkdir linkdir/keep.txt sub sub/c.txt sub/deep sub/deep/d.txt "
              "sub/up");
    expectOutsideUntouched();  // the link went, not its target
}

}  // namespace
}  // namespace nuvra::utils
