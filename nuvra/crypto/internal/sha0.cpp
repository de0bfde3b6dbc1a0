#include "nuvra/crypto/internal/sha0.h"

#include <algorithm>
#include <cstring>

namespace nuvra::crypto::internal {
namespace {

constexpr uint32_t rotateLeft(uint32_t value, unsigned bits) {
    return bits == 0 ? value : (value << bits) | (value >> (32U - bits));
}

uint32_t loadBigEndian32(const uint8_t* bytes) {
    return (static_cast<uint32_t>(bytes[0]) << 24U) | (static_cast<uint32_t>(bytes[1]) << 16U) |
           (static_cast<uint32_t>(bytes[2]) << 8U) | static_cast<uint32_t>(bytes[3]);
}

void storeBigEndian32(uint32_t value, uint8_t* bytes) {
    bytes[0] = static_cast<uint8_t>(value >> 24U);
    bytes[1] = static_cast<uint8_t>(value >> 16U);
    bytes[2] = static_cast<uint8_t>(value >> 8U);
    bytes[3] = static_cast<uint8_t>(value);
}

}  // namespace

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
        storeBigEndian32(state_[i], digest.data() + 4 * i);
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
    std::array<uint32_t, 80> schedule{};
    for (size_t t = 0; t < 16; ++t) {
        schedule[t] = loadBigEndian32(block + 4 * t);
    }
    for (size_t t = 16; t < 80; ++t) {
        // The rotation here is the only difference between SHA-0 (none) and SHA-1 (one bit).
        schedule[t] =
            rotateLeft(schedule[t - 3] ^ schedule[t - 8] ^ schedule[t - 14] ^ schedule[t - 16],
                       ScheduleRotation);
    }

    uint32_t a = state_[0];
    uint32_t b = state_[1];
    uint32_t c = state_[2];
    uint32_t d = state_[3];
    uint32_t e = state_[4];
    for (size_t t = 0; t < 80; ++t) {
        uint32_t mix = 0;
        uint32_t constant = 0;
        if (t < 20) {
            mix = (b & c) | (~b & d);
            constant = 0x5A827999U;
        } else if (t < 40) {
            mix = b ^ c ^ d;
            constant = 0x6ED9EBA1U;
        } else if (t < 60) {
            mix = (b & c) | (b & d) | (c & d);
            constant = 0x8F1BBCDCU;
        } else {
            mix = b ^ c ^ d;
            constant = 0xCA62C1D6U;
        }
        const uint32_t next = rotateLeft(a, 5) + mix + e + constant + schedule[t];
        e = d;
        d = c;
        c = rotateLeft(b, 30);
        b = a;
        a = next;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
    state_[4] += e;
}

template class Sha160<0>;
template class Sha160<1>;

}  // namespace nuvra::crypto::internal
