#include "nuvra/utils/directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/utils/filesystem.h"

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;
using testing::writeFile;

// The tree under root_, with links out of it:
//   a.txt  b.log  linkfile -> a.txt  linkdir -> outside_  dangling -> (nothing)
//   sub/c.txt  sub/deep/d.txt
class DirectoryTest : public testing::TempTreeTest {
  protected:
    void SetUp() override {
        TempTreeTest::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        writeFile(at("a.txt"), "a");
        writeFile(at("b.log"), "b");
        ASSERT_EQ(mkdir(at("sub").c_str(), 0700), 0);
        ASSERT_EQ(mkdir(at("sub/deep").c_str(), 0700), 0);
        writeFile(at("sub/c.txt"), "c");
        writeFile(at("sub/deep/d.txt"), "d");
        ASSERT_EQ(symlink(at("a.txt").c_str(), at("linkfile").c_str()), 0);
        ASSERT_EQ(symlink(outside_.c_str(), at("linkdir").c_str()), 0);
        ASSERT_EQ(symlink("/nonexistent", at("dangling").c_str()), 0);
    }

    // The paths the walk yields below `base`, sorted and joined with spaces. Checks on the way
    // that nothing comes twice and that every entry comes after its directory, which was
    // itself yielded: only yielded directories are descended into.
    static std::string walk(DirectoryIterator& it, const std::string& base) {
        std::set<std::string> seen;
        for (; !it.atEnd(); it.next()) {
            const std::string path = it.currentPath();
            EXPECT_EQ(path.compare(0, base.size() + 1, base + "/"), 0) << path;
            const std::string below = path.substr(base.size() + 1);
            const std::string parent = stdfs::path(below).parent_path();
            EXPECT_TRUE(parent.empty() || seen.count(parent) == 1) << below;
            EXPECT_TRUE(seen.insert(below).second) << below;
        }
        return joined(seen);
    }
    static std::string joined(const std::set<std::string>& names) {
        std::string text;
        for (const std::string& name : names) {
            text += (text.empty() ? "" : " ") + name;
        }
        return text;
    }
};

TEST_F(DirectoryTest, ReaderReportsLinksAsLinksAndRewinds) {
    DirectoryReader reader;
    EXPECT_FALSE(reader.open(nullptr) || reader.open(at("missing").c_str()));
    EXPECT_FALSE(reader.rewind() || reader.close() || reader.isOpen());
    EXPECT_EQ(reader.readEntry(), nullptr);

    ASSERT_TRUE(reader.open(root_.c_str()));
    EXPECT_FALSE(reader.open(at("sub").c_str()));  // the first directory stays
    const std::set<std::pair<std::string, int>> expected = {
        {".", DT_DIR},   {"..", DT_DIR},       {"a.txt", DT_REG},   {"b.log", DT_REG},
        {"sub", DT_DIR}, {"linkfile", DT_LNK}, {"linkdir", DT_LNK}, {"dangling", DT_LNK}};
    for (int pass = 0; pass < 2; ++pass) {
        SCOPED_TRACE(pass);
        std::set<std::pair<std::string, int>> seen;
        while (const dirent64* entry = reader.readEntry()) {
            seen.emplace(entry->d_name, entry->d_type);
        }
        EXPECT_EQ(seen, expected);
        EXPECT_TRUE(reader.rewind());
    }
    EXPECT_TRUE(reader.close());
    EXPECT_TRUE(reader.open(at("sub").c_str()));  // reusable after close
}

TEST_F(DirectoryTest, IteratorSelectsByModeAndFilters) {
    // The default filter drops "." and "..". The dangling link is never yielded (stat fails
    // on it); links are yielded but never descended into, so nothing comes from outside.
    // Only yielded directories are descended into.
    static const struct {
        bool includeAll, recursive;
        const char* filter;  // null: none added
        uint32_t flags;
        const char* expected;
    } kCases[] = {
        {true, false, nullptr, 0, "a.txt b.log linkdir linkfile sub"},
        {false, false, nullptr, 0, "linkdir sub"},
        {false, true, nullptr, 0, "linkdir sub sub/deep"},
        {true, true, nullptr, 0,
         "a.txt b.log linkdir linkfile sub sub/c.txt sub/deep sub/deep/d.txt"},
        {true, true, R"(.*\.txt)", 0, "a.txt"},
        {true, true, R"(.*\.txt)", kFilterExclude, "b.log linkdir linkfile sub sub/deep"},
        {true, true, "sub(/.*)?", kFilterRelativePath, "sub sub/c.txt sub/deep sub/deep/d.txt"},
        {true, true, "sub/deep", kFilterRelativePath | kFilterExclude,
         "a.txt b.log linkdir linkfile sub sub/c.txt"},
        {true, false, R"(/tmp/nuvra_test_\w+/b\.log)", kFilterFullPath, "b.log"},
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
    EXPECT_EQ(walk(it, root_), "a.txt");
    ASSERT_TRUE(it.open(true, false, root_));
    EXPECT_EQ(walk(it, root_), "a.txt b.log");  // include filters: any one may match
}

TEST_F(DirectoryTest, AddFilterRefusesBadPatterns) {
    DirectoryIterator it;
    for (const char* pattern : {"", "(", "[a-", "a{2,1}", "*x"}) {
        SCOPED_TRACE(pattern);
        EXPECT_EQ(it.addFilter(pattern, 0), -1);
    }
    EXPECT_EQ(it.addFilter("(?i)A\\.TXT", 0), 0);  // Perl syntax
    ASSERT_TRUE(it.open(true, false, root_));
    EXPECT_EQ(walk(it, root_), "a.txt");
}

TEST_F(DirectoryTest, RootsAndEnds) {
    const stdfs::path oldCwd = stdfs::current_path();
    stdfs::current_path(root_);
    DirectoryIterator relative(true, false, "sub");
    DirectoryIterator empty(false, false, "");
    DirectoryIterator null(false, false, static_cast<const char*>(nullptr));
    stdfs::current_path(oldCwd);
    EXPECT_EQ(walk(relative, at("sub")), "c.txt deep");
    EXPECT_EQ(walk(empty, root_), "linkdir sub");
    EXPECT_EQ(walk(null, root_), "linkdir sub");
    DirectoryIterator trailing(true, false, at("sub/deep/"));
    EXPECT_EQ(walk(trailing, at("sub/deep")), "d.txt");

    ASSERT_EQ(mkdir(at("empty").c_str(), 0700), 0);
    DirectoryIterator it;
    EXPECT_TRUE(it.atEnd());
    EXPECT_FALSE(it.next());
    ASSERT_TRUE(it.open(true, true, at("empty")));
    EXPECT_TRUE(it.atEnd());
    EXPECT_FALSE(it.next() || it.isDirectory() || it.isRegularFile());
    EXPECT_EQ(it.currentPath(), "");
    EXPECT_EQ(it.currentMode(), 0U);
    EXPECT_EQ(it.currentChangeTime(), 0);
    EXPECT_FALSE(it.open(true, true, at("missing")));
    EXPECT_TRUE(it.atEnd());
    EXPECT_FALSE(it.open(true, true, at("a.txt")));
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

TEST_F(DirectoryTest, RemoveMatchingRemovesOnlyMatchingRegularFiles) {
    const auto left = [this] {
        std::set<std::string> names;
        for (const auto& entry : stdfs::directory_iterator(root_)) {
            names.insert(entry.path().filename());
        }
        return joined(names);
    };
    EXPECT_FALSE(removeMatching(root_, "("));
    EXPECT_FALSE(removeMatching(at("missing"), ".*"));
    EXPECT_TRUE(removeMatching(root_, "nothing-matches"));
    EXPECT_EQ(left(), "a.txt b.log dangling linkdir linkfile sub");

    writeFile(at("e.txt"), "e");
    ASSERT_EQ(mkdir(at("dir.txt").c_str(), 0700), 0);
    ASSERT_EQ(symlink(at("b.log").c_str(), at("link.txt").c_str()), 0);
    ASSERT_EQ(symlink((outside_ + "/keep.txt").c_str(), at("out.txt").c_str()), 0);
    EXPECT_TRUE(removeMatching(root_, R"(.*\.txt)"));
    EXPECT_EQ(left(), "b.log dangling dir.txt linkdir linkfile sub");
    EXPECT_TRUE(stdfs::exists(at("sub/c.txt")));
    expectOutsideUntouched();  // the link went, not its target
}

}  // namespace
}  // namespace nuvra::utils
