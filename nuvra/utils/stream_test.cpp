// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/stream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>

#include "gtest/gtest.h"
#include "nuvra/testing/stream_test_util.h"
#include "nuvra/testing/temp_dir_test_util.h"

namespace nuvra::utils {
namespace {

using testing::readFile;
using testing::ScriptedStream;
using testing::writeFile;

constexpr uint32_t kBuf = NStream::kBufferSize;

// Deterministic bytes, so that a misplaced or repeated chunk shows up in a comparison.
std::string pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    }
    return text;
}

TEST(StreamBuffers, FullBufferFlushesOneRawReadPerCallAndAFailedFlushLosesNothing) {
    const std::string data = pattern(2 * kBuf + 100);
    ScriptedStream stream(data, 1000);  // the raw layer moves at most 1000 bytes per call
    EXPECT_EQ(stream.write(data.data(), kBuf - 1), kBuf - 1);
    EXPECT_EQ(stream.output, "");
    EXPECT_EQ(stream.write(data.data() + kBuf - 1, 1), 1U);  // exactly full: flushed at once
    EXPECT_EQ(stream.output, data.substr(0, kBuf));
    stream.writesLeft = 1;  // one short write gets through, then the raw layer fails
    EXPECT_EQ(stream.write(data.data() + kBuf, kBuf + 100), 0U);
    std::string got(kBuf, '\0');
    EXPECT_EQ(stream.read(got.data(), kBuf), 0U);  // pending output goes first, and fails
    EXPECT_FALSE(stream.endOfFile());
    stream.writesLeft = UINT32_MAX;
    EXPECT_EQ(stream.write(data.data() + size_t{2} * kBuf, 100), 100U);  // what did not fit before
    EXPECT_EQ(stream.read(got.data(), kBuf), 1000U);  // one raw read after the flush
    EXPECT_EQ(stream.output, data);                   // each byte exactly once
}

TEST(StreamBuffers, TextHelpersFailOnEmptyOutputAndFormatLongTexts) {
    ScriptedStream stream;
    EXPECT_FALSE(stream.puts("") || stream.printf("%s", "") || stream.write(std::string()));
    const std::string longText = pattern(512);  // past the local formatting buffer
    EXPECT_TRUE(stream.puts("a") && stream.printf("%d-%s", 42, longText.c_str()));
    EXPECT_EQ(stream.flush(), 0);
    EXPECT_EQ(stream.output, "a42-" + longText);
}

TEST(StreamBuffers, ReadLineAndGetsAtTheSizeEdges) {
    // readLine without and with acceptUnterminated, then gets: the results, and the bytes
    // before the first NUL (all `size` bytes when there is none). Two bytes come per raw read.
    static const struct {
        const char* input;
        uint32_t size;
        uint32_t result[3];
        const char* text[3];
    } kCases[] = {
        {"ab\nc", 4, {3, 3, 3}, {"ab\n", "ab\n", "ab\n"}},
        {"abc", 10, {0, 3, 3}, {"", "abc", "abc"}},
        {"abcdef\n", 4, {0, 0, 3}, {"abcd", "abcd", "abc"}},  // full and left unterminated
        {"abc\n", 4, {0, 0, 3}, {"abc\n", "abc\n", "abc"}},   // '\n' in the last byte
        {"abc\n", 1, {0, 0, 0}, {"a", "a", ""}},
        {"abc\n", 0, {0, 0, 0}, {"", "", ""}},  // the buffer is not touched
    };
    for (const auto& c : kCases) {
        for (int call = 0; call < 3; ++call) {
            SCOPED_TRACE(std::string(c.input) + " size " + std::to_string(c.size) + " call " +
                         std::to_string(call));
            ScriptedStream stream(c.input, 2);
            std::string buffer(c.size + 1, '#');
            EXPECT_EQ(call == 2 ? stream.gets(buffer.data(), c.size)
                                : stream.readLine(buffer.data(), c.size, call == 1),
                      c.result[call]);
            EXPECT_EQ(buffer.substr(0, std::min<size_t>(buffer.find('\0'), c.size)), c.text[call]);
            EXPECT_EQ(buffer[c.size], '#');  // never writes past `size`
        }
    }
}

using NFileTest = testing::TempTreeTest;

TEST_F(NFileTest, BufferedDataReachesTheFileAndOnlyThatFile) {
    const std::string data = pattern(kBuf + 1);
    const std::string file = at("data");
    {
        NFile out;
        ASSERT_TRUE(out.open(file.c_str(), "w"));
        EXPECT_EQ(out.write(data.data(), kBuf + 1), kBuf + 1);
    }  // the last byte was still buffered
    NFile in;
    ASSERT_TRUE(in.open(file.c_str(), "r+"));
    ScriptedStream back;
    NStream::copyBytes(in, back, 1025);
    EXPECT_EQ(back.write("|", 1), 1U);
    NStream::copyAll(in, back);
    NStream::copyBytes(in, back, 1);  // at the end: copies nothing
    EXPECT_EQ(back.flush(), 0);
    EXPECT_EQ(back.output, data.substr(0, 1025) + "|" + data.substr(1025));
    EXPECT_EQ(in.write("tail", 4), 4U);
    in.close();  // flushes
    char byte = 0;
    EXPECT_EQ(in.read(&byte, 1), 0U);  // an error (no descriptor), not end of file
    EXPECT_FALSE(in.endOfFile());

    ASSERT_TRUE(in.open("/dev/full", "w"));  // every write fails with ENOSPC
    EXPECT_EQ(in.write("x", 1), 1U);
    EXPECT_TRUE(in.flush() == -1 && errno == ENOSPC);
    in.close();  // the byte that could not be written is dropped, not kept for the next file
    ASSERT_TRUE(in.open(file.c_str(), "a"));
    in.close();
    EXPECT_EQ(readFile(file), data + "tail");
}

TEST_F(NFileTest, OpenByModeTextOrByAccessAndDisposition) {
    constexpr int kFailed = -1;
    // The mode text, or null to open by access and disposition; whether the file exists
    // first; the access mode and O_APPEND of the open file; its content after ("-": none).
    const auto cases = {
        std::tuple{"r", 0, 0, false, kFailed, "-"},
        {"rbbb+", 0, 0, true, O_RDWR, "old"},
        {"rbbbb+", 0, 0, true, O_RDONLY, "old"},  // '+' as the sixth character is not seen
        {"w", 0, 0, true, O_WRONLY, ""},
        {"a+", 0, 0, false, O_RDWR | O_APPEND, ""},
        {nullptr, NFile::kWrite, NFile::kCreateNew, true, kFailed, "old"},
        {nullptr, NFile::kReadWrite, NFile::kCreateAlways, true, O_RDWR, ""},
        {nullptr, NFile::kRead, NFile::kOpenAlways, false, O_RDONLY, ""},
        {nullptr, NFile::kWrite, NFile::kTruncateExisting, true, O_WRONLY, ""},
        {nullptr, 7, NFile::kTruncateExisting, true, kFailed, "old"},  // unknown access reads
        {nullptr, NFile::kWrite, NFile::kAppend, false, O_WRONLY | O_APPEND, ""},
        {nullptr, NFile::kWrite, 99, false, kFailed, "-"},  // unknown: open existing
    };
    const std::string file = at("f");
    for (const auto& [mode, access, disposition, exists, flags, after] : cases) {
        SCOPED_TRACE(std::string(mode != nullptr ? mode : "") + " " + std::to_string(access) + "/" +
                     std::to_string(disposition));
        std::filesystem::remove(file);
        if (exists) {
            writeFile(file, "old");
        }
        NFile f;
        EXPECT_EQ(mode != nullptr ? f.open(file.c_str(), mode)
                                  : f.open(file.c_str(), access, disposition),
                  flags != kFailed);
        EXPECT_EQ(f.fd() == -1 ? kFailed : fcntl(f.fd(), F_GETFL) & (O_ACCMODE | O_APPEND), flags);
        EXPECT_EQ(std::filesystem::exists(file) ? readFile(file) : "-", after);
        if (!exists && flags != kFailed) {
            EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
        }
    }
    NFile f;
    EXPECT_TRUE(f.open(file.c_str(), static_cast<const char*>(nullptr)));  // kept no-op
    EXPECT_EQ(f.fd(), -1);
}

TEST_F(NFileTest, SixtyFourBitPositionsTruncateAndCheckedWrites) {
    NFile f;
    ASSERT_TRUE(f.open(at("pos").c_str(), "w+"));
    EXPECT_EQ(f.seek64((int64_t{1} << 32) + 5, SEEK_SET), 0);
    EXPECT_EQ(f.tell64(), (int64_t{1} << 32) + 5);
    EXPECT_EQ(f.tell(), 5);  // the low half
    EXPECT_EQ(f.seek(-1, SEEK_SET) + f.seek(0, SEEK_SET), -1);
    EXPECT_EQ(f.writeChecked("0123456789", 10) + f.writeChecked("x", -1), 9);
    EXPECT_TRUE(f.seek(4, SEEK_SET) == 0 && f.truncate());
    EXPECT_EQ(readFile(at("pos")), "0123");
}

TEST_F(NFileTest, NestedLocksAreReleasedByTheLastUnlock) {
    const std::string file = at("lock");
    NFile f;
    NFile other;
    ASSERT_TRUE(f.open(file.c_str(), "w") && other.open(file.c_str(), "r"));
    EXPECT_TRUE(f.lockShared() && other.tryLockShared());
    other.unlock();
    EXPECT_FALSE(f.lockExclusive() || f.tryLock());  // a shared hold is never upgraded
    EXPECT_TRUE(f.tryLockShared());
    f.unlock();
    EXPECT_FALSE(other.tryLockExclusive());  // still held once
    f.unlock();
    EXPECT_TRUE(other.tryLockExclusive());
    other.unlock();
    // A shared request inside an exclusive hold nests as exclusive.
    EXPECT_TRUE(f.lock() && f.lockShared() && f.tryLockShared() && f.tryLock());
    EXPECT_EQ(f.lockRecord().depth(), -4);
    f.unlock();
    errno = 0;
    EXPECT_TRUE(!other.tryLockShared() && errno == EWOULDBLOCK);
    // Only the owner thread locks, but any thread unlocks.
    std::thread([&] {
        EXPECT_FALSE(f.lock() || f.lockShared());
        f.unlock();
        f.unlock();
        f.unlock();
    }).join();
    EXPECT_TRUE(other.tryLockExclusive());
}

TEST(NStdIStreamTest, ReadsDiscardsWritesAndSeeksOnThirtyTwoBits) {
    std::istringstream text("0123456789");
    NStdIStream stream(text);
    char got[16];
    EXPECT_EQ(stream.read(got, sizeof got), 10U);  // the short read counts what it got
    EXPECT_TRUE(stream.write("ignored", 7) && stream.flush() == 0);
    EXPECT_EQ(stream.seek64((int64_t{1} << 32) + 5, SEEK_SET), 0);  // high half dropped
    EXPECT_EQ(stream.tell64(), 5);
    EXPECT_EQ(stream.seek(-2, SEEK_END) + stream.tell(), 8);
    EXPECT_EQ(stream.seek(-1, SEEK_SET), -1);
}

}  // namespace
}  // namespace nuvra::utils
