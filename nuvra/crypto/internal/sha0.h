// SHA-0, the 160-bit hash of the first Secure Hash Standard (FIPS 180, 1993), which current
// libcrypto releases no longer carry. StreamDigestSHA hashes with it. Internal to nuvra.
//
// SHA-0 is SHA-1 without the one-bit rotation in the message schedule, so one engine,
// parameterised by that rotation, computes both. The SHA-1 instance is there for tests:
// compared with libcrypto's SHA-1 it checks the padding and buffering that both share.
//
// SHA-0 is broken (collisions can be built); use it only to reproduce existing digests.
// Nothing here fails or throws.

#ifndef NUVRA_CRYPTO_INTERNAL_SHA0_H_
#define NUVRA_CRYPTO_INTERNAL_SHA0_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace nuvra::crypto::internal {

template <unsigned ScheduleRotation>
class Sha160 {
  public:
    static constexpr size_t kDigestSize = 20;
    static constexpr size_t kBlockSize = 64;
    using Digest = std::array<uint8_t, kDigestSize>;

    // Ready for a first message.
    Sha160() { reset(); }

    // Forgets any message in progress.
    void reset();

    // Adds `count` bytes at `data` to the message; `data` may be null when `count` is 0.
    void update(const void* data, size_t count);

    // Pads the message, returns its digest and resets, ready for the next message.
    Digest finish();

    // The digest of `count` bytes at `data`, in one call.
    static Digest hash(const void* data, size_t count);

  private:
    void compress(const uint8_t* block);

    std::array<uint32_t, 5> state_{};
    std::array<uint8_t, kBlockSize> pending_{};
    size_t pendingCount_ = 0;
    // Message length in bytes, modulo 2^64; the padding carries it in bits, modulo 2^64 too.
    uint64_t messageBytes_ = 0;
};

using Sha0 = Sha160<0>;
// The same engine as SHA-1. Tests only.
using Sha1ForTests = Sha160<1>;

extern template class Sha160<0>;
extern template class Sha160<1>;

}  // namespace nuvra::crypto::internal

#endif  // NUVRA_CRYPTO_INTERNAL_SHA0_H_
