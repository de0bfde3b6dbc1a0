// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/random_source.h"

#include <cstdlib>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "nuvra/testing/temp_dir_test_util.h"

namespace nuvra::utils {
namespace {

// A source over a device file of "\xaa" (skipped), the seed word 0x04030201 and `bytes`.
RandomSource sourceOver(const testing::TempDir& dir, const std::string& bytes) {
    testing::writeFile(dir.at("device"), "\xaa\x01\x02\x03\x04" + bytes);
    return RandomSource(dir.at("device").c_str());
}

TEST(RandomSourceDevice, WordsAddSignExtendedBytesAfterTheSkippedByteAndTheSeed) {
    const testing::TempDir dir;
    auto source = sourceOver(dir, std::string("\xff\xff\xff\xff\x00\x00\x01\x80", 8) +
                                      std::string(8, '\xff') + "\x10xy");
    EXPECT_EQ(source.seed(), 0x04030201u);
    EXPECT_EQ(source.getUInt32(), 0xFEFEFEFFu);
    EXPECT_EQ(source.nextUInt32(), 0x00000080u);
    EXPECT_EQ(source.nextUInt64(), 0xFEFEFEFEFEFEFEFFull);
    EXPECT_EQ(source.getByte(), 0x10u);
    // A device that runs short repeats its last byte, then a full fresh count is appended.
    std::string out = "stale";
    EXPECT_TRUE(source.getBytes(out, -1).empty() && source.getBytes(out, 0).empty());
    EXPECT_EQ(source.getBytes(out, 4).size(), 7u);
    EXPECT_EQ(out.substr(0, 3), "xyy");
    EXPECT_EQ(source.requestCount(), 3u);
    // Past the end single bytes come from rand(): its top eight bits.
    std::srand(99);
    const uint32_t expected = static_cast<uint32_t>(std::rand()) >> 23;
    std::srand(99);
    EXPECT_EQ(source.getByte(), expected);
}

// The MD5 of "0123456789abcdef", then the start of that of "ghijklmnopqrstuv": each round
// hashes its own 16 bytes only.
TEST(RandomSourceDevice, RandomTextIsTheMd5OfEachRoundsBytes) {
    const testing::TempDir dir;
    auto source = sourceOver(dir, "0123456789abcdefghijklmnopqrstuv");
    std::string text;
    EXPECT_EQ(source.getRandomText(text, 0), "");
    EXPECT_EQ(source.requestCount(), 0u);  // no random data read
    EXPECT_EQ(source.getRandomText(text, 40), "4032af8d61035123906e58e067140cc5fca70e9d");
}

// Each new thread seeds rand() once; bytes then come from RAND_bytes.
TEST(RandomSourceFallback, SeedsRandOncePerThread) {
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            RandomSource first("/nonexistent/nuvra-random");
            std::string bytes;
            EXPECT_EQ(first.getBytes(bytes, 16).size(), 16u);
            EXPECT_NE(first.seed(), 0u);
            EXPECT_EQ(RandomSource("/nonexistent/nuvra-random").seed(), 0u);  // not seeded again
        }).join();
    }
}

TEST(RandomSourceUniqueId, AtMost32HexCharactersThatDoNotRepeat) {
    const std::string id = RandomSource::makeUniqueId(100);
    EXPECT_EQ(id.size(), 32u);
    EXPECT_EQ(id.find_first_not_of("0123456789abcdef"), std::string::npos) << id;
    EXPECT_NE(RandomSource::makeUniqueId(8), id.substr(0, 8));
}

// Where the device ends, a failed extraction appended its variable again: the last byte read,
// or the zero it started as. When that makes the count, nothing fresh is added.
TEST(RandomSourceDevice, TheRepeatedByteCanMakeTheCount) {
    const testing::TempDir dir;
    std::string out;
    EXPECT_EQ(sourceOver(dir, "abc").getBytes(out, 4), "abcc");
    EXPECT_EQ(sourceOver(dir, "").getBytes(out, 1), std::string(1, '\0'));
}

}  // namespace
}  // namespace nuvra::utils
