// SPDX-License-Identifier: Apache-2.0
// nuvra::utils::NStream and its concrete streams: buffered byte streams with a fixed 4 KiB
// read buffer and a fixed 4 KiB write buffer inside the object, NFile over a POSIX file
// descriptor with advisory whole-file locks (FileLock), and NStdIStream, a read-only adapter
// over a caller-owned std::istream.
//
// Nothing here throws or logs. Every failure is a return value (false, 0 or -1, as stated
// per operation) and errno is left as the failing system call set it. Raw operations are not
// retried on EINTR.
//
// Offsets are 64-bit through seek64/tell64; seek/tell are the 32-bit forms. Neither flushes
// the write buffer nor drops the read buffer, and the position they report does not count
// buffered bytes: callers that mix buffered access with seeking flush and drain first.
//
// WARNING: streams are not synchronised; callers serialise all use of one object.

#ifndef NUVRA_UTILS_STREAM_H_
#define NUVRA_UTILS_STREAM_H_

#include <cstdint>
#include <iosfwd>
#include <string>

namespace nuvra::utils {

// The buffered layer over four raw operations that each concrete stream supplies.
class NStream {
  public:
    // Size of each of the two buffers; a raw read always asks for this many bytes.
    static constexpr uint32_t kBufferSize = 4096;

    NStream() = default;
    // Does not flush: the raw operations belong to the derived object, which is already gone.
    // Concrete streams that own a resource flush in their own destructor.
    virtual ~NStream() = default;

    NStream(const NStream&) = delete;
    NStream& operator=(const NStream&) = delete;

    // Empty hooks that no stream overrides; they hold their place among the virtual
    // operations so that the later ones keep theirs.
    virtual void reservedHook1() {}
    virtual void reservedHook2() {}

    // True when no read-ahead bytes are waiting in the read buffer.
    virtual bool readBufferEmpty();
    // False for a stream that cannot be closed.
    virtual bool isClosed();

    // One unbuffered read of up to `length` bytes: the count read, 0 at end of input, or -1.
    [[nodiscard]] virtual int32_t readRaw(void* buffer, uint32_t length) = 0;
    // One unbuffered write of up to `length` bytes: the count written, or -1 (0 counts as a
    // failure too).
    [[nodiscard]] virtual int32_t writeRaw(const void* buffer, uint32_t length) = 0;

    // Writes all pending output through writeRaw, following short writes. Returns 0, or -1
    // when writeRaw reports a failure. After a short write and then a failure only the
    // undelivered tail stays pending, for a later flush to try again: the bytes already
    // delivered are dropped from the buffer rather than kept as they were, which would
    // write them a second time.
    [[nodiscard]] int flush();

    // Reads up to `length` bytes: first whatever is buffered, otherwise one raw read of a
    // full buffer. One call never makes more than one raw read, so short counts are normal.
    // Returns 0 at end of input (endOfFile() is then true) or on error (endOfFile() false).
    // Pending output is flushed before a raw read; a failed flush returns 0.
    [[nodiscard]] uint32_t read(void* buffer, uint32_t length);

    // Buffers `length` bytes, flushing each time the buffer becomes full (a write that
    // exactly fills it flushes at once). Returns `length`, or 0 when a flush failed; part of
    // the data may then be pending, and is kept for the next flush.
    [[nodiscard]] uint32_t write(const void* buffer, uint32_t length);

    // Reads one line, the '\n' included, into `buffer` and NUL-terminates it; returns the
    // count of bytes stored. At end of input (or on an error) before a '\n': with
    // `acceptUnterminated` the bytes read so far are returned as the line, otherwise
    // buffer[0] is set to NUL and 0 returned.
    // WARNING: a line that does not fit fills all `size` bytes, is not terminated and gives
    // 0; callers check the result before using the buffer. `size` 0 returns 0 and leaves
    // the buffer alone.
    [[nodiscard]] uint32_t readLine(char* buffer, uint32_t size, bool acceptUnterminated);

    // fgets-like: stores bytes until a '\n' is stored, `size` - 1 bytes are stored or input
    // ends, always NUL-terminates, and returns the count stored. `size` 0 returns 0 without
    // touching the buffer.
    [[nodiscard]] uint32_t gets(char* buffer, uint32_t size);

    // Formats like std::printf and writes the text. True only when write() returned more
    // than 0, so an empty result gives false. Allocates only for texts of 512 bytes or more.
    [[nodiscard]] bool printf(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Writes the text without its terminator; true when write() returned non-zero, so an
    // empty text gives false.
    [[nodiscard]] bool puts(const char* text);
    [[nodiscard]] bool write(const std::string& text);

    // True when the latest raw read reported end of input; cleared by every read().
    [[nodiscard]] bool endOfFile() const { return endOfFile_; }

    // Copies `source` to `destination` through a 1024-byte stack buffer until a read returns
    // 0. Write failures are not checked and the destination is not flushed. Returns 0.
    static int copyAll(NStream& source, NStream& destination);

    // Copies at most `count` bytes the same way, stopping early when a read returns 0.
    // Returns 0.
    static int copyBytes(NStream& source, NStream& destination, uint32_t count);

  private:
    // Refills the read buffer with one raw read (flushing pending output first) and returns
    // its first byte, consumed, or -1 on end of input or failure.
    [[nodiscard]] int fill();
    // The next buffered byte, refilling when the buffer is drained; -1 as fill().
    [[nodiscard]] int nextByte() {
        if (readAvailable_ > 0) {
            --readAvailable_;
            return *readCursor_++;
        }
        return fill();
    }

    unsigned char readBuffer_[kBufferSize] = {};
    unsigned char writeBuffer_[kBufferSize] = {};
    unsigned char* readCursor_ = readBuffer_;
    unsigned char* writeCursor_ = writeBuffer_;
    // Bytes at readCursor_ not yet consumed.
    int32_t readAvailable_ = 0;
    // Free bytes after writeCursor_; writeCursor_ - writeBuffer_ + writeSpace_ == kBufferSize.
    uint32_t writeSpace_ = kBufferSize;
    bool endOfFile_ = false;

  protected:
    // Drops buffered input and pending output, for streams that switch to another source.
    void discardBuffers();
};

// A stream with a position. The 64-bit forms default to the 32-bit ones.
class NFileStream : public NStream {
  public:
    // Moves the position (whence as for lseek); 0 or -1.
    [[nodiscard]] virtual int seek(int32_t offset, int whence) = 0;
    // The position, or -1.
    [[nodiscard]] virtual int32_t tell() = 0;
    // Calls seek() with the low 32 bits of `offset`; the high half is dropped. Streams with
    // real 64-bit positions override this.
    [[nodiscard]] virtual int seek64(int64_t offset, int whence);
    // tell(), sign-extended.
    [[nodiscard]] virtual int64_t tell64();
};

// An advisory whole-file lock (flock) on one descriptor, nestable, owned by the thread that
// constructed it: requests from any other thread fail without reaching flock.
//
// Depth 0 means unlocked, n > 0 a shared lock held n times, -n an exclusive lock held n
// times. Only the outermost request and the last release call flock. A shared request inside
// an exclusive hold deepens the exclusive hold; an exclusive request inside a shared hold
// fails (locks are never upgraded).
//
// WARNING: the depth is a plain counter; one record is used by its owner thread only.
class FileLock {
  public:
    // Longest path kept, plus its terminator.
    static constexpr uint32_t kPathSize = 512;

    // Records the calling thread as owner; detached, unlocked.
    FileLock();
    // When still attached: releases one level if locked, and closes the descriptor if the
    // record opened it.
    ~FileLock();

    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Opens `path` read-write (created with mode 0600 when `create`), close-on-exec, and
    // owns the descriptor. A path longer than 511 bytes is cut, and the cut path is opened.
    // Returns false when a descriptor is already attached or the open fails.
    [[nodiscard]] bool openPath(const char* path, bool create);

    // Attaches a descriptor the record does not close, unlocked. False for a negative `fd`.
    [[nodiscard]] bool attach(int32_t fd);

    // Exclusive lock, blocking or not. False when detached, on another thread, while a
    // shared lock is held, or when flock fails (EWOULDBLOCK for the non-blocking form).
    [[nodiscard]] bool lockExclusive();
    [[nodiscard]] bool tryLockExclusive();
    // Shared lock, blocking or not; nests inside an exclusive hold as another exclusive
    // level. False when detached, on another thread, or when flock fails.
    [[nodiscard]] bool lockShared();
    [[nodiscard]] bool tryLockShared();

    // Releases one level; the last one calls flock(LOCK_UN). Any thread may release.
    // Nothing happens when detached.
    void unlock();

    // Releases one level if locked and detaches; does not close the descriptor. A nested
    // hold is left to the descriptor's close. The depth is not cleared: the next attach does
    // that.
    void reset();

    [[nodiscard]] bool isOpen() const { return open_; }
    [[nodiscard]] int32_t depth() const { return depth_; }
    [[nodiscard]] int32_t descriptor() const { return descriptor_; }
    [[nodiscard]] bool ownsDescriptor() const { return ownsDescriptor_; }
    [[nodiscard]] int32_t owner() const { return owner_; }
    [[nodiscard]] const char* path() const { return path_; }

  private:
    // The common path of the four lock requests.
    [[nodiscard]] bool acquire(bool shared, bool blocking);

    char path_[kPathSize] = {};
    bool open_ = false;
    int32_t depth_ = 0;
    bool ownsDescriptor_ = false;
    int32_t descriptor_ = 0;
    int32_t owner_;
};

// A buffered stream over a file descriptor, with FileLock locking.
//
// Descriptors are opened close-on-exec and files are created with mode 0600 (less the
// umask). Buffered output reaches the file on flush(), close() and destruction.
class NFile : public NFileStream {
  public:
    // Access values for open(path, access, disposition); any other value counts as kRead.
    enum Access : int32_t { kRead = 0, kWrite = 1, kReadWrite = 2 };
    // Disposition values for open(path, access, disposition); any other value counts as
    // kOpenExisting.
    enum Disposition : int32_t {
        kCreateNew = 0,         // O_CREAT | O_EXCL
        kCreateAlways = 1,      // O_CREAT | O_TRUNC
        kOpenExisting = 2,      // no flags
        kOpenAlways = 3,        // O_CREAT
        kTruncateExisting = 4,  // O_TRUNC; refused with kRead
        kAppend = 5,            // O_CREAT | O_APPEND
    };

    // Closed; the lock record belongs to the calling thread.
    NFile();
    // close(), so pending output is flushed (a failure is ignored).
    ~NFile() override;

    bool isClosed() override;
    [[nodiscard]] int32_t readRaw(void* buffer, uint32_t length) override;
    [[nodiscard]] int32_t writeRaw(const void* buffer, uint32_t length) override;
    // lseek64; 0 or -1.
    [[nodiscard]] int seek(int32_t offset, int whence) override;
    // The low 32 bits of the descriptor position (-1 on failure).
    [[nodiscard]] int32_t tell() override;
    // lseek64 with the full offset; 0 or -1.
    [[nodiscard]] int seek64(int64_t offset, int whence) override;
    // The descriptor position, or -1.
    [[nodiscard]] int64_t tell64() override;

    // The FileLock operations on this file's descriptor. lock/lockExclusive and
    // tryLock/tryLockExclusive are the same operations.
    [[nodiscard]] virtual bool lock();
    [[nodiscard]] virtual bool tryLock();
    virtual void unlock();
    [[nodiscard]] virtual bool lockShared();
    [[nodiscard]] virtual bool lockExclusive();
    [[nodiscard]] virtual bool tryLockShared();
    [[nodiscard]] virtual bool tryLockExclusive();

    // Called after every successful open with the descriptor and "w" (some write access) or
    // "r"; its result becomes open's result. Returns true.
    [[nodiscard]] virtual bool onOpened(int32_t fd, const char* modeText);

    // open64(path, flags | O_CLOEXEC, 0600). Returns false on failure (the descriptor is
    // then -1); otherwise the descriptor is attached to the lock record, unlocked, and
    // onOpened decides.
    // WARNING: a descriptor already open is neither closed nor flushed first; close() before
    // reopening, or it leaks and pending output goes to the new file.
    [[nodiscard]] bool open(const char* path, int flags);

    // Opens with an fopen-style mode: 'a' appends (creating), 'w' truncates (creating),
    // anything else reads; a '+' among the next four characters makes it read-write.
    // A null `modeText` opens nothing and returns true; callers have always treated it as a
    // no-op, so it is kept.
    [[nodiscard]] bool open(const char* path, const char* modeText);

    // Opens with the Access and Disposition values above. kTruncateExisting with kRead
    // returns false and opens nothing.
    [[nodiscard]] bool open(const char* path, int32_t access, int32_t disposition);

    // Flushes (ignoring failure), releases one lock level, detaches the lock record and
    // closes the descriptor. Nothing when closed. Buffered input and any output that could
    // not be flushed are dropped rather than kept in the buffers, where the next file opened
    // on this object would read this one's bytes or receive its output.
    void close();

    // Cuts the file at the current descriptor position (buffered bytes are not counted).
    // True on success, and also when the position cannot be read.
    [[nodiscard]] bool truncate();

    // -1 without writing when `length` is negative, else writeRaw (unbuffered).
    [[nodiscard]] int32_t writeChecked(const void* buffer, int32_t length);

    // The descriptor, -1 while closed.
    [[nodiscard]] int32_t fd() const { return fd_; }
    [[nodiscard]] const FileLock& lockRecord() const { return lock_; }

  private:
    int32_t fd_ = -1;
    FileLock lock_;
};

// A read-only stream over a std::istream that the caller owns and keeps alive. Writes are
// accepted and discarded.
class NStdIStream : public NFileStream {
  public:
    explicit NStdIStream(std::istream& stream) : stream_(&stream) {}
    ~NStdIStream() override = default;

    // istream::read, then the count of characters it extracted.
    [[nodiscard]] int32_t readRaw(void* buffer, uint32_t length) override;
    // Returns `length`; the bytes are dropped.
    [[nodiscard]] int32_t writeRaw(const void* buffer, uint32_t length) override;
    // Clears the stream's state and seeks (whence 1 current, 2 end, else beginning); -1 when
    // the stream reports any error afterwards, else 0.
    [[nodiscard]] int seek(int32_t offset, int whence) override;
    // Clears the stream's state and returns tellg(), capped at 2147483647; -1 passes through.
    [[nodiscard]] int32_t tell() override;

  private:
    std::istream* stream_;
};

}  // namespace nuvra::utils

#endif  // NUVRA_UTILS_STREAM_H_
