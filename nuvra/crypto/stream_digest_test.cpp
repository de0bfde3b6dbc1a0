// SPDX-License-Identifier: Apache-2.0
#include "nuvra/crypto/stream_digest.h"
#include "nuvra/crypto/internal/latin1_fold.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <random>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/crypto/internal/sha0.h"
#include "nuvra/ssl/ssl_err_handler.h"
#include "nuvra/utils/singleton_factory.h"

namespace nuvra::crypto {
namespace {

constexpr char kMd5OfEmpty[] = "d41d8cd98f00b204e9800998ecf8427e";
constexpr char kMd5OfAbc[] = "900150983cd24fb0d6963f7d28e17f72";

template <typename Stream>
std::unique_ptr<StreamDigest> make() {
    return std::make_unique<Stream>();
}

TEST(DigestStreams, EachHashesWithItsOwnAlgorithm) {
    static const struct {
        std::unique_ptr<StreamDigest> (*make)();
        const char* ofAbc;
    } kAlgorithms[] = {
        {make<StreamDigestRIPEMD160>, "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc"},
        {make<StreamDigestSHA>, "0164b8a914cd2a5e74c4f7ff082c4d97f1edf880"},
        {make<StreamDigestSHA1>, "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {make<StreamDigestSHA512>,
         "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23"
         "a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
        {make<StreamDigest>, ""},  // the null digest
    };
    for (const auto& a : kAlgorithms) {
        SCOPED_TRACE(a.ofAbc);
        const auto stream = a.make();
        *stream << "abc";
        EXPECT_EQ(stream->hexDigest(true), a.ofAbc);
    }
}

// SHA-0's published vectors are few and short: SHA-1 from its engine is checked at the edges.
TEST(DigestStreams, Sha0SharesItsPaddingAndBlockingWithSha1) {
    const std::string data(130, 'a');
    for (const size_t length : {0, 55, 56, 63, 64, 130}) {
        unsigned char want[EVP_MAX_MD_SIZE];
        ASSERT_EQ(EVP_Digest(data.data(), length, want, nullptr, EVP_sha1(), nullptr), 1);
        const auto digest = internal::Sha160<1>::hash(data.data(), length);
        EXPECT_TRUE(std::equal(digest.begin(), digest.end(), want)) << length;
    }
}

TEST(DigestStreams, AskingEndsTheDigestAndTheNextByteStartsANewOne) {
    StreamDigestMD5 stream(false);
    EXPECT_EQ(stream.hexDigest(false), "");  // nothing written, nothing asked for
    EXPECT_EQ(stream.hexDigest(true), kMd5OfEmpty);
    stream << "abc";
    EXPECT_EQ(stream.hexDigest(false), kMd5OfAbc);
    EXPECT_EQ(stream.hexDigest(true), kMd5OfAbc);  // no new bytes: the same digest again
    stream.write("abc", 3);
    EXPECT_EQ(stream.hexDigest(false), kMd5OfAbc);  // over the new bytes only
}

std::string md5(const std::string& data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), out, &length, EVP_md5(), nullptr);
    return {reinterpret_cast<const char*>(out), length};
}

std::string foldedMd5(const std::vector<std::string>& blocks) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          &EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr);
    for (const std::string& block : blocks) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(block.data());
        EXPECT_EQ(internal::foldLatin1Update(context.get(), bytes, block.size()), 1);
    }
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), out, &length);
    return {reinterpret_cast<const char*>(out), length};
}

TEST(Latin1Fold, FoldsOnlyWholeTwoByteSequencesOfABlock) {
    static const struct {
        std::vector<std::string> blocks;
        std::string hashedAs;
    } kCases[] = {
        {{"a\xC2\xA9 \xC3\xA9!"}, "a\xA9 \xE9!"},
        {{"\xC3", "\xA9"}, "\xA9"},                  // the lead byte ends its block: dropped
        {{"\xC3\xA9\xC4\x80"}, "\xC3\xA9\xC4\x80"},  // any byte from 0xC4 stops the fold
        {{"\xC3\x41"}, "\xC3\x41"},                  // so does a lead without its continuation
        {{"A\xC3"}, "A"},
        {{""}, ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.hashedAs);
        EXPECT_EQ(foldedMd5(c.blocks), md5(c.hashedAs));
    }
    StreamDigestMD5 folding(true);
    folding << "caf\xC3\xA9 \xC4\x80";  // handed over one byte at a time
    EXPECT_EQ(folding.digest(false), md5("caf\xA9 \xC4\x80"));
}

struct ConfigurableDigest : StreamDigestMD5 {
    ConfigurableDigest() : StreamDigestMD5(false) {}
    using StreamDigest::digestBuffer;
};

TEST(DigestFailures, AreLeftWithTheErrorHandlerAndTheStreamCarriesOn) {
    ConfigurableDigest stream;
    stream.digestBuffer().setAlgorithm(nullptr);  // libcrypto: "no digest set", once
    stream << "ab";
    EXPECT_EQ(stream.digest(false), "");
    stream.digestBuffer().setAlgorithm(EVP_md5());
    stream.digestBuffer().setUpdateFunction([](EVP_MD_CTX*, const unsigned char*, size_t) {
        ERR_raise(ERR_LIB_EVP, EVP_R_UPDATE_ERROR);
        return 0;
    });
    stream << "ab";
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(stream.hexDigest(false), kMd5OfEmpty);  // nothing was hashed
    std::string text;
    auto* const handler = utils::SingletonFactory<ssl::SslErrHandler>::getInstance();
    EXPECT_EQ(ERR_GET_REASON(handler->takeErrorText(text)), EVP_R_UPDATE_ERROR);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << "then one per run: " << text;
}

template <bool FoldUtf8ToLatin1>
std::unique_ptr<StreamDigest> makeMd5() {
    return std::make_unique<StreamDigestMD5>(FoldUtf8ToLatin1);
}

// A stream, and what it gives for bytes written in one go: libcrypto's digest, or SHA-0 where
// there is none, after dropping each byte 0xC0 to 0xC3 in the Latin-1 mode, as ever.
struct OneShotModel {
    std::unique_ptr<StreamDigest> (*make)();
    const EVP_MD* (*algorithm)();
    bool latin1;

    [[nodiscard]] std::string digest(std::string data) const {
        if (latin1) {
            data.erase(
                std::remove_if(data.begin(), data.end(), [](char c) { return (c & 0xFC) == 0xC0; }),
                data.end());
        }
        if (algorithm == nullptr) {
            const auto digest = internal::Sha0::hash(data.data(), data.size());
            return {digest.begin(), digest.end()};
        }
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_Digest(data.data(), data.size(), out, &length, algorithm(), nullptr);
        return {reinterpret_cast<const char*>(out), length};
    }
};

// Random bytes written in random pieces by write and put, with digests asked for at random
// points, hash as one-shot digests of the bytes written since the last digest.
TEST(DigestStreams, MatchOneShotDigestsHoweverTheBytesAreWritten) {
    static const OneShotModel kModels[] = {
        {makeMd5<false>, EVP_md5, false},
        {makeMd5<true>, EVP_md5, true},
        {make<StreamDigestRIPEMD160>, EVP_ripemd160, false},
        {make<StreamDigestSHA>, nullptr, false},
        {make<StreamDigestSHA1>, EVP_sha1, false},
        {make<StreamDigestSHA512>, EVP_sha512, false},
        {make<StreamDigest>, EVP_md_null, false},
    };
    std::mt19937 random(17);
    const auto below = [&random](uint32_t bound) { return random() % bound; };
    std::string bytes(20000, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(below(256)); });
    for (const OneShotModel& model : kModels) {
        const auto stream = model.make();
        std::string pending;
        std::string last;
        for (int step = 0; step < 60; ++step) {
            const std::string piece = bytes.substr(
                below(10000), below(2) == 0 ? 4090 + below(12) : below(below(2) == 0 ? 9000 : 70));
            if (below(3) == 0) {
                std::for_each(piece.begin(), piece.end(), [&](char c) { stream->put(c); });
            } else {
                stream->write(piece.data(), static_cast<std::streamsize>(piece.size()));
            }
            pending += piece;
            if (below(4) == 0) {
                const bool evenIfEmpty = below(2) == 0;
                if (!pending.empty() || (evenIfEmpty && last.empty())) {
                    last = model.digest(pending);
                }
                ASSERT_EQ(stream->digest(evenIfEmpty), last)
                    << "model " << &model - kModels << ", step " << step;
                pending.clear();
            }
        }
    }
}

}  // namespace
}  // namespace nuvra::crypto
