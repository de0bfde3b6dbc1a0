// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/random_source.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <ext/stdio_filebuf.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <memory>

#include "nuvra/crypto/stream_digest.h"
#include "nuvra/tiny/clock.h"
#include "nuvra/tiny/tls.h"

namespace nuvra::utils {
namespace {

constexpr char kDevicePath[] = "/dev/urandom";

// Counts makeUniqueId() calls. Two calls at the same moment may read the same number; the
// rest of the id still tells them apart.
std::atomic<uint64_t> uniqueIdSequence{0};

// Marks the threads that have called srand(). Created on first use and deleted at exit.
tiny::TLS<void>& seededThreads() {
    static tiny::TLS<void> slot;
    return slot;
}

// Sign-extends a byte 0 to 255 read as a signed 8-bit value.
uint32_t signExtended32(uint32_t byte) {
    return static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(byte)));
}

uint64_t signExtended64(uint32_t byte) {
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int8_t>(byte)));
}

// Opens `path` into `stream` for unbuffered binary reading, close-on-exec so that the device
// does not leak into programs the process starts. std::ifstream cannot ask for that, so the
// descriptor is opened here and its file buffer swapped in. On failure the stream's fail state
// is set, as a failed open() would.
void openCloseOnExec(std::ifstream& stream, const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        // A buffer of one character is the library's unbuffered mode: each extraction reads
        // only what it needs from the device.
        __gnu_cxx::stdio_filebuf<char> opened(fd, std::ios::in | std::ios::binary, 1);
        if (opened.is_open()) {
            stream.rdbuf()->swap(opened);
            stream.clear();
            return;
        }
        ::close(fd);
    }
    stream.setstate(std::ios::failbit);
}

}  // namespace

RandomSource::RandomSource() : RandomSource(kDevicePath) {}

RandomSource::RandomSource(const char* devicePath) {
    openCloseOnExec(stream_, devicePath);
    if (!stream_.good()) {
        seedThisThreadOnce();
        return;
    }
    haveDevice_ = true;
    const int savedErrno = errno;
    stream_.get();  // the first byte is skipped on purpose
    errno = savedErrno;
    stream_.read(reinterpret_cast<char*>(&seed_), sizeof seed_);
}

RandomSource::~RandomSource() {
    if (haveDevice_) {
        stream_.close();
    }
}

void RandomSource::seedThisThreadOnce() {
    tiny::TLS<void>& seeded = seededThreads();
    if (seeded.get() != nullptr) {
        return;
    }
    // Without a key every construction seeds anew.
    seeded.set(reinterpret_cast<void*>(1));
    // Evaluated in this order; the thread id enters twice, shifted and not, on purpose.
    const auto process = static_cast<uint32_t>(tiny::getProcessId());
    const auto thread = static_cast<uint32_t>(tiny::currentThreadId());
    const uint32_t milliseconds = tiny::currentTimeMs();
    const auto threadAgain = static_cast<uint32_t>(tiny::currentThreadId());
    seed_ = ((process ^ thread) << 16) ^ milliseconds ^ threadAgain;
    std::srand(seed_);
}

std::string& RandomSource::getBytes(std::string& out, int32_t count) {
    out.clear();
    ++requestCount_;
    if (count < 0) {
        return out;
    }
    const auto wanted = static_cast<uint32_t>(count);
    uint32_t read = 0;
    if (haveDevice_ && stream_.good() && wanted != 0) {
        // One read for all the bytes (the file buffer reads a request of more than one byte
        // straight from the device). The result is what extracting byte by byte until the
        // stream fails would give, which is what callers have always received: the bytes
        // read, then, if the device failed, one more byte, the last one read (0 when none
        // was), as a failed extraction left its variable unchanged and it was appended
        // anyway. One case differs: a read error right after a short read, which the kernel's
        // random device never gives, drops that call's bytes, since the file buffer then
        // reports only the error.
        out.resize(wanted);
        stream_.read(out.data(), static_cast<std::streamsize>(wanted));
        read = static_cast<uint32_t>(stream_.gcount());
        if (read < wanted) {
            out[read] = read == 0 ? '\0' : out[read - 1];
            ++read;
        }
        out.resize(read);
    }
    if (read < wanted) {
        std::unique_ptr<unsigned char[]> fresh(new unsigned char[wanted]());
        if (RAND_bytes(fresh.get(), count) == 1) {
            out.append(reinterpret_cast<const char*>(fresh.get()), wanted);
        }
    }
    return out;
}

uint32_t RandomSource::getByte() {
    if (haveDevice_) {
        char byte = 0;
        stream_.get(byte);
        if (stream_.gcount() > 0) {
            return static_cast<unsigned char>(byte);
        }
    }
    // The top eight of rand()'s 31 bits.
    return static_cast<uint32_t>(std::rand()) >> 23;
}

uint32_t RandomSource::getUInt32() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value = (value << 8) + signExtended32(getByte());
    }
    return value;
}

uint64_t RandomSource::getUInt64() {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = (value << 8) + signExtended64(getByte());
    }
    return value;
}

uint32_t RandomSource::nextUInt32() { return getUInt32(); }

uint64_t RandomSource::nextUInt64() { return getUInt64(); }

std::string& RandomSource::getRandomText(std::string& out, uint32_t length) {
    crypto::StreamDigestMD5 digest(false);
    out.clear();
    std::string bytes;
    while (out.size() < length) {
        // Each round finalises the digest of only that round's bytes.
        digest << getBytes(bytes, 16);
        const std::string hex = digest.hexDigest(false);
        if (hex.empty()) {
            break;  // no random bytes to be had: stop rather than spin
        }
        out += hex;
    }
    out.resize(std::min<size_t>(out.size(), length));
    return out;
}

std::string RandomSource::makeUniqueId(uint32_t length) {
    crypto::StreamDigestMD5 digest(false);
    RandomSource source;
    // 32-bit arithmetic, wrapping, as the id has always been built.
    const auto mixedTime = static_cast<int32_t>(static_cast<uint32_t>(std::time(nullptr)) +
                                                static_cast<uint32_t>(std::rand()));
    std::string bytes;
    source.getBytes(bytes, 20);
    digest << std::setfill('0') << std::setw(10) << mixedTime << std::setw(10)
           << static_cast<uint32_t>(tiny::getProcessId()) << bytes << tiny::tickClockMs()
           << uniqueIdSequence.fetch_add(1, std::memory_order_relaxed);
    return digest.hexDigest(false).substr(0, length);
}

}  // namespace nuvra::utils
