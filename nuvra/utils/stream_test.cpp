#include "nuvra/utils/stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
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

TEST(StreamWrite, FlushesWhenTheBufferFillsAndAFailedFlushLosesNothing) {
    const std::string data = pattern(2 * kBuf + 100);
    ScriptedStream stream("", {1000});  // the raw layer takes at most 1000 bytes per call
    EXPECT_EQ(stream.write(data.data(), kBuf - 1), kBuf - 1);
    EXPECT_EQ(stream.output, "");
    EXPECT_EQ(stream.write(data.data() + kBuf - 1, 1), 1U);  // exactly full: flushed at once
    EXPECT_EQ(stream.output, data.substr(0, kBuf));
    stream.writesLeft = 1;  // one short write gets through, then the raw layer fails
    EXPECT_EQ(stream.write(data.data() + kBuf, kBuf + 100), 0U);
    EXPECT_EQ(stream.flush(), -1);
    stream.writesLeft = UINT32_MAX;
    EXPECT_EQ(stream.write(data.data() + size_t{2} * kBuf, 100), 100U);  // what did not fit before
    EXPECT_EQ(stream.flush(), 0);
    EXPECT_EQ(stream.output, data);  // each byte exactly once
}

TEST(StreamWrite, TextHelpersFailOnEmptyOutputAndFormatLongTexts) {
    ScriptedStream stream;
    EXPECT_FALSE(stream.puts("") || stream.printf("%s", "") || stream.write(std::string()));
    const std::string longText = pattern(512);  // past the local formatting buffer
    EXPECT_TRUE(stream.puts("a") && stream.printf("%d-%s", 42, longText.c_str()));
    EXPECT_EQ(stream.flush(), 0);
    EXPECT_EQ(stream.output, "a42-" + longText);
}

TEST(StreamRead, OneRawReadPerCallPendingOutputFirstAndEndOfFileAtTheEnd) {
    const std::string data = pattern(kBuf + 5);
    ScriptedStream stream(data);
    std::string got(size_t{2} * kBuf, '\0');
    stream.write("out", 3);
    EXPECT_EQ(stream.read(got.data(), 2 * kBuf), kBuf);
    EXPECT_EQ(stream.output, "out");
    EXPECT_EQ(stream.read(got.data() + kBuf, 0), 0U);
    EXPECT_EQ(stream.read(got.data() + kBuf, 100), 5U);
    EXPECT_EQ(got.substr(0, kBuf + 5), data);
    EXPECT_FALSE(stream.endOfFile());
    EXPECT_EQ(stream.read(got.data(), 10), 0U);
    EXPECT_TRUE(stream.endOfFile());
    stream.write("x", 1);
    stream.writesLeft = 0;
    EXPECT_EQ(stream.read(got.data(), 1), 0U);
    EXPECT_FALSE(stream.endOfFile());  // the failed flush stopped it before the raw read
}

TEST(StreamRead, ReadLineAndGetsAtTheSizeEdges) {
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
            ScriptedStream stream(c.input, {2});
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

TEST_F(NFileTest, BufferedDataReachesTheFileAndFailuresKeepErrno) {
    const std::string data = pattern(kBuf + 1);
    const std::string file = at("data");
    {
        NFile out;
        ASSERT_TRUE(out.open(file.c_str(), "w"));
        EXPECT_EQ(out.write(data.data(), kBuf + 1), kBuf + 1);
    }  // the last byte was still buffered
    EXPECT_EQ(readFile(file), data);
    NFile in;
    ASSERT_TRUE(in.open(file.c_str(), "r+"));
    ScriptedStream back;
    NStream::copyBytes(in, back, 1025);
    back.flush();
    EXPECT_EQ(back.output, data.substr(0, 1025));
    NStream::copyAll(in, back);
    NStream::copyBytes(in, back, 1);  // at the end: copies nothing
    back.flush();
    EXPECT_EQ(back.output, data);
    in.write("tail", 4);
    in.close();
    EXPECT_TRUE(in.isClosed());
    EXPECT_EQ(readFile(file), data + "tail");
    char byte = 0;
    EXPECT_EQ(in.read(&byte, 1), 0U);  // an error (no descriptor), not end of file
    EXPECT_FALSE(in.endOfFile());

    ASSERT_TRUE(in.open("/dev/full", "w"));  // every write fails with ENOSPC
    in.write("x", 1);
    errno = 0;
    EXPECT_EQ(in.flush(), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(NFileTest, OpenByModeTextOrByAccessAndDisposition) {
    constexpr int kFailed = -1;
    // The mode text, or null to open by access and disposition; whether the file exists
    // first; the access mode and O_APPEND of the open file; its content after ("-": none).
    const auto cases = {
        std::tuple{"r", 0, 0, false, kFailed, "-"},
        {"", 0, 0, true, O_RDONLY, "old"},
        {"rbbb+", 0, 0, true, O_RDWR, "old"},
        {"rbbbb+", 0, 0, true, O_RDONLY, "old"},  // '+' as the sixth character is not seen
        {"w", 0, 0, true, O_WRONLY, ""},
        {"a", 0, 0, false, O_WRONLY | O_APPEND, ""},
        {"a+", 0, 0, true, O_RDWR | O_APPEND, "old"},
        {nullptr, NFile::kWrite, NFile::kCreateNew, false, O_WRONLY, ""},
        {nullptr, NFile::kWrite, NFile::kCreateNew, true, kFailed, "old"},
        {nullptr, NFile::kReadWrite, NFile::kCreateAlways, true, O_RDWR, ""},
        {nullptr, NFile::kRead, NFile::kOpenAlways, false, O_RDONLY, ""},
        {nullptr, NFile::kWrite, NFile::kTruncateExisting, true, O_WRONLY, ""},
        {nullptr, 7, NFile::kTruncateExisting, true, kFailed, "old"},  // unknown access reads
        {nullptr, NFile::kWrite, NFile::kAppend, false, O_WRONLY | O_APPEND, ""},
        {nullptr, NFile::kWrite, 99, false, kFailed, "-"},  // unknown: open existing
    };
    const std::string file = at("f");
    const mode_t mask = umask(0);
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
    umask(mask);
    NFile f;
    EXPECT_TRUE(f.open(file.c_str(), static_cast<const char*>(nullptr)));  // kept no-op
    EXPECT_EQ(f.fd(), -1);
}

TEST_F(NFileTest, SixtyFourBitPositionsAndTruncate) {
    NFile f;
    ASSERT_TRUE(f.open(at("pos").c_str(), "w+"));
    const int64_t far = (int64_t{1} << 32) + 5;
    EXPECT_EQ(f.seek64(far, SEEK_SET), 0);
    EXPECT_EQ(f.tell64(), far);
    EXPECT_EQ(f.tell(), 5);  // the low half
    EXPECT_EQ(f.seek(-1, SEEK_SET), -1);
    EXPECT_EQ(f.seek(0, SEEK_SET), 0);
    EXPECT_EQ(f.writeChecked("0123456789", 10), 10);
    EXPECT_EQ(f.writeChecked("x", -1), -1);
    EXPECT_EQ(f.seek(4, SEEK_SET), 0);
    EXPECT_TRUE(f.truncate());
    EXPECT_EQ(readFile(at("pos")), "0123");
}

// Whether another open file description of `file` can take the lock right now.
bool othersCanLock(const std::string& file, bool exclusive) {
    NFile other;
    return other.open(file.c_str(), "r") &&
           (exclusive ? other.tryLockExclusive() : other.tryLockShared());
}

TEST_F(NFileTest, NestedLocksAreReleasedByTheLastUnlock) {
    // Requests: S lockShared, s tryLockShared, X lock, x tryLock, each followed by + when
    // granted and - when refused; then the depth, and whether others may share meanwhile.
    const auto cases = {
        std::tuple{"S+s+", 2, true},
        {"S+X-", 1, true},      // a shared hold is never upgraded
        {"X+s+S+", -3, false},  // shared inside exclusive nests as exclusive
        {"x+X+", -2, false},
    };
    const std::string file = at("lock");
    writeFile(file, "");
    for (const auto& [requests, depth, othersMayShare] : cases) {
        SCOPED_TRACE(requests);
        NFile f;
        ASSERT_TRUE(f.open(file.c_str(), "r"));
        for (const char* r = requests; *r != '\0'; r += 2) {
            EXPECT_EQ(*r == 'S'   ? f.lockShared()
                      : *r == 's' ? f.tryLockShared()
                      : *r == 'X' ? f.lock()
                                  : f.tryLock(),
                      r[1] == '+');
        }
        EXPECT_EQ(f.lockRecord().depth(), depth);
        EXPECT_EQ(othersCanLock(file, false), othersMayShare);
        for (int32_t left = std::abs(depth); left > 0; --left) {
            EXPECT_FALSE(othersCanLock(file, true)) << left;
            f.unlock();
        }
        EXPECT_TRUE(othersCanLock(file, true));
        f.unlock();  // unlocked already: harmless
        EXPECT_EQ(f.lockRecord().depth(), 0);
    }

    NFile holder;
    NFile other;
    ASSERT_TRUE(holder.open(file.c_str(), "r") && other.open(file.c_str(), "r"));
    ASSERT_TRUE(holder.lockExclusive());
    errno = 0;
    EXPECT_FALSE(other.tryLockShared());
    EXPECT_EQ(errno, EWOULDBLOCK);
    // Only the owner thread locks, but any thread unlocks.
    std::thread([&] { EXPECT_FALSE(holder.lock() || holder.lockShared()); }).join();
    EXPECT_EQ(holder.lockRecord().depth(), -1);
    std::thread([&] { holder.unlock(); }).join();
    EXPECT_TRUE(other.tryLockExclusive());
}

TEST_F(NFileTest, LockRecordClosesOnlyWhatItOpened) {
    FileLock detached;
    EXPECT_FALSE(detached.lockShared() || detached.attach(-1) ||
                 detached.openPath(at("missing/lock").c_str(), true));
    int kept = -1;
    int owned = -1;
    {
        FileLock lock;
        const mode_t mask = umask(0);
        ASSERT_TRUE(lock.openPath(at("lock").c_str(), true));
        umask(mask);
        EXPECT_EQ(std::filesystem::status(at("lock")).permissions(), std::filesystem::perms(0600));
        EXPECT_FALSE(lock.openPath(at("other").c_str(), true));  // already attached
        kept = lock.descriptor();
        EXPECT_TRUE(lock.lockShared() && lock.lockShared());
        lock.reset();  // releases one level and detaches, but does not close
        EXPECT_EQ(lock.depth(), 1);
        ASSERT_TRUE(lock.openPath(at("lock").c_str(), false));
        owned = lock.descriptor();
    }
    EXPECT_EQ(close(kept), 0);
    EXPECT_EQ(fcntl(owned, F_GETFD), -1);  // closed by the record that opened it
}

// Reports positions only, far beyond what 32 bits hold.
struct FarPositionBuf : std::streambuf {
    pos_type seekoff(off_type offset, std::ios_base::seekdir /*way*/,
                     std::ios_base::openmode /*which*/) override {
        return pos_type(off_type{1} << 33) + offset;
    }
};

TEST(NStdIStreamTest, ReadsDiscardsWritesAndSeeks) {
    std::istringstream text("0123456789");
    NStdIStream stream(text);
    char got[16];
    EXPECT_EQ(stream.read(got, sizeof got), 10U);  // the short read counts what it got
    EXPECT_TRUE(stream.write("ignored", 7) && stream.flush() == 0);
    EXPECT_EQ(stream.seek64((int64_t{1} << 32) + 5, SEEK_SET), 0);  // high half dropped
    EXPECT_EQ(stream.tell64(), 5);
    EXPECT_EQ(stream.seek(-2, SEEK_END), 0);
    EXPECT_EQ(stream.tell(), 8);
    EXPECT_EQ(stream.seek(-1, SEEK_SET), -1);
    FarPositionBuf far;
    std::istream farStream(&far);
    EXPECT_EQ(NStdIStream(farStream).tell(), 2147483647);
}

}  // namespace
}  // namespace nuvra::utils
