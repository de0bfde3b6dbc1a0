// SPDX-License-Identifier: Apache-2.0
// SHA-0, the 160-bit hash of the first Secure Hash Standard (FIPS 180, 1993), which current
// libcrypto releases no longer carry. StreamDigestSHA hashes with it. Internal to nuvra.
//
// SHA-0 is SHA-1 without the one-bit rotation in the message schedule, so one engine,
// parameterised by that rotation, computes both. The library uses only SHA-0; tests make the
// SHA-1 instance and compare it with libcrypto's SHA-1, which checks the padding and buffering
// that both share.
//
// SHA-0 is broken (collisions can be built); use it only to reproduce existing digests.
// Nothing here fails or throws.

#ifndef NUVRA_CRYPTO_INTERNAL_SHA0_H_
#define NUVRA_CRYPTO_INTERNAL_SHA0_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace nuvra::crypto {
namespace [[gnu::visibility("hidden")]] internal {

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

// The library's one instance, SHA-0, is compiled once, in sha0.cpp. The definitions below are
// here so that other instances (SHA-1, which tests compare with libcrypto's) can be made.
extern template class Sha160<0>;

namespace sha160 {

constexpr uint32_t rotateLeft(uint32_t value, unsigned bits) {
    return bits == 0 ? value : (value << bits) | (value >> (32U - bits));
}

inline uint32_t loadBigEndian32(const uint8_t* bytes) {
    return (static_cast<uint32_t>(bytes[0]) << 24U) | (static_cast<uint32_t>(bytes[1]) << 16U) |
           (static_cast<uint32_t>(bytes[2]) << 8U) | static_cast<uint32_t>(bytes[3]);
}

inline void storeBigEndian32(uint32_t value, uint8_t* bytes) {
    bytes[0] = static_cast<uint8_t>(value >> 24U);
    bytes[1] = static_cast<uint8_t>(value >> 16U);
    bytes[2] = static_cast<uint8_t>(value >> 8U);
    bytes[3] = static_cast<uint8_t>(value);
}

// One round of the compression function, unrolled by its number T. The five working
// variables stay in place and their roles turn instead of their values: round T calls
// state[(80 - T) % 5] "a", the next one "b", and so on, so that writing the new "a" into the
// slot of "e" is the whole of the usual shift. The message schedule is kept as a ring of its
// last 16 words.
template <unsigned ScheduleRotation, size_t T>
inline void round(std::array<uint32_t, 5>& state, std::array<uint32_t, 16>& words) {
    const uint32_t a = state[(80 - T) % 5];
    uint32_t& b = state[(81 - T) % 5];
    const uint32_t c = state[(82 - T) % 5];
    const uint32_t d = state[(83 - T) % 5];
    uint32_t& e = state[(84 - T) % 5];
    uint32_t& word = words[T % 16];
    if constexpr (T >= 16) {
        // The rotation here is the only difference between SHA-0 (none) and SHA-1 (one bit).
        word = rotateLeft(words[(T - 3) % 16] ^ words[(T - 8) % 16] ^ words[(T - 14) % 16] ^ word,
                          ScheduleRotation);
    }
    uint32_t mix = 0;
    uint32_t constant = 0;
    if constexpr (T < 20) {
        mix = d ^ (b & (c ^ d));  // (b & c) | (~b & d)
        constant = 0x5A827999U;
    } else if constexpr (T < 40) {
        mix = b ^ c ^ d;
        constant = 0x6ED9EBA1U;
    } else if constexpr (T < 60) {
        mix = (b & c) | (b & d) | (c & d);
        constant = 0x8F1BBCDCU;
    } else {
        mix = b ^ c ^ d;
        constant = 0xCA62C1D6U;
    }
    e += rotateLeft(a, 5) + mix + constant + word;
    b = rotateLeft(b, 30);
}

template <unsigned ScheduleRotation, size_t... T>
inline void rounds(std::array<uint32_t, 5>& state, std::array<uint32_t, 16>& words,
                   std::index_sequence<T...> /*numbers*/) {
    (round<ScheduleRotation, T>(state, words), ...);
}

}  // namespace sha160

template <unsigned ScheduleRotation>
void Sha160<ScheduleRotation>::reset() {
    state_ = {0x67452301U, 0xEFCDAB89U, 0x98BADCFEU, 0x10325476U, 0xC3D2E1F0U};
    pendingCount_ = 0;
    messageBytes_ = 0;
}

template <unsigned ScheduleRotation>
void Sha160<ScheduleRotation>::update(const void* data, size_t count) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    messageBytes_ += count;
    if (pendingCount_ > 0) {
        const size_t taken = std::min(count, kBlockSize - pendingCount_);
        std::memcpy(pending_.data() + pendingCount_, bytes, taken);
        pendingCount_ += taken;
        bytes += taken;
        count -= taken;
        if (pendingCount_ < kBlockSize) {
            return;
        }
        compress(pending_.data());
        pendingCount_ = 0;
    }
    for (; count >= kBlockSize; bytes += kBlockSize, count -= kBlockSize) {
        compress(bytes);
    }
    if (count > 0) {
        std::memcpy(pending_.data(), bytes, count);
        pendingCount_ = count;
    }
}

template <unsigned ScheduleRotation>
typename Sha160<ScheduleRotation>::Digest Sha160<ScheduleRotation>::finish() {
    // 0x80, zeros up to 8 bytes before a block boundary, then the length in bits.
    const uint64_t messageBits = messageBytes_ * 8U;
    std::array<uint8_t, kBlockSize + 8> padding{};
    padding[0] = 0x80;
    const size_t used = (pendingCount_ + 1) % kBlockSize;
    const size_t zeros = (2 * kBlockSize - 8 - used) % kBlockSize;
    for (size_t i = 0; i < 8; ++i) {
        padding[1 + zeros + i] = static_cast<uint8_t>(messageBits >> (56U - 8U * i));
    }
    update(padding.data(), 1 + zeros + 8);

    Digest digest{};
    for (size_t i = 0; i < state_.size(); ++i) {
        sha160::storeBigEndian32(state_[i], digest.data() + 4 * i);
    }
    reset();
    return digest;
}

template <unsigned ScheduleRotation>
typename Sha160<ScheduleRotation>::Digest Sha160<ScheduleRotation>::hash(const void* data,
                                                                         size_t count) {
    Sha160 engine;
    engine.update(data, count);
    return engine.finish();
}

template <unsigned ScheduleRotation>
void Sha160<ScheduleRotation>::compress(const uint8_t* block) {
    std::array<uint32_t, 16> words;
    for (size_t t = 0; t < words.size(); ++t) {
        words[t] = sha160::loadBigEndian32(block + 4 * t);
    }
    std::array<uint32_t, 5> working = state_;
    sha160::rounds<ScheduleRotation>(working, words, std::make_index_sequence<80>());
    for (size_t i = 0; i < state_.size(); ++i) {
        state_[i] += working[i];
    }
}

}  // namespace internal
}  // namespace nuvra::crypto

#endif  // NUVRA_CRYPTO_INTERNAL_SHA0_H_
