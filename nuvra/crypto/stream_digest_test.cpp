#include "nuvra/crypto/stream_digest.h"
#include "nuvra/crypto/internal/latin1_fold.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "nuvra/crypto/internal/sha0.h"
#include "nuvra/ssl/ssl_err_handler.h"
#include "nuvra/utils/format.h"
#include "nuvra/utils/singleton_factory.h"

namespace nuvra::crypto {
namespace {

const std::string kLonger = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";

std::string evpDigest(const EVP_MD* algorithm, const std::string& data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EXPECT_EQ(EVP_Digest(data.data(), data.size(), out, &length, algorithm, nullptr), 1);
    return {reinterpret_cast<const char*>(out), length};
}

std::string sha0Digest(const std::string& data) {
    const internal::Sha0::Digest digest = internal::Sha0::hash(data.data(), data.size());
    return {digest.begin(), digest.end()};
}

const struct Algorithm {
    const char* name;
    std::unique_ptr<StreamDigest> (*make)();
    // The same digest computed in one call, independently of the stream.
    std::string (*oneShot)(const std::string&);
    const char* ofEmpty;
    const char* ofAbc;
    const char* ofLonger;
} kAlgorithms[] = {
    {"MD5", [] { return std::unique_ptr<StreamDigest>(new StreamDigestMD5(false)); },
     [](const std::string& d) { return evpDigest(EVP_md5(), d); },
     "d41d8cd98f00b204e9800998ecf8427e", "900150983cd24fb0d6963f7d28e17f72",
     "8215ef0796a20bcaaae116d3876c664a"},
    {"RIPEMD160", [] { return std::unique_ptr<StreamDigest>(new StreamDigestRIPEMD160); },
     [](const std::string& d) { return evpDigest(EVP_ripemd160(), d); },
     "9c1185a5c5e9fc54612808977ee8f548b2258d31", "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc",
     "12a053384a9c0c88e405a06c27dcf49ada62eb2b"},
    {"SHA", [] { return std::unique_ptr<StreamDigest>(new StreamDigestSHA); }, &sha0Digest,
     "f96cea198ad1dd5617ac084a3d92c6107708c0ef", "0164b8a914cd2a5e74c4f7ff082c4d97f1edf880",
     "d2516ee1acfa5baf33dfc1c471e438449ef134c8"},
    {"SHA1", [] { return std::unique_ptr<StreamDigest>(new StreamDigestSHA1); },
     [](const std::string& d) { return evpDigest(EVP_sha1(), d); },
     "da39a3ee5e6b4b0d3255bfef95601890afd80709", "a9993e364706816aba3e25717850c26c9cd0d89d",
     "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    {"SHA512", [] { return std::unique_ptr<StreamDigest>(new StreamDigestSHA512); },
     [](const std::string& d) { return evpDigest(EVP_sha512(), d); },
     "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d2"
     "877eec2f63b931bd47417a81a538327af927da3e",
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23"
     "a3feebbd454d4423643ce80e2a9ac94fa54ca49f",
     "204a8fc6dda82f0a0ced7beb8e08a41657c16ef468b228a8279be331a703c33596fd15c13b1b07f9aa1d3bea"
     "57789ca031ad85c7a71dd70354ec631238ca3445"},
};

TEST(DigestStreams, MatchKnownVectors) {
    for (const Algorithm& a : kAlgorithms) {
        SCOPED_TRACE(a.name);
        const std::string empty = a.make()->hexDigest(true);
        EXPECT_EQ(empty, a.ofEmpty);
        EXPECT_EQ(a.make()->digest(true).size() * 2, empty.size());

        auto stream = a.make();
        *stream << "abc";
        EXPECT_EQ(stream->hexDigest(false), a.ofAbc);

        stream = a.make();
        stream->write(kLonger.data(), static_cast<std::streamsize>(kLonger.size()));
        EXPECT_EQ(stream->hexDigest(false), a.ofLonger);
    }
}

TEST(DigestStreams, MatchOneShotDigestOfDataWrittenInUnevenPieces) {
    std::mt19937 generator(20240611);
    std::string data(20000, '\0');
    for (char& byte : data) {
        byte = static_cast<char>(generator() & 0xFFU);
    }
    static const size_t kPieces[] = {1, 3, 7, 64, 1000, 63, 65, 2, 4096};
    for (const Algorithm& a : kAlgorithms) {
        SCOPED_TRACE(a.name);
        auto stream = a.make();
        size_t at = 0;
        for (size_t i = 0; at < data.size(); ++i) {
            const size_t count = std::min(kPieces[i % std::size(kPieces)], data.size() - at);
            stream->write(data.data() + at, static_cast<std::streamsize>(count));
            at += count;
        }
        EXPECT_EQ(stream->digest(false), a.oneShot(data));

        // Formatted insertion hashes the text the stream formats.
        *stream << 42 << ' ' << -7L << 'x';
        stream->put('!');
        EXPECT_EQ(stream->digest(false), a.oneShot("42 -7x!"));
    }
}

TEST(DigestStreams, AskingEndsTheDigestAndTheNextByteStartsANewOne) {
    for (const Algorithm& a : kAlgorithms) {
        SCOPED_TRACE(a.name);
        auto stream = a.make();
        EXPECT_EQ(stream->digest(false), "") << "nothing written, nothing asked for";
        EXPECT_EQ(stream->hexDigest(false), "");

        *stream << "abc";
        const std::string abc = stream->digest(false);
        EXPECT_EQ(utils::toHex(abc), a.ofAbc);
        EXPECT_EQ(stream->digest(false), abc) << "no new bytes: the same digest again";
        EXPECT_EQ(stream->digest(true), abc);

        *stream << "abc";
        EXPECT_EQ(stream->digest(false), abc) << "a new digest over the new bytes only";
        *stream << "x";
        EXPECT_EQ(stream->digest(false), a.oneShot("x"));

        auto fresh = a.make();
        EXPECT_EQ(fresh->hexDigest(true), a.ofEmpty);
        EXPECT_EQ(fresh->hexDigest(false), a.ofEmpty) << "the empty digest is now the last one";
    }
}

TEST(DigestStreams, PlainStreamDigestIsAlwaysEmpty) {
    StreamDigest stream;
    EXPECT_EQ(stream.digest(true), "");
    stream << "abc";
    EXPECT_EQ(stream.digest(false), "");
    stream << "abc";
    EXPECT_EQ(stream.hexDigest(true), "");
    EXPECT_TRUE(stream.good());
}

TEST(DigestStreams, HexDigestIsLowerCaseHexOfTheOverriddenDigest) {
    class FixedDigest : public StreamDigest {
      public:
        std::string digest(bool /*evenIfEmpty*/) override { return {"\x00\xff\x10\xAB", 4}; }
    };
    FixedDigest fixed;
    StreamDigest& asBase = fixed;
    EXPECT_EQ(asBase.hexDigest(false), "00ff10ab");
}

// ---- Latin-1 fold -----------------------------------------------------------------------

std::string md5(const std::string& data) { return evpDigest(EVP_md5(), data); }

TEST(Latin1Fold, StreamDropsLeadBytesBecauseItHashesOneByteAtATime) {
    static const struct {
        const char* name;
        std::string written;
        std::string hashedAs;
    } kCases[] = {
        {"ASCII", "plain text", "plain text"},
        {"U+00A0 to U+00BF become Latin-1", "\xC2\xA0-\xC2\xBF", "\xA0-\xBF"},
        {"U+00C0 to U+00FF keep the second byte", "caf\xC3\xA9", "caf\xA9"},
        {"lead bytes from 0xC4 are hashed", "\xC4\x80\xE2\x82\xAC", "\xC4\x80\xE2\x82\xAC"},
        {"a lone lead byte vanishes", "\xC3", ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        StreamDigestMD5 folding(true);
        folding << c.written;
        EXPECT_EQ(folding.digest(true), md5(c.hashedAs));

        StreamDigestMD5 plain(false);
        plain << c.written;
        EXPECT_EQ(plain.digest(true), md5(c.written));
    }
    EXPECT_TRUE(StreamDigestMD5(true).foldsUtf8ToLatin1());
    EXPECT_FALSE(StreamDigestMD5(false).foldsUtf8ToLatin1());
}

TEST(Latin1Fold, BlockFunctionFoldsOnlyWholeTwoByteSequences) {
    static const struct {
        const char* name;
        std::vector<std::string> blocks;  // one fold call each, into one MD5 digest
        std::string hashedAs;
    } kCases[] = {
        {"sequence in one block", {"\xC3\xA9"}, "\xE9"},
        {"sequence split over blocks", {"\xC3", "\xA9"}, "\xA9"},
        {"lead from 0xC4 blocks folding", {"\xC4\x80"}, "\xC4\x80"},
        {"any byte from 0xC4 blocks folding", {"\xC3\xA9\xC4"}, "\xC3\xA9\xC4"},
        {"lead not followed by a continuation", {"\xC3\x41"}, "\xC3\x41"},
        {"two leads in a row", {"\xC3\xC3\xA9"}, "\xC3\xC3\xA9"},
        {"lead at the end is dropped", {"A\xC3"}, "A"},
        {"runs around sequences", {"a\xC2\xA9 b \xC3\xBF!"}, "a\xA9 b \xFF!"},
        {"overlong NUL folds to 0x00", {"\xC0\x80"}, std::string(1, '\0')},
        {"stray continuation passes", {"\xA9"}, "\xA9"},
        {"empty block", {""}, ""},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        &EVP_MD_CTX_free);
        ASSERT_EQ(EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr), 1);
        for (const std::string& block : c.blocks) {
            EXPECT_EQ(internal::foldLatin1Update(
                          context.get(), reinterpret_cast<const unsigned char*>(block.data()),
                          block.size()),
                      1);
        }
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        ASSERT_EQ(EVP_DigestFinal_ex(context.get(), out, &length), 1);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(out), length), md5(c.hashedAs));
    }
}

// ---- Failures ---------------------------------------------------------------------------

// A stream whose buffer tests may reconfigure.
class ConfigurableDigest : public StreamDigestMD5 {
  public:
    ConfigurableDigest() : StreamDigestMD5(false) {}
    using StreamDigest::digestBuffer;
};

class DigestFailures : public ::testing::Test {
  protected:
    void SetUp() override {
        ssl::discardErrors();
        std::string ignored;
        handler()->takeErrorText(ignored);
    }

    static ssl::SslErrHandler* handler() {
        return utils::SingletonFactory<ssl::SslErrHandler, utils::DestroyAtExit>::getInstance();
    }

    static std::string takeText(unsigned long& newest) {
        std::string text;
        newest = handler()->takeErrorText(text);
        return text;
    }
};

TEST_F(DigestFailures, FailedStartIsRecordedOnceAndTheStreamCarriesOn) {
    ConfigurableDigest stream;
    stream.digestBuffer().setAlgorithm(nullptr);  // libcrypto: "no digest set"
    stream << "ab";
    EXPECT_TRUE(stream.good());
    EXPECT_EQ(stream.digest(false), "");

    unsigned long newest = 0;
    const std::string text = takeText(newest);
    EXPECT_EQ(ERR_GET_LIB(newest), ERR_LIB_EVP);
    EXPECT_EQ(ERR_GET_REASON(newest), EVP_R_NO_DIGEST_SET);
    EXPECT_EQ(text.find('\n'), text.size() - 1) << "one line only: " << text;

    // Once configured properly, the same stream works again.
    stream.digestBuffer().setAlgorithm(EVP_md5());
    stream << "abc";
    EXPECT_EQ(stream.hexDigest(false), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(takeText(newest), "");
}

TEST_F(DigestFailures, FailedUpdateIsRecordedForEachByte) {
    ConfigurableDigest stream;
    stream.digestBuffer().setUpdateFunction([](EVP_MD_CTX*, const unsigned char*, size_t) {
        ERR_raise(ERR_LIB_EVP, EVP_R_UPDATE_ERROR);
        return 0;
    });
    stream << "ab";
    EXPECT_TRUE(stream.good());
    // Nothing was hashed: the digest is that of empty input.
    EXPECT_EQ(stream.hexDigest(false), "d41d8cd98f00b204e9800998ecf8427e");

    unsigned long newest = 0;
    const std::string text = takeText(newest);
    EXPECT_EQ(ERR_GET_REASON(newest), EVP_R_UPDATE_ERROR);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
}

}  // namespace
}  // namespace nuvra::crypto
