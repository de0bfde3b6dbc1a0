// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/format.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "nuvra/tiny/internal/exception_contract.h"
#include "nuvra/tiny/internal/unique_resource.h"
#include "nuvra/utils/exception.h"

namespace nuvra::utils {
namespace {

// The longest count formatBoundedV reports; larger buffers are cut here so that the count
// still fits in an int.
constexpr size_t kMaxBoundedLength = 0x7ffffffe;
constexpr size_t kInitialFormatCapacity = 4096;

// The two lower-case digits of every byte value, side by side: one lookup per byte.
constexpr std::array<char, 512> kHexPairs = [] {
    constexpr char kDigits[] = "0123456789abcdef";
    std::array<char, 512> pairs{};
    for (size_t byte = 0; byte < 256; ++byte) {
        pairs[2 * byte] = kDigits[byte >> 4];
        pairs[2 * byte + 1] = kDigits[byte & 0xf];
    }
    return pairs;
}();

// The value of every byte as a hexadecimal digit of either case, -1 for the other bytes.
constexpr std::array<int8_t, 256> kHexDigitValues = [] {
    std::array<int8_t, 256> values{};
    for (size_t byte = 0; byte < 256; ++byte) {
        values[byte] = -1;
    }
    for (int8_t digit = 0; digit < 10; ++digit) {
        values[static_cast<size_t>('0' + digit)] = digit;
    }
    for (int8_t digit = 10; digit < 16; ++digit) {
        values[static_cast<size_t>('a' + digit - 10)] = digit;
        values[static_cast<size_t>('A' + digit - 10)] = digit;
    }
    return values;
}();

const char* hexPair(uint8_t byte) { return &kHexPairs[2 * size_t{byte}]; }

int digitValue(char c) { return kHexDigitValues[static_cast<unsigned char>(c)]; }

// An invalid digit counts as -1 and the sum wraps to 8 bits: decoding never fails.
uint8_t decodePair(char high, char low) {
    return static_cast<uint8_t>(16 * digitValue(high) + digitValue(low));
}

int saturatedCount(size_t count) { return count > INT_MAX ? INT_MAX : static_cast<int>(count); }

__attribute__((format(printf, 2, 0))) void appendFormatV(std::string& out, const char* format,
                                                         va_list args) {
    size_t capacity = kInitialFormatCapacity;
    tiny::internal::MallocPtr<char> buffer(static_cast<char*>(std::malloc(capacity)));
    if (buffer == nullptr) {
        return;
    }
    for (;;) {
        va_list attempt;
        va_copy(attempt, args);
        const int length = std::vsnprintf(buffer.get(), capacity, format, attempt);
        va_end(attempt);
        if (length >= 0 && static_cast<size_t>(length) < capacity) {
            out.append(buffer.get(), static_cast<size_t>(length));
            return;
        }
        // A negative result names no size: the buffer doubles and the format is tried again,
        // until growing fails.
        const bool canGrow = length >= 0 || capacity <= SIZE_MAX / 2;
        capacity = length >= 0 ? static_cast<size_t>(length) + 1 : 2 * capacity;
        if (!canGrow || !tiny::internal::reallocate(buffer, capacity)) {
            // The old buffer is deliberately leaked, not freed: long-standing behaviour that
            // callers rely on.
            static_cast<void>(buffer.release());
            return;  // NOLINT(clang-analyzer-unix.Malloc): the leak is the one meant above
        }
    }
}

// Writes `value` in `base`, most significant digit first, stopping after `maxDigits`
// digits: when it stops early, the least significant digits are the ones kept. Returns the
// number of digits; writes no terminator.
size_t writeDigits(uint64_t value, char* buf, size_t maxDigits, unsigned base) {
    size_t count = 0;
    do {
        const auto digit = static_cast<unsigned>(value % base);
        buf[count++] = static_cast<char>(digit < 10 ? '0' + digit : 'a' + (digit - 10));
        value /= base;
    } while (value != 0 && count < maxDigits);
    std::reverse(buf, buf + count);
    return count;
}

// The bytes of `value` as they lie in memory.
template <typename T>
std::array<uint8_t, sizeof(T)> bytesInMemory(T value) {
    std::array<uint8_t, sizeof(T)> bytes{};
    std::memcpy(bytes.data(), &value, sizeof(T));
    return bytes;
}

}  // namespace

// ---- printf-style formatting ------------------------------------------------------------

void appendFormat(std::string& out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    appendFormatV(out, format, args);
    va_end(args);
}

int formatBoundedV(char* buf, size_t size, const char* format, va_list args) {
    if (buf == nullptr || size == 0) {
        return 0;
    }
    if (size == 1) {
        buf[0] = '\0';
        return 0;
    }
    const int length = std::vsnprintf(buf, size, format, args);
    if (length >= 0 && static_cast<size_t>(length) < size) {
        buf[length] = '\0';
        return length;
    }
    const size_t cut = std::min(size - 1, kMaxBoundedLength);
    buf[cut] = '\0';
    return static_cast<int>(cut);
}

int formatBounded(char* buf, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = formatBoundedV(buf, size, format, args);
    va_end(args);
    return length;
}

int appendFormatBounded(char* buf, size_t size, const char* format, ...) {
    if (buf == nullptr || size == 0) {
        return 0;
    }
    if (size == 1) {
        buf[0] = '\0';
        return 0;
    }
    const size_t existing = strnlen(buf, size);
    if (existing == size) {
        buf[size - 1] = '\0';
        return saturatedCount(size - 1);
    }
    va_list args;
    va_start(args, format);
    const int appended = formatBoundedV(buf + existing, size - existing, format, args);
    va_end(args);
    return saturatedCount(existing + static_cast<size_t>(appended));
}

// ---- Addresses, sizes and durations ----------------------------------------------------

char* formatIPv4(char* buf, uint32_t address) {
    const auto a = bytesInMemory(address);
    // The buffer is sized for the longest address, so the count tells nothing.
    static_cast<void>(formatBounded(buf, kIPv4TextSize, "%u.%u.%u.%u", unsigned{a[0]},
                                    unsigned{a[1]}, unsigned{a[2]}, unsigned{a[3]}));
    return buf;
}

char* formatIPv4Port(char* buf, uint32_t address, uint16_t port) {
    const auto a = bytesInMemory(address);
    const auto p = bytesInMemory(port);
    static_cast<void>(formatBounded(buf, kIPv4PortTextSize, "%u.%u.%u.%u:%u", unsigned{a[0]},
                                    unsigned{a[1]}, unsigned{a[2]}, unsigned{a[3]},
                                    256u * p[0] + p[1]));
    return buf;
}

int formatByteSize(char* buf, int size, int64_t bytes) {
    constexpr int64_t kKiB = 1024;
    constexpr int64_t kMiB = 1024 * kKiB;
    constexpr int64_t kGiB = 1024 * kMiB;
    const size_t bufferSize = size > 0 ? static_cast<size_t>(size) : 0;
    const char* sign = bytes < 0 ? "-" : "";
    // Negated in unsigned arithmetic: INT64_MIN comes back as itself, still negative, and
    // so lands in the first row with its low 32 bits, 0.
    const auto magnitude = static_cast<int64_t>(bytes < 0 ? 0 - static_cast<uint64_t>(bytes)
                                                          : static_cast<uint64_t>(bytes));
    const auto scaled = [magnitude](int64_t unit) {
        return static_cast<double>(magnitude) / static_cast<double>(unit);
    };
    if (magnitude <= 4 * kKiB) {
        return formatBounded(buf, bufferSize, "%s%u B", sign, static_cast<uint32_t>(magnitude));
    }
    if (magnitude <= kMiB) {
        return formatBounded(buf, bufferSize, "%s%.2f kB", sign, scaled(kKiB));
    }
    if (magnitude <= kGiB) {
        return formatBounded(buf, bufferSize, "%s%.2f MB", sign, scaled(kMiB));
    }
    return formatBounded(buf, bufferSize, "%s%.2f GB", sign, scaled(kGiB));
}

int formatDuration(uint32_t seconds, char* buf) {
    constexpr uint32_t kSecondsPerDay = 86400;
    const uint32_t days = seconds / kSecondsPerDay;
    uint32_t rest = seconds % kSecondsPerDay;
    const uint32_t hours = rest / 3600;
    rest %= 3600;
    const uint32_t minutes = rest / 60;
    rest %= 60;
    if (days == 0) {
        return std::snprintf(buf, kDurationTextSize, "%02u:%02u:%02u", hours, minutes, rest);
    }
    return std::snprintf(buf, kDurationTextSize, "%d day%s %02u:%02u:%02u", static_cast<int>(days),
                         days == 1 ? "" : "s", hours, minutes, rest);
}

// ---- Numbers ----------------------------------------------------------------------------

std::string toOctalString(unsigned long value) {
    static_assert(sizeof(value) <= sizeof(uint64_t), "unsigned long fits in 64 bits");
    char text[kUInt64TextSize];
    return uint64ToText(value, text, 8);
}

char* uint64ToText(uint64_t value, char* buf, unsigned base) {
    buf[writeDigits(value, buf, SIZE_MAX, base)] = '\0';
    return buf;
}

int uint64ToTextBounded(uint64_t value, char* buf, size_t size, unsigned base) {
    if (size == 0) {
        return -1;
    }
    if (size == 1) {
        buf[0] = '\0';
        return 0;
    }
    const size_t count = writeDigits(value, buf, size - 1, base);
    buf[count] = '\0';
    return static_cast<int>(count);
}

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "hostToNetwork64 swaps unconditionally, which is right only on little-endian hosts");

uint64_t byteSwap64(uint64_t value) { return __builtin_bswap64(value); }

uint64_t hostToNetwork64(uint64_t value) { return byteSwap64(value); }

// ---- Hexadecimal ------------------------------------------------------------------------

std::string toHex(const std::string& bytes) {
    std::string text;
    text.reserve(2 * bytes.size() + 1);
    text.resize(2 * bytes.size());
    encodeHex(text.data(), reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return text;
}

std::string fromHex(const std::string& text) {
    std::string bytes;
    bytes.reserve(text.size() / 2 + 1);
    bytes.resize(text.size() / 2);
    decodeHex(reinterpret_cast<uint8_t*>(bytes.data()), text.data(), text.size());
    return bytes;
}

int hexDigitValue(char c) {
    return tiny::internal::withExceptionContract<Exception, std::bad_alloc>([c] {
        const int value = digitValue(c);
        if (value < 0) {
            throw Exception("Wrong hex character.");
        }
        return value;
    });
}

void encodeHex(char* dst, const uint8_t* src, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        std::memcpy(dst + 2 * i, hexPair(src[i]), 2);
    }
}

bool encodeHexChecked(char* dst, size_t size, const uint8_t* src, size_t n) {
    if (dst == nullptr || size == 0) {
        return false;
    }
    // size >= 2n + 1, written so that it cannot overflow.
    if (src == nullptr || n > (size - 1) / 2) {
        dst[0] = '\0';
        return n == 0;
    }
    encodeHex(dst, src, n);
    dst[2 * n] = '\0';
    return true;
}

void decodeHex(uint8_t* dst, const char* src, size_t length) {
    for (size_t i = 0; i < length / 2; ++i) {
        dst[i] = decodePair(src[2 * i], src[2 * i + 1]);
    }
}

bool decodeHexChecked(uint8_t* dst, size_t size, const char* src, size_t length) {
    if (length == 0) {
        return true;
    }
    if (dst == nullptr || size == 0 || src == nullptr || size < length / 2) {
        return false;
    }
    decodeHex(dst, src, length);
    return true;
}

char* hexDump(char* dst, size_t size, char separator, const uint8_t* src, size_t n) {
    if (size == 0) {
        return nullptr;
    }
    // 3n > size, written so that it cannot overflow. With n = 0 there is no separator to
    // turn into the terminator.
    if (n == 0 || n > size / 3) {
        dst[0] = '\0';
        return dst;
    }
    for (size_t i = 0; i < n; ++i) {
        std::memcpy(dst + 3 * i, hexPair(src[i]), 2);
        dst[3 * i + 2] = separator;
    }
    dst[3 * n - 1] = '\0';
    return dst;
}

}  // namespace nuvra::utils
