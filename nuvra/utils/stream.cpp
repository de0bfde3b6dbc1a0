// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/stream.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <limits>

#include "nuvra/tiny/tls.h"
#include "nuvra/utils/filesystem.h"

namespace nuvra::utils {

namespace {

// Size of the stack buffer used by the copy functions.
constexpr uint32_t kCopyChunk = 1024;
// Formatted text shorter than this is produced without allocating.
constexpr size_t kPrintfLocal = 512;

}  // namespace

// NStream ------------------------------------------------------------------------------------

bool NStream::readBufferEmpty() { return readAvailable_ == 0; }

bool NStream::isClosed() { return false; }

void NStream::discardBuffers() {
    readCursor_ = readBuffer_;
    readAvailable_ = 0;
    writeCursor_ = writeBuffer_;
    writeSpace_ = kBufferSize;
    endOfFile_ = false;
}

int NStream::flush() {
    const auto pending = static_cast<uint32_t>(writeCursor_ - writeBuffer_);
    uint32_t written = 0;
    while (written < pending) {
        const int32_t result = writeRaw(writeBuffer_ + written, pending - written);
        if (result < 1) {
            // Keep what the system did not take, and only that: a later flush must neither
            // lose these bytes nor repeat the ones a short write already delivered.
            if (written > 0) {
                std::memmove(writeBuffer_, writeBuffer_ + written, pending - written);
                writeCursor_ -= written;
                writeSpace_ += written;
            }
            return -1;
        }
        written += static_cast<uint32_t>(result);
    }
    writeCursor_ = writeBuffer_;
    writeSpace_ = kBufferSize;
    return 0;
}

int NStream::fill() {
    if (writeCursor_ != writeBuffer_ && flush() != 0) {
        return -1;
    }
    const int32_t result = readRaw(readBuffer_, kBufferSize);
    if (result < 1) {
        endOfFile_ = (result == 0);
        return -1;
    }
    readAvailable_ = result - 1;
    readCursor_ = readBuffer_ + 1;
    return readBuffer_[0];
}

uint32_t NStream::read(void* buffer, uint32_t length) {
    endOfFile_ = false;
    if (length == 0) {
        return 0;
    }
    auto* out = static_cast<unsigned char*>(buffer);
    uint32_t copied = 0;
    if (readAvailable_ == 0) {
        const int first = fill();
        if (first < 0) {
            return 0;
        }
        *out++ = static_cast<unsigned char>(first);
        copied = 1;
    }
    const uint32_t more = std::min(length - copied, static_cast<uint32_t>(readAvailable_));
    std::memcpy(out, readCursor_, more);
    readCursor_ += more;
    readAvailable_ -= static_cast<int32_t>(more);
    return copied + more;
}

uint32_t NStream::write(const void* buffer, uint32_t length) {
    const auto* in = static_cast<const unsigned char*>(buffer);
    uint32_t remaining = length;
    while (writeSpace_ <= remaining) {
        std::memcpy(writeCursor_, in, writeSpace_);
        in += writeSpace_;
        remaining -= writeSpace_;
        writeCursor_ += writeSpace_;
        writeSpace_ = 0;
        if (flush() != 0) {
            return 0;
        }
    }
    if (remaining > 0) {
        std::memcpy(writeCursor_, in, remaining);
        writeCursor_ += remaining;
        writeSpace_ -= remaining;
    }
    return length;
}

uint32_t NStream::readLine(char* buffer, uint32_t size, bool acceptUnterminated) {
    if (size == 0) {
        return 0;
    }
    buffer[0] = '\0';
    uint32_t stored = 0;
    for (;;) {
        const int byte = nextByte();
        if (byte < 0) {
            if (!acceptUnterminated) {
                buffer[0] = '\0';
                return 0;
            }
            break;
        }
        buffer[stored] = static_cast<char>(byte);
        if (stored == size - 1) {
            // The line does not fit: the buffer is left full and unterminated, and 0 tells
            // the caller so. Callers check for 0 rather than for a terminator.
            return 0;
        }
        ++stored;
        if (byte == '\n') {
            break;
        }
    }
    buffer[stored] = '\0';
    return stored;
}

uint32_t NStream::gets(char* buffer, uint32_t size) {
    if (size == 0) {
        return 0;
    }
    uint32_t stored = 0;
    while (stored < size - 1) {
        const int byte = nextByte();
        if (byte < 0) {
            break;
        }
        buffer[stored++] = static_cast<char>(byte);
        if (byte == '\n') {
            break;
        }
    }
    buffer[stored] = '\0';
    return stored;
}

bool NStream::printf(const char* format, ...) {
    char local[kPrintfLocal];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(local, sizeof local, format, args);
    va_end(args);
    if (length < 0) {
        return false;
    }
    if (static_cast<size_t>(length) < sizeof local) {
        return write(local, static_cast<uint32_t>(length)) > 0;
    }
    char* text = nullptr;
    va_start(args, format);
    const int allocated = vasprintf(&text, format, args);
    va_end(args);
    if (allocated < 0) {
        return false;
    }
    const bool written = write(text, static_cast<uint32_t>(allocated)) > 0;
    std::free(text);  // NOLINT(cppcoreguidelines-no-malloc): vasprintf allocates with malloc
    return written;
}

bool NStream::puts(const char* text) {
    return write(text, static_cast<uint32_t>(std::strlen(text))) != 0;
}

bool NStream::write(const std::string& text) {
    return write(text.data(), static_cast<uint32_t>(text.size())) != 0;
}

int NStream::copyAll(NStream& source, NStream& destination) {
    unsigned char chunk[kCopyChunk];
    for (;;) {
        const uint32_t got = source.read(chunk, sizeof chunk);
        if (got == 0) {
            return 0;
        }
        // The copy goes on past a failed write, as it always has.
        static_cast<void>(destination.write(chunk, got));
    }
}

int NStream::copyBytes(NStream& source, NStream& destination, uint32_t count) {
    unsigned char chunk[kCopyChunk];
    uint32_t want = std::min(count, kCopyChunk);
    uint32_t copied = 0;
    while (want > 0) {
        const uint32_t got = source.read(chunk, want);
        if (got == 0) {
            break;
        }
        // The copy goes on past a failed write, as it always has.
        static_cast<void>(destination.write(chunk, got));
        copied += got;
        want = std::min(want, count - copied);
    }
    return 0;
}

// NFileStream --------------------------------------------------------------------------------

int NFileStream::seek64(int64_t offset, int whence) {
    // Only the low half reaches the 32-bit seek; streams with 64-bit positions override.
    return seek(static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(offset))), whence);
}

int64_t NFileStream::tell64() { return tell(); }

// FileLock -----------------------------------------------------------------------------------

FileLock::FileLock() : owner_(tiny::currentThreadId()) {}

FileLock::~FileLock() {
    if (!open_) {
        return;
    }
    if (depth_ != 0) {
        unlock();
    }
    if (ownsDescriptor_) {
        ::close(descriptor_);
    }
}

bool FileLock::openPath(const char* path, bool create) {
    std::memset(path_, 0, sizeof path_);
    std::strncpy(path_, path, sizeof path_ - 1);
    if (open_) {
        return false;
    }
    depth_ = 0;
    const int fd = ::open64(path_, O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
    if (fd == -1) {
        return false;
    }
    descriptor_ = fd;
    open_ = true;
    ownsDescriptor_ = true;
    return true;
}

bool FileLock::attach(int32_t fd) {
    if (fd < 0) {
        return false;
    }
    open_ = true;
    descriptor_ = fd;
    depth_ = 0;
    return true;
}

bool FileLock::acquire(bool shared, bool blocking) {
    if (!open_ || tiny::currentThreadId() != owner_) {
        return false;
    }
    if (!shared && depth_ > 0) {
        return false;  // a shared hold is never upgraded
    }
    if (depth_ == 0) {
        const int operation = (shared ? LOCK_SH : LOCK_EX) | (blocking ? 0 : LOCK_NB);
        if (::flock(descriptor_, operation) != 0) {
            return false;
        }
    }
    // A shared request inside an exclusive hold counts as one more exclusive level.
    if (shared && depth_ >= 0) {
        ++depth_;
    } else {
        --depth_;
    }
    return true;
}

bool FileLock::lockExclusive() { return acquire(false, true); }
bool FileLock::tryLockExclusive() { return acquire(false, false); }
bool FileLock::lockShared() { return acquire(true, true); }
bool FileLock::tryLockShared() { return acquire(true, false); }

void FileLock::unlock() {
    if (!open_) {
        return;
    }
    if (depth_ > 0) {
        --depth_;
    } else if (depth_ < 0) {
        ++depth_;
    }
    if (depth_ == 0) {
        ::flock(descriptor_, LOCK_UN);
    }
}

void FileLock::reset() {
    if (depth_ != 0) {
        unlock();
    }
    open_ = false;
    descriptor_ = 0;
    ownsDescriptor_ = false;
}

// NFile --------------------------------------------------------------------------------------

NFile::NFile() = default;

NFile::~NFile() { close(); }

bool NFile::isClosed() { return fd_ == -1; }

int32_t NFile::readRaw(void* buffer, uint32_t length) {
    return static_cast<int32_t>(::read(fd_, buffer, length));
}

int32_t NFile::writeRaw(const void* buffer, uint32_t length) {
    return static_cast<int32_t>(::write(fd_, buffer, length));
}

int NFile::seek(int32_t offset, int whence) { return seek64(offset, whence); }

int32_t NFile::tell() {
    // The low half of the position, as the 32-bit interface has always reported it.
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(tell64())));
}

int NFile::seek64(int64_t offset, int whence) {
    return ::lseek64(fd_, static_cast<off64_t>(offset), whence) == -1 ? -1 : 0;
}

int64_t NFile::tell64() { return ::lseek64(fd_, 0, SEEK_CUR); }

bool NFile::lock() { return lock_.lockExclusive(); }
bool NFile::tryLock() { return lock_.tryLockExclusive(); }
void NFile::unlock() { lock_.unlock(); }
bool NFile::lockShared() { return lock_.lockShared(); }
bool NFile::lockExclusive() { return lock_.lockExclusive(); }
bool NFile::tryLockShared() { return lock_.tryLockShared(); }
bool NFile::tryLockExclusive() { return lock_.tryLockExclusive(); }

bool NFile::onOpened(int32_t /*fd*/, const char* /*modeText*/) { return true; }

bool NFile::open(const char* path, int flags) {
    fd_ = ::open64(path, flags | O_CLOEXEC, 0600);
    if (fd_ == -1) {
        return false;
    }
    static_cast<void>(lock_.attach(fd_));  // refuses only a negative descriptor
    return onOpened(fd_, (flags & O_ACCMODE) != 0 ? "w" : "r");
}

bool NFile::open(const char* path, const char* modeText) {
    if (modeText == nullptr) {
        return true;  // kept: callers pass a null mode to mean "nothing to open"
    }
    int access = O_RDONLY;
    int flags = 0;
    if (modeText[0] == 'a') {
        access = O_WRONLY;
        flags = O_CREAT | O_APPEND;
    } else if (modeText[0] == 'w') {
        access = O_WRONLY;
        flags = O_CREAT | O_TRUNC;
    }
    if (modeText[0] != '\0') {
        for (int i = 1; i <= 4 && modeText[i] != '\0'; ++i) {
            if (modeText[i] == '+') {
                access = O_RDWR;
            }
        }
    }
    return open(path, flags | access);
}

bool NFile::open(const char* path, int32_t access, int32_t disposition) {
    int flags = O_RDONLY;
    if (access == kWrite) {
        flags = O_WRONLY;
    } else if (access == kReadWrite) {
        flags = O_RDWR;
    }
    switch (disposition) {
        case kCreateNew:
            flags |= O_CREAT | O_EXCL;
            break;
        case kCreateAlways:
            flags |= O_CREAT | O_TRUNC;
            break;
        case kOpenAlways:
            flags |= O_CREAT;
            break;
        case kTruncateExisting:
            if (flags == O_RDONLY) {
                return false;
            }
            flags |= O_TRUNC;
            break;
        case kAppend:
            flags |= O_CREAT | O_APPEND;
            break;
        default:
            break;
    }
    return open(path, flags);
}

void NFile::close() {
    if (fd_ == -1) {
        return;
    }
    static_cast<void>(flush());  // a failure only drops the output, as below
    discardBuffers();
    lock_.reset();
    ::close(fd_);
    fd_ = -1;
}

// Not const: it changes the file.
bool NFile::truncate() {  // NOLINT(readability-make-member-function-const)
    return truncateAt(fd_, -1) == 0;
}

int32_t NFile::writeChecked(const void* buffer, int32_t length) {
    if (length < 0) {
        return -1;
    }
    return writeRaw(buffer, static_cast<uint32_t>(length));
}

// NStdIStream --------------------------------------------------------------------------------

int32_t NStdIStream::readRaw(void* buffer, uint32_t length) {
    stream_->read(static_cast<char*>(buffer), static_cast<std::streamsize>(length));
    return static_cast<int32_t>(stream_->gcount());
}

int32_t NStdIStream::writeRaw(const void* /*buffer*/, uint32_t length) {
    return static_cast<int32_t>(length);
}

int NStdIStream::seek(int32_t offset, int whence) {
    stream_->clear();
    std::ios_base::seekdir direction = std::ios_base::beg;
    if (whence == SEEK_CUR) {
        direction = std::ios_base::cur;
    } else if (whence == SEEK_END) {
        direction = std::ios_base::end;
    }
    stream_->seekg(offset, direction);
    return stream_->rdstate() != std::ios_base::goodbit ? -1 : 0;
}

int32_t NStdIStream::tell() {
    stream_->clear();
    const auto position = static_cast<int64_t>(stream_->tellg());
    constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::min(position, kMax));
}

}  // namespace nuvra::utils
