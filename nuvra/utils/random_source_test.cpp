#include "nuvra/utils/random_source.h"

#include <openssl/evp.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "nuvra/testing/temp_dir_test_util.h"
#include "nuvra/tiny/clock.h"
#include "nuvra/tiny/tls.h"
#include "nuvra/utils/format.h"

namespace nuvra::utils {
namespace {


// A source reading "\xaa" (skipped), the seed word 0x04030201 and `bytes` where the system's
// random device would be.
std::unique_ptr<RandomSource> sourceOver(const testing::TempDir& dir, const std::string& bytes) {
    testing::writeFile(dir.at("device"), "\xaa\x01\x02\x03\x04" + bytes);
    return std::make_unique<RandomSource>(dir.at("device").c_str());
}

TEST(RandomSourceDevice, WordsAddSignExtendedBytesAfterTheSkippedByteAndTheSeed) {
    const testing::TempDir dir;
    const auto source = sourceOver(
        dir, std::string("\xff\xff\xff\xff\x00\x00\x01\x80", 8) + std::string(8, '\xff') + "\x10");
    EXPECT_EQ(source->seed(), 0x04030201u);
    EXPECT_EQ(source->getUInt32(), 0xFEFEFEFFu);
    EXPECT_EQ(source->nextUInt32(), 0x00000080u);
    EXPECT_EQ(source->nextUInt64(), 0xFEFEFEFEFEFEFEFFull);
    EXPECT_EQ(source->getByte(), 0x10u);
    // At the device's end single bytes come from rand(): its top eight bits.
    std::srand(99);
    const uint32_t expected = static_cast<uint32_t>(std::rand()) >> 23;
    std::srand(99);
    EXPECT_EQ(source->getByte(), expected);
}

TEST(RandomSourceDevice, ShortDeviceRepeatsItsLastByteThenAppendsAFullFreshCount) {
    const testing::TempDir dir;
    const auto source = sourceOver(dir, "xy");
    std::string out = "stale";
    EXPECT_EQ(source->getBytes(out, -1), "");
    EXPECT_EQ(source->getBytes(out, 0), "");
    EXPECT_EQ(source->getBytes(out, 4).size(), 7u);
    EXPECT_EQ(out.substr(0, 3), "xyy");  // "y" again from the failed read
    EXPECT_EQ(source->requestCount(), 3u);
}

TEST(RandomSourceDevice, RandomTextIsTheMd5OfEachRoundsBytes) {
    const auto md5Hex = [](const std::string& data) {
        unsigned char digest[16];
        EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_md5(), nullptr);
        return toHex(std::string(reinterpret_cast<const char*>(digest), sizeof digest));
    };
    const testing::TempDir dir;
    const auto source = sourceOver(dir, "0123456789abcdefghijklmnopqrstuv");
    std::string text;
    EXPECT_EQ(source->getRandomText(text, 0), "");
    EXPECT_EQ(source->requestCount(), 0u);  // no random data read
    EXPECT_EQ(source->getRandomText(text, 40),
              (md5Hex("0123456789abcdef") + md5Hex("ghijklmnopqrstuv")).substr(0, 40));
}

// Returns the seeds of two sources built without a device in a new thread.
std::pair<uint32_t, uint32_t> seedTwiceInNewThread() {
    std::pair<uint32_t, uint32_t> seeds;
    std::thread([&seeds] {
        const uint32_t before = tiny::currentTimeMs();
        const auto first = std::make_unique<RandomSource>("/nonexistent/nuvra-random");
        const uint32_t elapsed = tiny::currentTimeMs() - before;
        // Once the ids are taken out, what is left is the clock read during construction.
        const auto process = static_cast<uint32_t>(tiny::currentProcessId());
        const auto thread = static_cast<uint32_t>(tiny::currentThreadId());
        EXPECT_LE((first->seed() ^ ((process ^ thread) << 16) ^ thread) - before, elapsed);
        std::string bytes;
        EXPECT_EQ(first->getBytes(bytes, 16).size(), 16u);  // from RAND_bytes
        EXPECT_LT(first->getByte(), 256u);                  // from rand()
        seeds = {first->seed(), std::make_unique<RandomSource>("/nonexistent/nuvra-random")->seed()};
    }).join();
    return seeds;
}

TEST(RandomSourceFallback, SeedsRandOncePerThreadFromTheIdsAndTheClock) {
    const auto [first, second] = seedTwiceInNewThread();
    EXPECT_NE(first, 0u);
    EXPECT_EQ(second, 0u);                        // not seeded again
    EXPECT_NE(seedTwiceInNewThread().first, 0u);  // a new thread seeds again
}

TEST(RandomSourceUniqueId, AtMost32HexCharactersThatDoNotRepeat) {
    EXPECT_TRUE(RandomSource().haveDevice());  // the system's device
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
    EXPECT_EQ(sourceOver(dir, "abc")->getBytes(out, 4), "abcc");
    EXPECT_EQ(sourceOver(dir, "")->getBytes(out, 1), std::string(1, '\0'));
}

}  // namespace
}  // namespace nuvra::utils
