// Test support for functions that write into a caller's buffer of a given size: a buffer
// between guard zones, and checks of format.h's bounded writers against plain models, shared
// by its unit test and fuzz targets. Each check returns whether the library agrees.
//
// For nuvra's tests and fuzz targets only: not part of the library. It does not use
// GoogleTest, so that the fuzz targets can include it too.

#ifndef NUVRA_TESTING_BOUNDED_TEXT_TEST_UTIL_H_
#define NUVRA_TESTING_BOUNDED_TEXT_TEST_UTIL_H_

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "nuvra/utils/format.h"

namespace nuvra::testing {

// `size` bytes to hand to a function, between two guard zones, all filled with a canary so
// that any write shows in every build.
class GuardedBuffer {
  public:
    explicit GuardedBuffer(size_t size) : size_(size), bytes_(size + 2 * kGuard, kCanary) {}
    char* data() { return &bytes_[kGuard]; }

    // Whether exactly `written` (NULs allowed) was written at the start and nothing else;
    // with `terminated`, `written` and a terminator, or nothing for a size of 0.
    bool holds(const std::string& written, bool terminated = true) const {
        const std::string all = written + std::string(terminated && size_ > 0 ? 1 : 0, '\0');
        const std::string guard(kGuard, kCanary);
        return all.size() <= size_ &&
               bytes_ == guard + all + std::string(size_ - all.size(), kCanary) + guard;
    }

  private:
    static constexpr size_t kGuard = 16;
    static constexpr char kCanary = '\x5a';
    size_t size_;
    std::string bytes_;
};

// What a bounded writer keeps of `full` in `size` bytes: its first size - 1 characters.
inline std::string cut(const std::string& full, size_t size) {
    return full.substr(0, size == 0 ? 0 : size - 1);
}

// formatBounded keeps the start of `text` and counts it, and so does appendFormatBounded after
// `existing` characters already in the buffer (filling it without a terminator when full).
inline bool formatKeepsTheStart(const std::string& text, size_t size, size_t existing) {
    GuardedBuffer formatted(size);
    GuardedBuffer appended(size);
    std::memset(appended.data(), 'e', existing);
    std::memset(appended.data() + existing, 0, existing < size ? 1 : 0);
    const std::string kept = cut(text, size);
    const std::string keptAfter = cut(std::string(existing, 'e') + text, size);
    return utils::formatBounded(formatted.data(), size, "%s", text.c_str()) ==
               static_cast<int>(kept.size()) &&
           utils::appendFormatBounded(appended.data(), size, "%s", text.c_str()) ==
               static_cast<int>(keptAfter.size()) &&
           formatted.holds(kept) && appended.holds(keptAfter);
}

// fromHex gives 16 * first + second digit value per pair of `text`, cut to eight bits, a
// non-digit counting as -1; toHex gives that back as printf does; and into `size` bytes
// encodeHexChecked and hexDump write all of it or an empty string, and decodeHexChecked the
// bytes of the first `length` characters or nothing.
inline bool hexCodecsAgree(const std::string& text, size_t size, size_t length, char separator) {
    static const char kDigits[] = "0123456789abcdef0123456789ABCDEF";
    const auto digit = [](char c) {
        const char* found = c == '\0' ? nullptr : std::strchr(kDigits, c);
        return found == nullptr ? -1 : static_cast<int>(found - kDigits) % 16;
    };
    const std::string bytes = utils::fromHex(text);
    const size_t n = text.size() / 2;
    std::string hex;
    std::string dump;
    for (size_t i = 0; i < n; ++i) {
        char pair[4];
        const int value = 16 * digit(text[2 * i]) + digit(text[2 * i + 1]);
        static_cast<void>(std::snprintf(pair, sizeof pair, "%02x%c",
                                        static_cast<unsigned>(value & 0xff), separator));
        hex.append(pair, 2);
        dump.append(pair, i + 1 < n ? 3 : 2);
    }
    const auto* src = reinterpret_cast<const uint8_t*>(bytes.data());
    const size_t used = std::min(length, text.size());
    const bool decodes = used == 0 || (size > 0 && size >= used / 2);
    GuardedBuffer encoded(size);
    GuardedBuffer dumped(size);
    GuardedBuffer decoded(size);
    return bytes.size() == n && utils::toHex(bytes) == hex &&
           utils::encodeHexChecked(encoded.data(), size, src, n) ==
               (size > 2 * n || (size > 0 && n == 0)) &&
           utils::hexDump(dumped.data(), size, separator, src, n) ==
               (size == 0 ? nullptr : dumped.data()) &&
           utils::decodeHexChecked(reinterpret_cast<uint8_t*>(decoded.data()), size, text.data(),
                                   used) == decodes &&
           encoded.holds(size > 2 * n ? hex : "") &&
           dumped.holds(n > 0 && 3 * n <= size ? dump : "") &&
           decoded.holds(decodes ? bytes.substr(0, used / 2) : "", false);
}

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_BOUNDED_TEXT_TEST_UTIL_H_
