// SPDX-License-Identifier: Apache-2.0
// For tests of functions that write into a caller's buffer: a buffer between guard zones, and
// checks of format.h's bounded writers against plain models for its unit test and fuzz target
// (so without GoogleTest). Each check returns whether the library agrees.

#ifndef NUVRA_TESTING_BOUNDED_TEXT_TEST_UTIL_H_
#define NUVRA_TESTING_BOUNDED_TEXT_TEST_UTIL_H_

#include <cctype>
#include <cstdint>
#include <cstring>
#include <string>

#include "nuvra/utils/format.h"

namespace nuvra::testing {

// `size` bytes to hand to a function between two guard zones, all filled with a canary, so
// that any write shows in every build. holds() tells whether exactly `written` and, when
// `terminated` and the size allows, a terminator were written at the start, and nothing else.
struct GuardedBuffer {
    explicit GuardedBuffer(size_t size) : size_(size), bytes_(size + 32, 'Z') {}
    char* data() { return &bytes_[16]; }
    bool holds(std::string written, bool terminated = true) const {
        written.append(terminated && size_ > 0 ? 1 : 0, '\0');
        return written.size() <= size_ &&
               bytes_ ==
                   std::string(16, 'Z') + written + std::string(size_ - written.size() + 16, 'Z');
    }
    size_t size_;
    std::string bytes_;
};

// formatBounded keeps the first size - 1 characters of `text` and counts them, and so does
// appendFormatBounded after `existing` characters already in the buffer (filling it without
// a terminator when full).
inline bool formatKeepsTheStart(const std::string& text, size_t size, size_t existing) {
    GuardedBuffer formatted(size);
    GuardedBuffer appended(size);
    std::memset(appended.data(), 'e', existing);
    std::memset(appended.data() + existing, 0, existing < size ? 1 : 0);
    const size_t room = size == 0 ? 0 : size - 1;
    const std::string kept = text.substr(0, room);
    const std::string keptAfter = (std::string(existing, 'e') + text).substr(0, room);
    return utils::formatBounded(formatted.data(), size, "%s", text.c_str()) ==
               static_cast<int>(kept.size()) &&
           utils::appendFormatBounded(appended.data(), size, "%s", text.c_str()) ==
               static_cast<int>(keptAfter.size()) &&
           formatted.holds(kept) && appended.holds(keptAfter);
}

// fromHex gives 16 * first + second digit value per pair of `text`, cut to eight bits, a
// non-digit counting as -1, and toHex gives that back in lower case; into `size` bytes,
// encodeHexChecked (given no source for no bytes) and hexDump write all of it or an empty
// string, and decodeHexChecked all of it or nothing.
inline bool hexCodecsAgree(const std::string& text, size_t size, char separator) {
    const auto digit = [](unsigned char c) {
        return std::isxdigit(c) != 0 ? std::stoi(std::string(1, char(c)), nullptr, 16) : -1;
    };
    const size_t n = text.size() / 2;
    std::string hex;
    std::string dump;
    for (size_t i = 0; i < n; ++i) {
        const int value = (16 * digit(text[2 * i]) + digit(text[2 * i + 1])) & 0xff;
        hex += {"0123456789abcdef"[value >> 4], "0123456789abcdef"[value & 15]};
        dump.append(hex, 2 * i, 2).append(i + 1 < n ? 1 : 0, separator);
    }
    const std::string bytes = utils::fromHex(text);
    const auto* src = n == 0 ? nullptr : reinterpret_cast<const uint8_t*>(bytes.data());
    const bool decodes = text.empty() || (size > 0 && size >= n);
    GuardedBuffer encoded(size);
    GuardedBuffer dumped(size);
    GuardedBuffer decoded(size);
    return utils::toHex(bytes) == hex &&
           utils::encodeHexChecked(encoded.data(), size, src, n) ==
               (size > 2 * n || (size > 0 && n == 0)) &&
           utils::hexDump(dumped.data(), size, separator, src, n) ==
               (size == 0 ? nullptr : dumped.data()) &&
           utils::decodeHexChecked(reinterpret_cast<uint8_t*>(decoded.data()), size, text.data(),
                                   text.size()) == decodes &&
           encoded.holds(size > 2 * n ? hex : "") &&
           dumped.holds(n > 0 && 3 * n <= size ? dump : "") &&
           decoded.holds(decodes ? bytes : "", false);
}

}  // namespace nuvra::testing

#endif  // NUVRA_TESTING_BOUNDED_TEXT_TEST_UTIL_H_
