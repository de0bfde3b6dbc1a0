// SPDX-License-Identifier: Apache-2.0
// nuvra::crypto::StreamDigest and its subclasses: output streams that compute a message
// digest of everything written to them, for MD5, RIPEMD-160, SHA-0, SHA-1 and SHA-512.
//
// Write with the ordinary stream operations (<<, write, put), then ask for digest() (raw
// bytes) or hexDigest() (lower-case hexadecimal text). Asking ends the digest; the next byte
// written starts a new one over the new bytes only.
//
// Digest failures are never thrown and never show in the stream's state: a failed libcrypto
// call makes the calling thread's OpenSSL error queue be recorded with the process-wide
// nuvra::ssl::SslErrHandler, from where the caller on the same thread can fetch the texts
// (takeErrorText). Only allocation failures throw (std::bad_alloc).
//
// A stream belongs to one thread at a time.

#ifndef NUVRA_CRYPTO_STREAM_DIGEST_H_
#define NUVRA_CRYPTO_STREAM_DIGEST_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

// libcrypto's digest types, declared as <openssl/types.h> declares them, so that this header
// does not need OpenSSL's.
struct evp_md_st;
struct evp_md_ctx_st;
using EVP_MD = evp_md_st;
using EVP_MD_CTX = evp_md_ctx_st;

namespace nuvra::crypto {

// A stream whose digest is always empty (libcrypto's null digest); the subclasses below set
// a real algorithm.
class StreamDigest : public std::ostream {
  public:
    // The stream's buffer. Written bytes collect in a put area inside the object and reach
    // the digest in whole runs: when the area is full, on flush() and when the digest is
    // finished; a write of a full area or more goes to the digest directly. A digest starts
    // with the first byte written after the last one ended, so a failure to start it is
    // recorded at that write; a failure to hash is recorded when its run is handed over.
    class BufDigest : public std::streambuf {
      public:
        // Hashes `count` bytes at `data` into a context started with the buffer's algorithm;
        // 1 on success, 0 on failure with the reason in OpenSSL's error queue, as
        // EVP_DigestUpdate (the default) does. It is given the written bytes in runs cut
        // wherever the put area filled or was flushed, so its result must not depend on
        // where a sequence is cut.
        using UpdateFunction = int (*)(EVP_MD_CTX* context, const unsigned char* data,
                                       size_t count);

        // Allocates the digest context; the algorithm is EVP_md_null(). Throws
        // std::bad_alloc when libcrypto cannot allocate the context.
        BufDigest();
        ~BufDigest() override;

        BufDigest(const BufDigest&) = delete;
        BufDigest& operator=(const BufDigest&) = delete;

        // Choose how the next digest is computed. Each abandons a digest in progress, bytes
        // not yet handed over included, so the next byte starts afresh. The owning stream's
        // constructor sets them.
        //
        // setAlgorithm: the libcrypto algorithm; also drops useSha0.
        void setAlgorithm(const EVP_MD* algorithm);
        // setUpdateFunction: what hashes the written bytes for a libcrypto algorithm.
        void setUpdateFunction(UpdateFunction update);
        // useSha0: the library's own SHA-0 (libcrypto has none) instead of libcrypto.
        void useSha0();

        // True when no digest is in progress: after construction and after every finish.
        [[nodiscard]] bool needsInitialisation() const { return needsInitialisation_; }

        // Starts a digest when none is in progress, as the next written byte would; so that
        // finishing right away gives the digest of empty input.
        void startIfNeeded();

        // Hashes the bytes still in the put area, ends the digest in progress, writes it to
        // `output` (room for 64 bytes) and returns its length; the next byte starts a new
        // digest. Returns 0 and writes nothing when no digest is in progress, when the
        // digest could not be started or finished, or for the null algorithm.
        [[nodiscard]] uint32_t finish(unsigned char* output);

      protected:
        // Each reports success whatever happens: failures go to the error handler.
        //
        // overflow: starts a digest if needed, hands over the full put area, then keeps `c`
        // (nothing for end-of-file).
        int_type overflow(int_type c) override;
        // xsputn: as many overflow() calls would, without copying a write that fills the
        // area.
        std::streamsize xsputn(const char_type* data, std::streamsize count) override;
        // sync: hands over the put area.
        int sync() override;

      private:
        // The put area's size: a few KiB, so that short texts are hashed in one update and
        // a file copied in 4 KiB pieces goes to the digest without a copy.
        static constexpr std::ptrdiff_t kPutAreaSize = 4096;

        [[nodiscard]] bool hash(const unsigned char* data, size_t count);
        // hash(), recording a failure with the error handler.
        void hashOrRecord(const char_type* data, size_t count);
        // Hashes the bytes in the put area and empties it.
        void handOver();
        // Drops the put area, so that the next byte written reaches overflow() or xsputn()
        // and starts a digest.
        void closePutArea() { setp(putArea_.data(), putArea_.data()); }

        EVP_MD_CTX* context_;
        bool needsInitialisation_ = true;
        const EVP_MD* algorithm_;
        UpdateFunction update_;
        // Set when hashing with the library's SHA-0; the context is then unused.
        // Frees the library's SHA-0 engine, whose type stays inside the library.
        struct Sha0Deleter {
            void operator()(void* engine) const;
        };
        std::unique_ptr<void, Sha0Deleter> sha0_;
        // Whether the digest in progress was started successfully. Bytes written after a
        // failed start are dropped rather than fed to a context that has no algorithm.
        bool started_ = false;
        // Open (pbase() to epptr()) exactly while a digest is in progress. Left
        // uninitialised: only bytes written into it are read.
        std::array<char_type, kPutAreaSize> putArea_;
    };

    StreamDigest();
    ~StreamDigest() override;

    StreamDigest(const StreamDigest&) = delete;
    StreamDigest& operator=(const StreamDigest&) = delete;

    // The raw digest (16 bytes for MD5, 20 for RIPEMD-160, SHA-0 and SHA-1, 64 for SHA-512,
    // none for the plain StreamDigest) of the bytes written since the last digest ended.
    //
    // With nothing written since then, returns the last digest again; before any digest was
    // produced, that is "" unless `evenIfEmpty`, which gives the digest of empty input.
    // After a failure (see the header comment), the result may be empty.
    virtual std::string digest(bool evenIfEmpty);

    // digest(evenIfEmpty), called virtually so that an override counts, as lower-case
    // hexadecimal text, two digits per byte.
    virtual std::string hexDigest(bool evenIfEmpty);

  protected:
    BufDigest& digestBuffer() { return buffer_; }

  private:
    BufDigest buffer_;
    std::array<unsigned char, 64> output_{};
    // Length of the last digest produced; 0 until one was (and always for the null digest).
    uint32_t length_ = 0;
};

// MD5, optionally after folding UTF-8 to Latin-1.
class StreamDigestMD5 : public StreamDigest {
  public:
    // Plain MD5 when `foldUtf8ToLatin1` is false.
    //
    // When true, each byte written is folded on its own, as if the stream handed bytes over one
    // at a time: a byte 0xC0 to 0xC3 is dropped and every other byte is hashed as it is. Text
    // written as UTF-8 therefore hashes as Latin-1 for U+0080 to U+00BF; for U+00C0 to U+00FF only
    // the second UTF-8 byte is hashed ("é", C3 A9, hashes as A9, not E9). Kept: digests stored by
    // callers were made this way.
    explicit StreamDigestMD5(bool foldUtf8ToLatin1);

    [[nodiscard]] bool foldsUtf8ToLatin1() const { return foldUtf8ToLatin1_; }

  private:
    bool foldUtf8ToLatin1_;
};

class StreamDigestRIPEMD160 : public StreamDigest {
  public:
    StreamDigestRIPEMD160();
};

// SHA-0, computed by the library itself since libcrypto no longer has it.
class StreamDigestSHA : public StreamDigest {
  public:
    StreamDigestSHA();
};

class StreamDigestSHA1 : public StreamDigest {
  public:
    StreamDigestSHA1();
};

class StreamDigestSHA512 : public StreamDigest {
  public:
    StreamDigestSHA512();
};

}  // namespace nuvra::crypto

#endif  // NUVRA_CRYPTO_STREAM_DIGEST_H_
