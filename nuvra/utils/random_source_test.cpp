#include "nuvra/utils/random_source.h"

#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <memory>
#include <string>
#include <thread>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/tiny/clock.h"
#include "nuvra/tiny/tls.h"

namespace nuvra::utils {
namespace {

using ::testing::MatchesRegex;

// The bytes a source built over a device file skips or keeps as its seed.
const std::string kHeader("\xaa\x01\x02\x03\x04", 5);

// A file standing in for the random device, removed again at the end of the test.
class DeviceFile {
  public:
    explicit DeviceFile(const std::string& bytes) {
        char pattern[] = "/tmp/nuvra-random-XXXXXX";
        const int fd = mkstemp(pattern);
        EXPECT_GE(fd, 0) << std::strerror(errno);
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
        path_ = pattern;
    }
    ~DeviceFile() { unlink(path_.c_str()); }
    DeviceFile(const DeviceFile&) = delete;
    DeviceFile& operator=(const DeviceFile&) = delete;

    const char* path() const { return path_.c_str(); }

  private:
    std::string path_;
};

std::string md5Hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        char pair[3];
        (void)std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

TEST(RandomSourceDevice, SkipsTheFirstByteAndKeepsTheNextWordAsSeed) {
    const DeviceFile device(kHeader + "\x10\x20");
    const auto source = std::make_unique<RandomSource>(device.path());
    EXPECT_TRUE(source->haveDevice());
    uint32_t expectedSeed = 0;
    std::memcpy(&expectedSeed, kHeader.data() + 1, 4);
    EXPECT_EQ(source->seed(), expectedSeed);
    EXPECT_EQ(source->getByte(), 0x10u);
    EXPECT_EQ(source->getByte(), 0x20u);
}

// The descriptor this process holds open on `path`, or -1.
int descriptorOf(const std::string& path) {
    DIR* fds = opendir("/proc/self/fd");
    if (fds == nullptr) {
        ADD_FAILURE() << "/proc/self/fd: " << std::strerror(errno);
        return -1;
    }
    int found = -1;
    while (const dirent* entry = readdir(fds)) {
        char target[4096];
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t length = readlink(link.c_str(), target, sizeof target);
        if (length > 0 && path == std::string(target, static_cast<size_t>(length))) {
            found = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        }
    }
    closedir(fds);
    return found;
}

TEST(RandomSourceDevice, ReadsOnlyWhatItNeedsAndClosesOnExec) {
    const DeviceFile device(kHeader + "abcdef");
    const auto source = std::make_unique<RandomSource>(device.path());
    const int fd = descriptorOf(device.path());
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "the device would leak into child programs";
    // Unbuffered: the skipped byte, the seed word and one byte, nothing read ahead.
    source->getByte();
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 6);
    std::string out;
    source->getBytes(out, 2);
    EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 8);
}

TEST(RandomSourceDevice, WordsAddSignExtendedBytes) {
    const DeviceFile device(kHeader + std::string("\xff\xff\xff\xff", 4) +
                            std::string("\x00\x00\x00\x80", 4) +
                            std::string("\x00\x00\x01\x80", 4) + std::string(8, '\xff') +
                            std::string("\x00\x00\x00\x00\x00\x00\x01\x80", 8));
    const auto source = std::make_unique<RandomSource>(device.path());
    EXPECT_EQ(source->getUInt32(), 0xFEFEFEFFu);
    EXPECT_EQ(source->nextUInt32(), 0xFFFFFF80u);
    EXPECT_EQ(source->getUInt32(), 0x00000080u);
    EXPECT_EQ(source->getUInt64(), 0xFEFEFEFEFEFEFEFFull);
    EXPECT_EQ(source->nextUInt64(), 0x0000000000000080ull);
}

TEST(RandomSourceDevice, GetBytesCountsEveryRequest) {
    const DeviceFile device(kHeader + "abcdef");
    const auto source = std::make_unique<RandomSource>(device.path());
    std::string out = "stale";
    EXPECT_EQ(source->getBytes(out, 0), "");
    EXPECT_EQ(source->getBytes(out, -1), "");
    EXPECT_EQ(&source->getBytes(out, 3), &out);
    EXPECT_EQ(out, "abc");
    EXPECT_EQ(source->requestCount(), 3u);
}

TEST(RandomSourceDevice, ShortDeviceRepeatsItsLastByteThenAppendsAFullFreshCount) {
    const DeviceFile device(kHeader + "xy");
    const auto source = std::make_unique<RandomSource>(device.path());
    std::string out;
    source->getBytes(out, 4);
    // "x", "y", "y" again from the failed read, then 4 bytes from RAND_bytes.
    ASSERT_EQ(out.size(), 7u);
    EXPECT_EQ(out.substr(0, 3), "xyy");
    // With the device at its end, single bytes come from rand().
    std::srand(99);
    const uint32_t expected = static_cast<uint32_t>(std::rand()) >> 23;
    std::srand(99);
    EXPECT_EQ(source->getByte(), expected);
}

TEST(RandomSourceDevice, RandomTextIsTheMd5OfEachRoundsBytes) {
    std::string bytes;
    for (int i = 0; i < 32; ++i) {
        bytes += static_cast<char>(i * 7);
    }
    const DeviceFile device(kHeader + bytes);
    const auto source = std::make_unique<RandomSource>(device.path());
    std::string text;
    EXPECT_EQ(source->getRandomText(text, 0), "");
    EXPECT_EQ(source->requestCount(), 0u);  // no random data read
    source->getRandomText(text, 40);
    EXPECT_EQ(text, (md5Hex(bytes.substr(0, 16)) + md5Hex(bytes.substr(16, 16))).substr(0, 40));
    EXPECT_EQ(source->requestCount(), 2u);
}

TEST(RandomSourceFallback, WithoutDeviceUsesRandAndRandBytes) {
    const auto source = std::make_unique<RandomSource>("/nonexistent/nuvra-random");
    EXPECT_FALSE(source->haveDevice());
    std::string out;
    EXPECT_EQ(source->getBytes(out, 16).size(), 16u);
    std::srand(1234);
    const uint32_t first = static_cast<uint32_t>(std::rand()) >> 23;
    std::srand(1234);
    EXPECT_EQ(source->getByte(), first);
}

// What one thread sees when it builds two sources without a device.
struct SeedingInThread {
    uint32_t firstSeed = 0;
    uint32_t secondSeed = 0;
    bool randContinuedAfterSecond = false;
    // The seed's clock term, (seed ^ (process ^ thread) << 16 ^ thread), less the clock read
    // before the first construction: within the construction's few milliseconds when the
    // seed mixes the ids as intended.
    uint32_t clockTermOffset = 0;
    uint32_t constructionMs = 0;
};

SeedingInThread seedTwiceInNewThread() {
    SeedingInThread seen;
    std::thread([&seen] {
        const uint32_t before = tiny::currentTimeMs();
        const auto first = std::make_unique<RandomSource>("/nonexistent/nuvra-random");
        seen.constructionMs = tiny::currentTimeMs() - before;
        seen.firstSeed = first->seed();
        const auto process = static_cast<uint32_t>(tiny::currentProcessId());
        const auto thread = static_cast<uint32_t>(tiny::currentThreadId());
        seen.clockTermOffset = (seen.firstSeed ^ ((process ^ thread) << 16) ^ thread) - before;
        const int afterFirst = std::rand();
        const auto second = std::make_unique<RandomSource>("/nonexistent/nuvra-random");
        seen.secondSeed = second->seed();
        const int afterSecond = std::rand();
        std::srand(seen.firstSeed);
        seen.randContinuedAfterSecond = std::rand() == afterFirst && std::rand() == afterSecond;
    }).join();
    return seen;
}

TEST(RandomSourceFallback, SeedsRandOncePerThread) {
    const SeedingInThread one = seedTwiceInNewThread();
    EXPECT_NE(one.firstSeed, 0u);
    EXPECT_LE(one.clockTermOffset, one.constructionMs) << "seed " << one.firstSeed;
    EXPECT_EQ(one.secondSeed, 0u);
    EXPECT_TRUE(one.randContinuedAfterSecond);
    const SeedingInThread another = seedTwiceInNewThread();
    EXPECT_NE(another.firstSeed, 0u);  // a new thread seeds again
}

TEST(RandomSourceUniqueId, HexOfAtMost32CharactersNeverRepeating) {
    EXPECT_THAT(RandomSource::makeUniqueId(8), MatchesRegex("[0-9a-f]{8}"));
    EXPECT_THAT(RandomSource::makeUniqueId(100), MatchesRegex("[0-9a-f]{32}"));
    EXPECT_EQ(RandomSource::makeUniqueId(0), "");
    std::set<std::string> ids;
    for (int i = 0; i < 1000; ++i) {
        ids.insert(RandomSource::makeUniqueId(32));
    }
    EXPECT_EQ(ids.size(), 1000u);
}

TEST(RandomSourceDefault, ReadsTheSystemDevice) {
    RandomSource source;
    EXPECT_TRUE(source.haveDevice());
    std::string out;
    EXPECT_EQ(source.getBytes(out, 64).size(), 64u);
}

}  // namespace
}  // namespace nuvra::utils
