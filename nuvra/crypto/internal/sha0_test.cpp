#include "nuvra/crypto/internal/sha0.h"

#include <openssl/evp.h>

#include <string>

#include "gtest/gtest.h"
#include "nuvra/utils/format.h"

namespace nuvra::crypto::internal {
namespace {

template <typename Digest>
std::string hexOf(const Digest& digest) {
    return utils::toHex(std::string(digest.begin(), digest.end()));
}

std::string countingBytes(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>(i * 7 + 3);
    }
    return bytes;
}

TEST(Sha0, MatchesPublishedVectors) {
    // FIPS 180 (1993) gives "abc", the 56-byte text and a million "a"; the NESSIE SHA-0 set
    // gives the empty and one-byte messages.
    static const struct {
        std::string message;
        const char* digest;
    } kCases[] = {
        {"", "f96cea198ad1dd5617ac084a3d92c6107708c0ef"},
        {"a", "37f297772fae4cb1ba39b6cf9cf0381180bd62f2"},
        {"abc", "0164b8a914cd2a5e74c4f7ff082c4d97f1edf880"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "d2516ee1acfa5baf33dfc1c471e438449ef134c8"},
        {std::string(1000000, 'a'), "3232affa48628a26653b5aaa44541fd90d690603"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.message.substr(0, 60));
        EXPECT_EQ(hexOf(Sha0::hash(c.message.data(), c.message.size())), c.digest);
    }
}

// SHA-1 from the same engine against libcrypto, at every length across three block
// boundaries and split in two: padding and buffering are shared with SHA-0, whose
// published vectors cover only a few lengths.
TEST(Sha0, SharedPaddingAndBufferingMatchLibcryptoSha1) {
    const std::string data = countingBytes(200);
    Sha160<1> reused;
    for (size_t length = 0; length <= data.size(); ++length) {
        SCOPED_TRACE(length);
        unsigned char expected[EVP_MAX_MD_SIZE];
        unsigned int expectedLength = 0;
        ASSERT_EQ(EVP_Digest(data.data(), length, expected, &expectedLength, EVP_sha1(), nullptr),
                  1);
        const std::string want =
            utils::toHex(std::string(reinterpret_cast<const char*>(expected), expectedLength));

        EXPECT_EQ(hexOf(Sha160<1>::hash(data.data(), length)), want);
        // Split in two at a point that moves with the length; the engine is reused, so
        // finish must have reset it.
        const size_t split = length * 5 / 7;
        reused.update(data.data(), split);
        reused.update(data.data() + split, length - split);
        EXPECT_EQ(hexOf(reused.finish()), want);
    }
}

}  // namespace
}  // namespace nuvra::crypto::internal
