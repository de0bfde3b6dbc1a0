#include "nuvra/utils/directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/utils/filesystem.h"

namespace nuvra::utils {
namespace {

namespace stdfs = std::filesystem;

// root_ holds a.txt b.log fifo sub/c.txt sub/deep/d.txt, and links out of the tree:
// linkfile -> outside_/keep.txt, linkdir -> outside_, dangling -> nothing.
class DirectoryTest : public testing::TempTreeTest {
  protected:
    void SetUp() override {
        TempTreeTest::SetUp();
        ASSERT_EQ(mkdir(at("sub").c_str(), 0700), 0);
        ASSERT_EQ(mkdir(at("sub/deep").c_str(), 0700), 0);
        for (const char* name : {"a.txt", "b.log", "sub/c.txt", "sub/deep/d.txt"}) {
            testing::writeFile(at(name), name);
        }
        ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);  // blocks whoever opens it
        ASSERT_EQ(symlink((outside_ + "/keep.txt").c_str(), at("linkfile").c_str()), 0);
        ASSERT_EQ(symlink(outside_.c_str(), at("linkdir").c_str()), 0);
        ASSERT_EQ(symlink("/nonexistent", at("dangling").c_str()), 0);
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
    DirHandle* handle = openDir((root_ + "/").c_str());
    ASSERT_NE(handle, nullptr);
    dirent64 unknown{};  // as from file systems that report no types
    while (const dirent64* entry = readDirEntry(handle)) {
        std::strcpy(unknown.d_name, entry->d_name);
        unknown.d_type = DT_UNKNOWN;
        fixEntryType(&unknown, handle->path);
        EXPECT_EQ(entry->d_type, expected.at(entry->d_name)) << entry->d_name;
        EXPECT_EQ(unknown.d_type, entry->d_type) << entry->d_name;
    }
    closeDir(handle);
    std::strcpy(unknown.d_name, "gone");
    unknown.d_type = DT_SOCK;
    fixEntryType(&unknown, root_.c_str());
    EXPECT_EQ(unknown.d_type, DT_SOCK);  // lstat failed: left as it was

    EXPECT_TRUE(reader.rewind());
    EXPECT_NE(reader.readEntry(), nullptr);
    EXPECT_TRUE(reader.close());
    EXPECT_FALSE(reader.open(at("missing").c_str()) || reader.open(nullptr) || reader.rewind() ||
                 reader.close() || reader.readEntry());
    EXPECT_EQ(openDir(nullptr), nullptr);
    closeDir(nullptr);
}

TEST_F(DirectoryTest, IteratorSelectsByModeAndFilters) {
    // A dangling link is never yielded (stat fails on it); links are yielded but not
    // descended into, and only yielded directories are descended into.
    static const struct {
        bool includeAll, recursive;
        const char* filter;  // null: none added
        uint32_t flags;
        const char* expected;
    } kCases[] = {
        {true, false, nullptr, 0, "a.txt b.log fifo linkdir linkfile sub"},
        {false, true, nullptr, 0, "linkdir sub sub/deep"},
        {true, true, R"(.*\.txt)", 0, "a.txt"},
        {true, true, R"(.*\.txt|sub)", kFilterExclude, "b.log fifo linkdir linkfile"},
        {true, true, "sub(/.*)?", kFilterRelativePath, "sub sub/c.txt sub/deep sub/deep/d.txt"},
        {true, true, "sub/deep", kFilterRelativePath | kFilterExclude,
         "a.txt b.log fifo linkdir linkfile sub sub/c.txt"},
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
    for (const char* pattern : {"", "(", "a{2,1}"}) {
        EXPECT_EQ(it.addFilter(pattern, 0), -1) << pattern;
    }
}

TEST_F(DirectoryTest, RootsEndsAndQueries) {
    const stdfs::path oldCwd = stdfs::current_path();
    stdfs::current_path(root_);
    DirectoryIterator relative(true, false, "sub");
    DirectoryIterator null(false, false, static_cast<const char*>(nullptr));  // as ""
    stdfs::current_path(oldCwd);
    EXPECT_EQ(walk(relative, at("sub")), "c.txt deep");
    EXPECT_EQ(walk(null, root_), "linkdir sub");
    DirectoryIterator trailing(true, false, at("sub/deep\\"));
    EXPECT_EQ(walk(trailing, at("sub/deep")), "d.txt");

    DirectoryIterator it(R"(linkdir|linkfile)", 0, true, false, root_);
    int links = 0;
    for (; !it.atEnd(); it.next(), ++links) {  // the queries follow links
        EXPECT_EQ(it.isDirectory(), S_ISDIR(it.currentMode()));
        EXPECT_NE(it.isDirectory(), it.isRegularFile());
        EXPECT_GT(it.currentChangeTime(), 0);
    }
    EXPECT_EQ(links, 2);
    DirectoryIterator fresh;
    EXPECT_TRUE(fresh.atEnd() && !fresh.next());
    ASSERT_EQ(mkdir(at("empty").c_str(), 0700), 0);
    ASSERT_TRUE(it.open(true, true, at("empty")));
    EXPECT_TRUE(it.atEnd());
    EXPECT_FALSE(it.next() || it.isDirectory() || it.isRegularFile());
    EXPECT_EQ(it.currentPath(), "");
    EXPECT_EQ(it.currentMode() + it.currentChangeTime(), 0);
    EXPECT_FALSE(it.open(true, true, at("a.txt")));
}

TEST_F(DirectoryTest, RemoveMatchingRemovesOnlyMatchingRegularFiles) {
    ASSERT_EQ(symlink(at("b.log").c_str(), at("link.txt").c_str()), 0);
    ASSERT_EQ(mkdir(at("dir.txt").c_str(), 0700), 0);
    EXPECT_FALSE(removeMatching(root_, "(") || removeMatching(at("missing"), ".*"));
    EXPECT_TRUE(removeMatching(root_, R"(.*\.txt|linkfile)"));
    DirectoryIterator left(true, true, root_);
    EXPECT_EQ(walk(left, root_),
              "b.log dir.txt fifo linkdir sub sub/c.txt sub/deep sub/deep/d.txt");
    expectOutsideUntouched();  // the link went, not its target
}

}  // namespace
}  // namespace nuvra::utils
