// Test support: a fixture that gives each test a fresh directory under /tmp and a second one
// beside it, standing for "outside the tree" (holding keep.txt), both removed afterwards.
//
// Internal to nuvra's tests: not part of the library.

#ifndef NUVRA_UTILS_INTERNAL_TEMP_TREE_H_
#define NUVRA_UTILS_INTERNAL_TEMP_TREE_H_

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace nuvra::utils::internal {

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class TempTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (std::string* dir : {&root_, &outside_}) {
            char name[] = "/tmp/nuvra_test_XXXXXX";
            ASSERT_NE(mkdtemp(name), nullptr) << std::strerror(errno);
            *dir = name;
        }
        writeFile(outside_ + "/keep.txt", "outside");
    }
    void TearDown() override {
        std::filesystem::remove_all(root_);
        std::filesystem::remove_all(outside_);
    }
    std::string at(const std::string& name) const { return root_ + "/" + name; }

    void expectOutsideUntouched() const {
        EXPECT_EQ(readFile(outside_ + "/keep.txt"), "outside");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outside_),
                                std::filesystem::directory_iterator()),
                  1);
    }

    std::string root_;
    std::string outside_;
};

}  // namespace nuvra::utils::internal

#endif  // NUVRA_UTILS_INTERNAL_TEMP_TREE_H_
