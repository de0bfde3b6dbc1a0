#include "nuvra/utils/random_source.h"

#include <fcntl.h>
#include <openssl/rand.h>

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
#include "nuvra/utils/internal/random_source_seam.h"

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

// The descriptor under a std::filebuf. libstdc++ keeps it in the buffer's protected file
// member; naming that member through a derived class is the one way in without a cast.
class FileBufDescriptor : public std::filebuf {
  public:
    static int of(std::filebuf& buffer) { return (buffer.*&FileBufDescriptor::_M_file).fd(); }
};

}  // namespace

RandomSource::RandomSource() : RandomSource(kDevicePath) {}

RandomSource::RandomSource(const char* devicePath) {
    // Unbuffered, so that each extraction takes only what it needs from the device.
    stream_.rdbuf()->pubsetbuf(nullptr, 0);
    stream_.open(devicePath, std::ios::in | std::ios::binary);
    if (!stream_.good()) {
        seedThisThreadOnce();
        return;
    }
    haveDevice_ = true;
    const int savedErrno = errno;
    // The file stream opens without close-on-exec, and a child started while this source
    // lives must not inherit the device. Another thread forking between the open and this
    // call can still pass it on; the streams offer no way to open close-on-exec.
    const int fd = FileBufDescriptor::of(*stream_.rdbuf());
    if (fd >= 0) {
        fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    }
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
        char byte = 0;
        do {
            // A failed extraction leaves `byte` as it was, and that byte is appended again:
            // callers have always received exactly these bytes.
            stream_.get(byte);
            out += byte;
            ++read;
        } while (stream_.good() && read < wanted);
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

namespace internal {

std::unique_ptr<RandomSource> RandomSourceSeam::withDevice(const char* devicePath) {
    return std::unique_ptr<RandomSource>(new RandomSource(devicePath));
}

}  // namespace internal

}  // namespace nuvra::utils
