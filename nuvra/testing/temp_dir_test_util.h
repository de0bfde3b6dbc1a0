// SPDX-License-Identifier: Apache-2.0
// Test support: temporary directories that remove themselves, whole-file reads and writes,
// and a fixture with a fresh tree plus a second directory standing for "outside the tree".
//
// For nuvra's tests only: not part of the library.

#ifndef NUVRA_TESTING_TEMP_DIR_TEST_UTIL_H_
#define NUVRA_TESTING_TEMP_DIR_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace nuvra::testing {

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// Read through stdio: GCC 12 at -O2 warns of a null dereference inside <streambuf> for the
// stream-iterator form.
inline std::string readFile(const std::string& path) {
    std::string content;
    if (std::FILE* file = std::fopen(path.c_str(), "rbe")) {
        char chunk[4096];
        size_t got = 0;
        while ((got = std::fread(chunk, 1, sizeof chunk, file)) > 0) {
            content.append(chunk, got);
        }
        static_cast<void>(std::fclose(file));
    }
    return content;
}

// A new directory under /tmp, removed with everything in it when the object goes. path() is
// empty when the directory could not be made; ok() says so.
class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/nuvra_test_XXXXXX";
        if (mkdtemp(name) != nullptr) {
            path_ = name;
        } else {
            error_ = std::strerror(errno);
        }
    }
    ~TempDir() {
        if (!path_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(path_, ignored);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& error() const { return error_; }
    const std::string& path() const { return path_; }
    std::string at(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
    std::string error_;
};

// Each test gets root_ (empty) and outside_ (holding only keep.txt), to show that an
// operation on the tree left everything else alone.
class TempTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(tree_.ok()) << tree_.error();
        ASSERT_TRUE(beside_.ok()) << beside_.error();
        root_ = tree_.path();
        outside_ = beside_.path();
        writeFile(outside_ + "/keep.txt", "outside");
    }
    std::string at(const std::string& name) const { return tree_.at(name); }

    void expectOutsideUntouched() const {
        EXPECT_EQ(readFile(outside_ + "/keep.txt"), "outside");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outside_),
                                std::filesystem::directory_iterator()),
                  1);
    }

    TempDir tree_;
    TempDir beside_;
    std::string root_;
    std::string outside_;
};

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_TEMP_DIR_TEST_UTIL_H_
