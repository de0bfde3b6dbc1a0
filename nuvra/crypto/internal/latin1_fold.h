// SPDX-License-Identifier: Apache-2.0
// The Latin-1 fold of StreamDigestMD5's Latin-1 mode. Internal to nuvra.

#ifndef NUVRA_CRYPTO_INTERNAL_LATIN1_FOLD_H_
#define NUVRA_CRYPTO_INTERNAL_LATIN1_FOLD_H_

#include <openssl/evp.h>

#include <cstddef>

namespace nuvra::crypto {
namespace [[gnu::visibility("hidden")]] internal {

// The Latin-1 fold of StreamDigestMD5, for one block of bytes, hashed into `context` (an
// MD5 digest in progress) with EVP_DigestUpdate.
//
// The block is hashed unchanged when any byte is 0xC4 or above, or when a byte 0xC0 to 0xC3
// is followed by a byte outside 0x80 to 0xBF. Otherwise each byte 0xC0 to 0xC3 and the byte
// after it are hashed as the one byte (lead << 6 | (next & 0x3F)), truncated to 8 bits; runs
// of other bytes are hashed as they are, one update per run; a byte 0xC0 to 0xC3 at the very
// end of the block is dropped. Returns the result of the last update made, 1 when none was.
[[nodiscard]] int foldLatin1Update(EVP_MD_CTX* context, const unsigned char* data, size_t count);

// What StreamDigestMD5's Latin-1 mode hashes: the result of foldLatin1Update on each byte
// of the block alone, which drops every byte 0xC0 to 0xC3 and hashes the others unchanged,
// computed with one update per run between dropped bytes. Returns 0 when an update failed,
// else 1.
[[nodiscard]] int foldLatin1EachByte(EVP_MD_CTX* context, const unsigned char* data, size_t count);

}  // namespace internal
}  // namespace nuvra::crypto

#endif  // NUVRA_CRYPTO_INTERNAL_LATIN1_FOLD_H_
