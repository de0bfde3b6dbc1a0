// SPDX-License-Identifier: Apache-2.0
#include "nuvra/crypto/stream_digest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "nuvra/crypto/internal/latin1_fold.h"
#include "nuvra/crypto/internal/sha0.h"
#include "nuvra/ssl/ssl_err_handler.h"
#include "nuvra/utils/format.h"
#include "nuvra/utils/singleton_factory.h"

namespace nuvra::crypto {
namespace {

// Leaves the calling thread's OpenSSL errors with the process-wide handler, for the caller
// to fetch: a stream cannot report them itself.
void recordSslErrors() {
    utils::SingletonFactory<ssl::SslErrHandler, utils::DestroyAtExit>::getInstance()
        ->recordErrors();
}

int evpUpdate(EVP_MD_CTX* context, const unsigned char* data, size_t count) {
    return EVP_DigestUpdate(context, data, count);
}

// The SHA-0 engine a BufDigest holds without naming its type.
internal::Sha0* sha0Of(void* engine) { return static_cast<internal::Sha0*>(engine); }

bool isLatin1Lead(unsigned char byte) { return byte >= 0xC0 && byte <= 0xC3; }

bool isContinuation(unsigned char byte) { return byte >= 0x80 && byte <= 0xBF; }

// Whether foldLatin1Update rewrites the block: only two-byte sequences for U+0000 to U+00FF
// (overlong ones included), and a lead byte cut off at the end of the block.
bool shouldFold(const unsigned char* data, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (data[i] >= 0xC4) {
            return false;
        }
        if (isLatin1Lead(data[i]) && i + 1 < count && !isContinuation(data[i + 1])) {
            return false;
        }
    }
    return true;
}

}  // namespace

// Not joined to the enclosing namespace: the attribute cannot go on a joined name.
namespace [[gnu::visibility("hidden")]] internal {  // NOLINT(modernize-concat-nested-namespaces)

int foldLatin1Update(EVP_MD_CTX* context, const unsigned char* data, size_t count) {
    if (!shouldFold(data, count)) {
        return EVP_DigestUpdate(context, data, count);
    }
    int result = 1;
    size_t runStart = 0;
    for (size_t i = 0; i < count; ++i) {
        if (!isLatin1Lead(data[i])) {
            continue;
        }
        if (i > runStart) {
            result = EVP_DigestUpdate(context, data + runStart, i - runStart);
        }
        if (i + 1 == count) {
            // A lead byte whose continuation is not in this block is dropped. The stream
            // hands over one byte at a time, so it drops every lead byte; kept, since
            // digests made that way are stored.
            return result;
        }
        const auto folded = static_cast<unsigned char>((data[i] << 6U) | (data[i + 1] & 0x3FU));
        result = EVP_DigestUpdate(context, &folded, 1);
        ++i;
        runStart = i + 1;
    }
    if (count > runStart) {
        result = EVP_DigestUpdate(context, data + runStart, count - runStart);
    }
    return result;
}

int foldLatin1EachByte(EVP_MD_CTX* context, const unsigned char* data, size_t count) {
    // Alone, a byte 0xC0 to 0xC3 is a lead byte at the end of its block, which the fold
    // drops, and any other byte is left as it is. So the runs between lead bytes can go to
    // the fold whole: it hashes a block without lead bytes unchanged, in one update.
    int result = 1;
    const unsigned char* const end = data + count;
    while (data != end) {
        const unsigned char* const lead = std::find_if(data, end, isLatin1Lead);
        if (lead != data &&
            foldLatin1Update(context, data, static_cast<size_t>(lead - data)) == 0) {
            result = 0;
        }
        data = lead == end ? end : lead + 1;
    }
    return result;
}

}  // namespace internal

void StreamDigest::BufDigest::Sha0Deleter::operator()(void* engine) const {
    delete static_cast<internal::Sha0*>(engine);
}

StreamDigest::BufDigest::BufDigest()
    : context_(EVP_MD_CTX_new()), algorithm_(EVP_md_null()), update_(&evpUpdate) {
    if (context_ == nullptr) {
        throw std::bad_alloc();
    }
}

StreamDigest::BufDigest::~BufDigest() { EVP_MD_CTX_free(context_); }

void StreamDigest::BufDigest::setAlgorithm(const EVP_MD* algorithm) {
    algorithm_ = algorithm;
    sha0_.reset();
    needsInitialisation_ = true;
    closePutArea();
}

void StreamDigest::BufDigest::setUpdateFunction(UpdateFunction update) {
    update_ = update;
    needsInitialisation_ = true;
    closePutArea();
}

void StreamDigest::BufDigest::useSha0() {
    sha0_.reset(new internal::Sha0());
    needsInitialisation_ = true;
    closePutArea();
}

void StreamDigest::BufDigest::startIfNeeded() {
    if (!needsInitialisation_) {
        return;
    }
    needsInitialisation_ = false;
    setp(putArea_.data(), putArea_.data() + kPutAreaSize);
    if (sha0_ != nullptr) {
        sha0Of(sha0_.get())->reset();
        started_ = true;
        return;
    }
    // Re-initialising the same context: libcrypto keeps what it can of the previous digest's
    // set-up.
    started_ = EVP_DigestInit_ex(context_, algorithm_, nullptr) != 0;
    if (!started_) {
        recordSslErrors();
    }
}

bool StreamDigest::BufDigest::hash(const unsigned char* data, size_t count) {
    if (!started_) {
        return false;
    }
    if (sha0_ != nullptr) {
        sha0Of(sha0_.get())->update(data, count);
        return true;
    }
    return update_(context_, data, count) != 0;
}

void StreamDigest::BufDigest::hashOrRecord(const char_type* data, size_t count) {
    // Bytes written after a failed start are dropped; that failure is recorded already.
    if (!hash(reinterpret_cast<const unsigned char*>(data), count) && started_) {
        recordSslErrors();
    }
}

void StreamDigest::BufDigest::handOver() {
    const std::ptrdiff_t pending = pptr() - pbase();
    if (pending > 0) {
        pbump(static_cast<int>(-pending));
        hashOrRecord(pbase(), static_cast<size_t>(pending));
    }
}

StreamDigest::BufDigest::int_type StreamDigest::BufDigest::overflow(int_type c) {
    startIfNeeded();
    handOver();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    return traits_type::not_eof(c);
}

std::streamsize StreamDigest::BufDigest::xsputn(const char_type* data, std::streamsize count) {
    if (count > epptr() - pptr()) {
        startIfNeeded();
        handOver();
        if (count >= kPutAreaSize) {
            hashOrRecord(data, static_cast<size_t>(count));
            return count;
        }
    }
    if (count > 0) {
        std::memcpy(pptr(), data, static_cast<size_t>(count));
        pbump(static_cast<int>(count));
    }
    return count;
}

int StreamDigest::BufDigest::sync() {
    handOver();
    return 0;
}

uint32_t StreamDigest::BufDigest::finish(unsigned char* output) {
    if (needsInitialisation_) {
        return 0;
    }
    handOver();
    closePutArea();
    needsInitialisation_ = true;
    if (!started_) {
        return 0;
    }
    started_ = false;
    if (sha0_ != nullptr) {
        const internal::Sha0::Digest digest = sha0Of(sha0_.get())->finish();
        std::copy(digest.begin(), digest.end(), output);
        return static_cast<uint32_t>(digest.size());
    }
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context_, output, &length) == 0) {
        recordSslErrors();
        return 0;
    }
    return length;
}

StreamDigest::StreamDigest() : std::ostream(nullptr) { rdbuf(&buffer_); }

StreamDigest::~StreamDigest() = default;

std::string StreamDigest::digest(bool evenIfEmpty) {
    if (evenIfEmpty && length_ == 0) {
        buffer_.startIfNeeded();
    }
    if (!buffer_.needsInitialisation()) {
        flush();
        length_ = buffer_.finish(output_.data());
    }
    return {reinterpret_cast<const char*>(output_.data()), length_};
}

std::string StreamDigest::hexDigest(bool evenIfEmpty) { return utils::toHex(digest(evenIfEmpty)); }

StreamDigestMD5::StreamDigestMD5(bool foldUtf8ToLatin1) : foldUtf8ToLatin1_(foldUtf8ToLatin1) {
    digestBuffer().setAlgorithm(EVP_md5());
    if (foldUtf8ToLatin1) {
        digestBuffer().setUpdateFunction(&internal::foldLatin1EachByte);
    }
}

StreamDigestRIPEMD160::StreamDigestRIPEMD160() { digestBuffer().setAlgorithm(EVP_ripemd160()); }

StreamDigestSHA::StreamDigestSHA() { digestBuffer().useSha0(); }

StreamDigestSHA1::StreamDigestSHA1() { digestBuffer().setAlgorithm(EVP_sha1()); }

StreamDigestSHA512::StreamDigestSHA512() { digestBuffer().setAlgorithm(EVP_sha512()); }

}  // namespace nuvra::crypto
