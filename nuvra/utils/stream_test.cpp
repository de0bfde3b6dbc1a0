#include "nuvra/utils/stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/testing/temp_dir_test_util.h"

namespace nuvra::utils {
namespace {

constexpr uint32_t kBuf = NStream::kBufferSize;

// Deterministic bytes, so that a misplaced or repeated chunk shows up in a comparison.
std::string pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    }
    return text;
}

// An in-memory stream that records raw calls and can short-write or fail on demand.
class MemoryStream : public NStream {
  public:
    explicit MemoryStream(std::string input = "") : input_(std::move(input)) {}

    int32_t readRaw(void* buffer, uint32_t length) override {
        ++rawReads;
        if (failReads) {
            errno = EIO;
            return -1;
        }
        const size_t n = std::min<size_t>(length, input_.size() - readPos_);
        std::memcpy(buffer, input_.data() + readPos_, n);
        readPos_ += n;
        return static_cast<int32_t>(n);
    }
    int32_t writeRaw(const void* buffer, uint32_t length) override {
        writeSizes.push_back(length);
        if (acceptBeforeFailing == 0) {
            errno = ENOSPC;
            return -1;
        }
        const uint32_t n = std::min(length, std::min(maxPerWrite, acceptBeforeFailing));
        acceptBeforeFailing -= n;
        output.append(static_cast<const char*>(buffer), n);
        return static_cast<int32_t>(n);
    }

    std::string output;
    std::vector<uint32_t> writeSizes;
    int rawReads = 0;
    bool failReads = false;
    uint32_t maxPerWrite = UINT32_MAX;
    uint32_t acceptBeforeFailing = UINT32_MAX;

  private:
    std::string input_;
    size_t readPos_ = 0;
};

TEST(StreamWrite, FlushesExactlyWhenTheBufferFills) {
    static const struct {
        uint32_t size;
        std::vector<uint32_t> rawWrites;  // before the explicit flush
    } kCases[] = {
        {1, {}}, {kBuf - 1, {}}, {kBuf, {kBuf}}, {kBuf + 1, {kBuf}}, {3 * kBuf, {kBuf, kBuf, kBuf}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.size);
        MemoryStream stream;
        const std::string data = pattern(c.size);
        EXPECT_EQ(stream.write(data.data(), c.size), c.size);
        EXPECT_EQ(stream.writeSizes, c.rawWrites);
        EXPECT_EQ(stream.flush(), 0);
        EXPECT_EQ(stream.output, data);
    }
}

TEST(StreamWrite, FailedFlushKeepsUnwrittenBytesForTheNextTry) {
    // 0: fails at once; 1000: a short write is delivered before the failure.
    for (const uint32_t accepted : {0U, 1000U}) {
        SCOPED_TRACE(accepted);
        MemoryStream stream;
        stream.maxPerWrite = 1000;
        stream.acceptBeforeFailing = accepted;
        const std::string data = pattern(kBuf + 100);
        EXPECT_EQ(stream.write(data.data(), kBuf + 100), 0U);
        EXPECT_EQ(stream.flush(), -1);
        stream.acceptBeforeFailing = UINT32_MAX;
        EXPECT_EQ(stream.flush(), 0);
        EXPECT_EQ(stream.output, data.substr(0, kBuf));  // each byte exactly once
        EXPECT_EQ(stream.write(data.data() + kBuf, 100), 100U);
        EXPECT_EQ(stream.flush(), 0);
        EXPECT_EQ(stream.output, data);
    }
}

TEST(StreamWrite, TextHelpersFailOnEmptyOutputAndFormatLongTexts) {
    MemoryStream stream;
    EXPECT_FALSE(stream.puts("") || stream.printf("%s", "") || stream.write(std::string()));
    EXPECT_TRUE(stream.puts("a") && stream.printf("%d-%s", 42, "x"));
    std::string expected = "a42-x";
    for (const size_t size : {511U, 512U, 9000U}) {  // around the local formatting buffer
        const std::string text = pattern(size);
        EXPECT_TRUE(stream.printf("%s", text.c_str()));
        expected += text;
    }
    EXPECT_EQ(stream.flush(), 0);
    EXPECT_EQ(stream.output, expected);
}

TEST(StreamRead, OneRawReadPerCallAndEndOfFileOnlyAtEnd) {
    const std::string data = pattern(kBuf + 5);
    MemoryStream stream(data);
    std::string got(size_t{2} * kBuf, '\0');
    EXPECT_EQ(stream.read(got.data(), 2 * kBuf), kBuf);
    EXPECT_EQ(stream.read(got.data() + kBuf, 3), 3U);
    EXPECT_EQ(stream.read(got.data() + kBuf + 3, 100), 2U);
    EXPECT_EQ(stream.rawReads, 2);
    EXPECT_EQ(got.substr(0, kBuf + 5), data);
    EXPECT_FALSE(stream.endOfFile());
    EXPECT_EQ(stream.read(got.data(), 10), 0U);
    EXPECT_TRUE(stream.endOfFile());
    EXPECT_EQ(stream.read(got.data(), 0), 0U);
    EXPECT_FALSE(stream.endOfFile());  // every read clears it
    stream.failReads = true;           // an error is not end of file
    EXPECT_EQ(stream.read(got.data(), 1), 0U);
    EXPECT_FALSE(stream.endOfFile());

    MemoryStream mixed("in");  // pending output goes out before a raw read
    mixed.write("out", 3);
    EXPECT_EQ(mixed.read(got.data(), 2), 2U);
    EXPECT_EQ(mixed.output, "out");
    mixed.write("x", 1);
    mixed.acceptBeforeFailing = 0;
    EXPECT_EQ(mixed.read(got.data(), 1), 0U);  // the failed flush stops the read
    EXPECT_EQ(mixed.rawReads, 1);
}

TEST(StreamRead, ReadLineAndGetsAtEverySizeEdge) {
    const std::string line = pattern(kBuf + 1) + "\n";  // longer than the buffer
    const std::string cut = line.substr(0, kBuf + 1);
    // For readLine without and with acceptUnterminated, then gets: the result and the bytes
    // before the first NUL (or all `size` bytes when there is none).
    const struct {
        std::string input;
        uint32_t size;
        uint32_t result[3];
        std::string text[3];
    } kCases[] = {
        {"abc\ndef", 10, {4, 4, 4}, {"abc\n", "abc\n", "abc\n"}},
        {"abc", 10, {0, 3, 3}, {"", "abc", "abc"}},
        {"", 10, {0, 0, 0}, {"", "", ""}},
        {"abcdef\n", 4, {0, 0, 3}, {"abcd", "abcd", "abc"}},  // full and unterminated
        {"abc\n", 4, {0, 0, 3}, {"abc\n", "abc\n", "abc"}},   // '\n' in the last byte
        {"abc\n", 5, {4, 4, 4}, {"abc\n", "abc\n", "abc\n"}},
        {"ab\n", 4, {3, 3, 3}, {"ab\n", "ab\n", "ab\n"}},
        {"abc\n", 1, {0, 0, 0}, {"a", "a", ""}},
        {line,
         kBuf,
         {0, 0, kBuf - 1},
         {line.substr(0, kBuf), line.substr(0, kBuf), line.substr(0, kBuf - 1)}},
        {line, kBuf + 2, {0, 0, kBuf + 1}, {line, line, cut}},
        {line, kBuf + 3, {kBuf + 2, kBuf + 2, kBuf + 2}, {line, line, line}},
        {cut, kBuf + 3, {0, kBuf + 1, kBuf + 1}, {"", cut, cut}},
    };
    for (const auto& c : kCases) {
        for (int call = 0; call < 3; ++call) {
            SCOPED_TRACE(c.input.substr(0, 10) + " size " + std::to_string(c.size) + " call " +
                         std::to_string(call));
            MemoryStream stream(c.input);
            std::string buffer(c.size + 1, '#');
            EXPECT_EQ(call == 2 ? stream.gets(buffer.data(), c.size)
                                : stream.readLine(buffer.data(), c.size, call == 1),
                      c.result[call]);
            EXPECT_EQ(buffer.substr(0, std::min<size_t>(buffer.find('\0'), c.size)), c.text[call]);
            EXPECT_EQ(buffer[c.size], '#');  // never writes past `size`
        }
    }
    MemoryStream stream("x");
    char untouched = '#';
    EXPECT_EQ(stream.readLine(&untouched, 0, true) + stream.gets(&untouched, 0), 0U);
    EXPECT_EQ(untouched, '#');
}

TEST(StreamCopy, CopiesAllOrExactlyCount) {
    const std::string data = pattern(5000);
    for (const uint32_t count : {0U, 1U, 1024U, 3000U, 9000U, UINT32_MAX}) {  // last: copyAll
        SCOPED_TRACE(count);
        MemoryStream source(data);
        MemoryStream destination;
        EXPECT_EQ(count == UINT32_MAX ? NStream::copyAll(source, destination)
                                      : NStream::copyBytes(source, destination, count),
                  0);
        destination.flush();
        EXPECT_EQ(destination.output, data.substr(0, count));
    }
}

using NFileTest = testing::TempTreeTest;
using testing::readFile;
using testing::writeFile;

// Checks that a file the library created has mode 0600 (under umask 0) and that a real child,
// a shell whose builtin test looks at its own descriptor table, does not inherit `fd`.
void expectPrivateAndNotInherited(int fd) {
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    const std::string command = "test ! -e /proc/self/fd/" + std::to_string(fd);
    EXPECT_EQ(std::system(command.c_str()), 0);  // NOLINT(cert-env33-c)
}

TEST_F(NFileTest, BufferedDataReachesTheFileOnFlushCloseAndDestruction) {
    for (const uint32_t size : {kBuf - 1, kBuf, kBuf + 1, 5 * kBuf + 3}) {
        SCOPED_TRACE(size);
        const std::string data = pattern(size);
        const std::string file = at("data");
        {
            NFile out;
            ASSERT_TRUE(out.open(file.c_str(), "w"));
            EXPECT_EQ(out.write(data.data(), size), size);
        }  // destruction flushes
        EXPECT_EQ(readFile(file), data);

        NFile in;
        ASSERT_TRUE(in.open(file.c_str(), "r+"));
        MemoryStream back;
        NStream::copyAll(in, back);
        EXPECT_TRUE(in.endOfFile());
        back.flush();
        EXPECT_EQ(back.output, data);
        in.write("tail", 4);
        in.close();
        EXPECT_TRUE(in.isClosed());
        EXPECT_EQ(readFile(file), data + "tail");
    }
}

TEST_F(NFileTest, OpenByModeTextOrByAccessAndDisposition) {
    constexpr int kFailed = -1;
    static const struct {
        const char* mode;  // null: open by access and disposition
        int32_t access, disposition;
        bool exists;
        int flags;          // the access mode and O_APPEND of the open file
        const char* after;  // "-": the file does not exist afterwards
    } kCases[] = {
        {"r", 0, 0, true, O_RDONLY, "old"},
        {"", 0, 0, true, O_RDONLY, "old"},
        {"r", 0, 0, false, kFailed, "-"},
        {"r+", 0, 0, true, O_RDWR, "old"},
        {"rbbb+", 0, 0, true, O_RDWR, "old"},
        {"rbbbb+", 0, 0, true, O_RDONLY, "old"},  // '+' past the fourth character
        {"w", 0, 0, true, O_WRONLY, ""},
        {"a", 0, 0, false, O_WRONLY | O_APPEND, ""},
        {"a+", 0, 0, true, O_RDWR | O_APPEND, "old"},
        {nullptr, NFile::kWrite, NFile::kCreateNew, false, O_WRONLY, ""},
        {nullptr, NFile::kWrite, NFile::kCreateNew, true, kFailed, "old"},
        {nullptr, NFile::kWrite, NFile::kCreateAlways, true, O_WRONLY, ""},
        {nullptr, NFile::kRead, NFile::kOpenExisting, false, kFailed, "-"},
        {nullptr, NFile::kReadWrite, NFile::kOpenExisting, true, O_RDWR, "old"},
        {nullptr, NFile::kRead, NFile::kOpenAlways, false, O_RDONLY, ""},
        {nullptr, NFile::kWrite, NFile::kTruncateExisting, true, O_WRONLY, ""},
        {nullptr, NFile::kRead, NFile::kTruncateExisting, true, kFailed, "old"},
        {nullptr, 7, NFile::kTruncateExisting, true, kFailed, "old"},  // unknown access reads
        {nullptr, NFile::kWrite, NFile::kAppend, false, O_WRONLY | O_APPEND, ""},
        {nullptr, NFile::kRead, 99, false, kFailed, "-"},  // unknown: open existing
    };
    const std::string file = at("f");
    const mode_t mask = umask(0);
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::string(c.mode != nullptr ? c.mode : "") + " " + std::to_string(c.access) +
                     "/" + std::to_string(c.disposition));
        std::filesystem::remove(file);
        if (c.exists) {
            writeFile(file, "old");
        }
        NFile f;
        EXPECT_EQ(c.mode != nullptr ? f.open(file.c_str(), c.mode)
                                    : f.open(file.c_str(), c.access, c.disposition),
                  c.flags != kFailed);
        EXPECT_EQ(f.fd() == -1 ? kFailed : fcntl(f.fd(), F_GETFL) & (O_ACCMODE | O_APPEND),
                  c.flags);
        EXPECT_EQ(std::filesystem::exists(file) ? readFile(file) : "-", c.after);
        if (!c.exists && f.fd() != -1) {
            expectPrivateAndNotInherited(f.fd());
        }
    }
    umask(mask);
    NFile f;
    EXPECT_TRUE(f.open(file.c_str(), static_cast<const char*>(nullptr)));  // kept no-op
    EXPECT_EQ(f.fd(), -1);
}

TEST_F(NFileTest, FailingDescriptorsReportFailureAndKeepData) {
    const auto oldHandler = std::signal(SIGPIPE, SIG_IGN);
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    writeFile(at("ro"), "keep");
    const struct {
        std::string target;
        const char* mode;
        int error;
    } kCases[] = {{at("ro"), "r", EBADF},
                  {"/dev/full", "w", ENOSPC},
                  {"/proc/self/fd/" + std::to_string(pipeEnds[1]), "w", EPIPE}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.target);
        NFile f;
        ASSERT_TRUE(f.open(c.target.c_str(), c.mode)) << std::strerror(errno);
        if (c.error == EPIPE) {
            close(pipeEnds[0]);  // the reader goes away
        }
        EXPECT_EQ(f.write("x", 1), 1U);  // buffered
        errno = 0;
        EXPECT_EQ(f.flush(), -1);
        EXPECT_EQ(errno, c.error);
        EXPECT_EQ(f.write(pattern(kBuf).data(), kBuf), 0U);
        EXPECT_EQ(f.flush(), -1);  // still pending, still failing
        EXPECT_EQ(f.writeChecked("x", -1), -1);
    }
    close(pipeEnds[1]);
    (void)std::signal(SIGPIPE, oldHandler);
    EXPECT_EQ(readFile(at("ro")), "keep");
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
    EXPECT_EQ(f.seek(4, SEEK_SET), 0);
    EXPECT_TRUE(f.truncate());
    EXPECT_EQ(readFile(at("pos")), "0123");
}

using FileLockTest = NFileTest;

// Whether another open file description of `file` can take the lock right now.
bool othersCanLock(const std::string& file, bool exclusive) {
    NFile other;
    return other.open(file.c_str(), "r") &&
           (exclusive ? other.tryLockExclusive() : other.tryLockShared());
}

TEST_F(FileLockTest, NestedHoldsAreReleasedByTheLastUnlock) {
    // S lockShared, s tryLockShared, X lock, x tryLock.
    static const struct {
        const char* requests;
        const char* granted;
        int32_t depth;
        bool othersMayShare;
    } kCases[] = {
        {"Ss", "11", 2, true},
        {"SX", "10", 1, true},      // a shared hold is never upgraded
        {"XsS", "111", -3, false},  // shared inside exclusive nests as exclusive
        {"xX", "11", -2, false},
    };
    const std::string file = at("lock");
    writeFile(file, "");
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.requests);
        NFile f;
        ASSERT_TRUE(f.open(file.c_str(), "r"));
        for (size_t i = 0; c.requests[i] != '\0'; ++i) {
            const char r = c.requests[i];
            const bool granted = r == 'S'   ? f.lockShared()
                                 : r == 's' ? f.tryLockShared()
                                 : r == 'X' ? f.lock()
                                            : f.tryLock();
            EXPECT_EQ(granted, c.granted[i] == '1') << i;
        }
        EXPECT_EQ(f.lockRecord().depth(), c.depth);
        EXPECT_EQ(othersCanLock(file, false), c.othersMayShare);
        for (int32_t left = std::abs(c.depth); left > 0; --left) {
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
    EXPECT_EQ(other.lockRecord().depth(), 0);
    holder.close();  // closing drops the lock
    EXPECT_TRUE(other.tryLockExclusive());
}

TEST_F(FileLockTest, OnlyTheOwnerThreadLocksButAnyThreadUnlocks) {
    const std::string file = at("lock");
    writeFile(file, "");
    NFile f;
    ASSERT_TRUE(f.open(file.c_str(), "r"));
    int granted = -1;
    std::thread([&] {
        granted = f.lock() + f.tryLockShared() + f.lockShared() + f.tryLockExclusive();
    }).join();
    EXPECT_EQ(granted, 0);
    EXPECT_TRUE(othersCanLock(file, true));  // nothing reached flock
    ASSERT_TRUE(f.lock());
    std::thread([&] { f.unlock(); }).join();
    EXPECT_TRUE(othersCanLock(file, true));
}

TEST_F(FileLockTest, RecordLifecycle) {
    FileLock detached;
    EXPECT_FALSE(detached.lockShared() || detached.attach(-1));
    const std::string longPath = root_ + "/" + std::string(600, 'p');
    EXPECT_FALSE(detached.openPath(longPath.c_str(), true));  // the cut name is still too long
    EXPECT_EQ(std::string(detached.path()), longPath.substr(0, FileLock::kPathSize - 1));

    int kept = -1;
    int owned = -1;
    {
        FileLock lock;
        const mode_t mask = umask(0);
        const bool opened = lock.openPath(at("lock").c_str(), true);
        umask(mask);
        ASSERT_TRUE(opened);
        expectPrivateAndNotInherited(lock.descriptor());
        EXPECT_FALSE(lock.openPath(at("other").c_str(), true));  // already attached
        kept = lock.descriptor();
        EXPECT_TRUE(lock.lockShared() && lock.lockShared());
        lock.reset();  // releases one level and detaches, but does not close
        EXPECT_FALSE(lock.isOpen());
        EXPECT_EQ(lock.depth(), 1);
        ASSERT_TRUE(lock.openPath(at("lock").c_str(), false));
        owned = lock.descriptor();
    }
    EXPECT_EQ(close(kept), 0);
    EXPECT_EQ(fcntl(owned, F_GETFD), -1);  // closed by the record that opened it
}

// A stream buffer that only reports positions, far beyond what 32 bits hold.
class FarPositionBuf : public std::streambuf {
  protected:
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
    EXPECT_EQ(stream.read(got, 1), 0U);
    EXPECT_TRUE(stream.endOfFile());
    EXPECT_TRUE(stream.write("ignored", 7));
    EXPECT_EQ(stream.flush(), 0);
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
