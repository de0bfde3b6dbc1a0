#include "nuvra/utils/format.h"

#include <arpa/inet.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/utils/exception.h"

namespace nuvra::utils {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

constexpr char kCanary = '#';
constexpr uint8_t kByteCanary = 0x23;

// Larger than any size the tests hand out, filled with kCanary so that stray writes show.
struct Canvas {
    Canvas() { bytes.fill(kCanary); }
    char* data() { return bytes.data(); }
    std::array<char, 64> bytes{};
};

// What a bounded function must leave for `size`: the string `expected`, terminated within
// `size` when size >= 1, and not one byte written after that terminator.
void expectBoundedText(const Canvas& canvas, size_t size, const std::string& expected) {
    const size_t written = size == 0 ? 0 : expected.size() + 1;
    ASSERT_LE(written, size);
    if (size > 0) {
        EXPECT_EQ(std::string(canvas.bytes.data(), strnlen(canvas.bytes.data(), size)), expected);
    }
    EXPECT_TRUE(std::all_of(canvas.bytes.begin() + static_cast<ptrdiff_t>(written),
                            canvas.bytes.end(), [](char c) { return c == kCanary; }))
        << "written past the terminator";
}

// formatBoundedV behind a variadic front, so both take the same table.
__attribute__((format(printf, 3, 4))) int viaFormatBoundedV(char* buf, size_t size,
                                                            const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = formatBoundedV(buf, size, format, args);
    va_end(args);
    return length;
}

// What a bounded function gives for a size: the text and the count.
struct SizeCase {
    size_t size;
    const char* text;
    int result;
};

TEST(FormatBounded, CutsAtSizeMinusOneAndTerminates) {
    static const SizeCase kCases[] = {{0, "", 0},
                                      {1, "", 0},
                                      {2, "a", 1},
                                      {10, "abcdefghi", 9},
                                      {11, "abcdefghij", 10},
                                      {40, "abcdefghij", 10}};
    for (auto* format : {&formatBounded, &viaFormatBoundedV}) {
        for (const auto& c : kCases) {
            SCOPED_TRACE(c.size);
            Canvas canvas;
            EXPECT_EQ(format(canvas.data(), c.size, "%s", "abcdefghij"), c.result);
            expectBoundedText(canvas, c.size, c.text);
        }
        EXPECT_EQ(format(nullptr, 10, "%s", "abc"), 0);
    }
}

TEST(FormatBounded, CountsFromHugeSizesStayBelowIntMax) {
    constexpr size_t kTwoGiB = size_t{1} << 31;
    constexpr size_t kMapped = kTwoGiB + 4096;
    void* mapped = mmap(nullptr, kMapped, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED) {
        GTEST_SKIP() << "no room for a 2 GiB mapping";
    }
    char* buf = static_cast<char*>(mapped);
    // A lone surrogate cannot be converted in any locale, so vsnprintf fails.
    static const wchar_t kUnconvertible[] = {0xd800, 0};
    for (const size_t size : {kTwoGiB - 2, kTwoGiB - 1, kTwoGiB, kMapped}) {
        SCOPED_TRACE(size);
        const int result = size == kTwoGiB - 2 ? 0x7ffffffd : 0x7ffffffe;
        // Byte by byte: on a 32-bit target the compiler takes an offset of 2 GiB as being past
        // the largest possible object and rejects a memset there.
        for (size_t i = kTwoGiB - 4; i < kTwoGiB + 4; ++i) {
            buf[i] = kCanary;
        }
        EXPECT_EQ(formatBounded(buf, size, "%ls", kUnconvertible), result);
        EXPECT_EQ(buf[result], '\0');
        EXPECT_EQ(buf[result + 1], kCanary);
    }
    munmap(mapped, kMapped);
}

TEST(AppendFormatBounded, AppendsWithinSize) {
    // "ab" is in place (cut to the size), "cdef" is appended.
    static const SizeCase kCases[] = {{0, "", 0},       {1, "", 0},      {2, "a", 1},
                                      {3, "ab", 2},     {6, "abcde", 5}, {7, "abcdef", 6},
                                      {40, "abcdef", 6}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.size);
        Canvas canvas;
        std::memcpy(canvas.data(), "ab", std::min<size_t>(c.size, 3));
        EXPECT_EQ(appendFormatBounded(canvas.data(), c.size, "%s", "cdef"), c.result);
        expectBoundedText(canvas, c.size, c.text);
    }
}

TEST(AppendFormat, AppendsResultsOfAnyLength) {
    // The buffer starts at 4096 bytes; a retry after growing reads the arguments afresh.
    for (const size_t length : {0, 4091, 4092, 10000}) {
        SCOPED_TRACE(length);
        const std::string text(length, 'x');
        std::string out = "kept:";
        appendFormat(out, "%d|%s|%d", 1, text.c_str(), 2);
        EXPECT_EQ(out, "kept:1|" + text + "|2");
    }
}

TEST(FormatByteSize, SwitchesUnitsAboveEachThreshold) {
    static const struct {
        int64_t bytes;
        const char* text;
    } kCases[] = {{0, "0 B"},
                  {4096, "4096 B"},
                  {4097, "4.00 kB"},
                  {1048576, "1024.00 kB"},
                  {1048577, "1.00 MB"},
                  {1073741824, "1024.00 MB"},
                  {1073741825, "1.00 GB"},
                  {INT64_MAX, "8589934592.00 GB"},
                  {-1, "-1 B"},
                  {-5000, "-4.88 kB"},
                  {INT64_MIN, "-0 B"}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.text);
        Canvas canvas;
        EXPECT_EQ(formatByteSize(canvas.data(), 40, c.bytes), static_cast<int>(strlen(c.text)));
        expectBoundedText(canvas, 40, c.text);
    }
    for (const int size : {-1, 0, 1, 4, 8, 9}) {
        SCOPED_TRACE(size);
        Canvas canvas;
        const std::string expected = std::string("-4.88 kB").substr(0, std::max(size - 1, 0));
        EXPECT_EQ(formatByteSize(canvas.data(), size, -5000), static_cast<int>(expected.size()));
        expectBoundedText(canvas, static_cast<size_t>(std::max(size, 0)), expected);
    }
}

TEST(FormatDuration, AddsDaysFromOneDayOn) {
    static const struct {
        uint32_t seconds;
        const char* text;
    } kCases[] = {{0, "00:00:00"},
                  {86399, "23:59:59"},
                  {90061, "1 day 01:01:01"},
                  {172861, "2 days 00:01:01"},
                  {UINT32_MAX, "49710 days 06:28:15"}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.text);
        Canvas canvas;
        EXPECT_EQ(formatDuration(c.seconds, canvas.data()), static_cast<int>(strlen(c.text)));
        expectBoundedText(canvas, kDurationTextSize, c.text);
    }
}

// Port 258 is 0x0102; the longest texts just fit the documented sizes.
TEST(FormatIPv4, PrintsBytesInMemoryOrder) {
    static const struct {
        uint8_t bytes[4];
        uint16_t port;
        std::string text;
    } kCases[] = {{{192, 168, 1, 2}, 258, "192.168.1.2:258"},
                  {{255, 255, 255, 255}, 65535, "255.255.255.255:65535"}};
    for (const auto& c : kCases) {
        uint32_t address = 0;
        std::memcpy(&address, c.bytes, sizeof(address));
        Canvas plain;
        EXPECT_EQ(formatIPv4(plain.data(), address), plain.data());
        expectBoundedText(plain, kIPv4TextSize, c.text.substr(0, c.text.find(':')));
        Canvas withPort;
        EXPECT_EQ(formatIPv4Port(withPort.data(), address, htons(c.port)), withPort.data());
        expectBoundedText(withPort, kIPv4PortTextSize, c.text);
    }
}

std::string printfText(unsigned base, uint64_t value) {
    char text[32];
    const int length = base == 8    ? std::snprintf(text, sizeof text, "%" PRIo64, value)
                       : base == 10 ? std::snprintf(text, sizeof text, "%" PRIu64, value)
                                    : std::snprintf(text, sizeof text, "%" PRIx64, value);
    return {text, static_cast<size_t>(length)};
}

TEST(UInt64ToText, AgreesWithPrintfAndKeepsLowDigitsWhenBounded) {
    std::mt19937_64 random(0x6e75767261);
    std::vector<uint64_t> values = {0, 1, UINT64_MAX};
    for (int i = 0; i < 3000; ++i) {
        values.push_back(random() >> (random() % 64));  // short numbers as well as long ones
    }
    for (const uint64_t value : values) {
        for (const unsigned base : {8u, 10u, 16u}) {
            SCOPED_TRACE(testing::Message() << value << " base " << base);
            const std::string expected = printfText(base, value);
            Canvas canvas;
            EXPECT_EQ(uint64ToText(value, canvas.data(), base), canvas.data());
            expectBoundedText(canvas, kUInt64TextSize, expected);
            if (base == 8 && value <= ULONG_MAX) {
                EXPECT_EQ(toOctalString(static_cast<unsigned long>(value)), expected);
            }
            const size_t size = 2 + random() % (expected.size() + 1);
            const std::string kept =
                expected.substr(expected.size() - std::min(size - 1, expected.size()));
            Canvas bounded;
            EXPECT_EQ(uint64ToTextBounded(value, bounded.data(), size, base),
                      static_cast<int>(kept.size()));
            expectBoundedText(bounded, size, kept);
        }
    }
}

TEST(UInt64ToText, BoundedSizeEdges) {
    static const struct {
        uint64_t value;
        unsigned base;
        size_t size;
        const char* text;
        int result;
    } kCases[] = {{123456, 10, 0, "", -1},      {123456, 10, 1, "", 0},
                  {123456, 10, 4, "456", 3},    {123456, 10, 6, "23456", 5},
                  {123456, 10, 7, "123456", 6}, {UINT64_MAX, 36, 14, "3w5e11264sgsf", 13},
                  {UINT64_MAX, 2, 5, "1111", 4}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.value << " size " << c.size);
        Canvas canvas;
        EXPECT_EQ(uint64ToTextBounded(c.value, canvas.data(), c.size, c.base), c.result);
        expectBoundedText(canvas, c.size, c.text);
    }
    char binary[kUInt64TextSize];
    EXPECT_EQ(uint64ToText(UINT64_MAX, binary, 2), std::string(64, '1'));
}

TEST(ByteSwap64, ReversesTheBytesUnderBothNames) {
    EXPECT_EQ(byteSwap64(0xf0e1d2c3b4a59687), 0x8796a5b4c3d2e1f0);
    EXPECT_EQ(hostToNetwork64(0xf0e1d2c3b4a59687), 0x8796a5b4c3d2e1f0);
    // Network order puts the most significant byte first in memory.
    const uint64_t network = hostToNetwork64(0x0102030405060708);
    EXPECT_EQ(std::memcmp(&network, "\x01\x02\x03\x04\x05\x06\x07\x08", 8), 0);
}

TEST(Hex, KnownTextsAndDigitValues) {
    EXPECT_EQ(toHex(std::string("\x00\xff\x10", 3)), "00ff10");
    EXPECT_EQ(fromHex("00FF10"), std::string("\x00\xff\x10", 3));
    EXPECT_EQ(fromHex("aBc"), "\xab");  // the unpaired final character is ignored
    // Characters that are not digits count as -1; the byte wraps.
    EXPECT_EQ(fromHex("g00gggx7"), "\xf0\xff\xef\xf7");
    for (int c = CHAR_MIN; c <= CHAR_MAX; ++c) {
        SCOPED_TRACE(c);
        const char text[] = {static_cast<char>(c), '\0'};
        if (std::isxdigit(static_cast<unsigned char>(c))) {
            EXPECT_EQ(hexDigitValue(text[0]), std::strtol(text, nullptr, 16));
        } else {
            EXPECT_THAT([&] { hexDigitValue(text[0]); },
                        ThrowsMessage<Exception>(StrEq("Wrong hex character.")));
        }
    }
}

TEST(Hex, CodecsAgreeWithPrintfAndRoundTrip) {
    std::mt19937_64 random(16);
    for (size_t length = 0; length < 300; ++length) {
        SCOPED_TRACE(length);
        std::string bytes(length, '\0');
        std::string printed;
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
            char two[3];
            (void)std::snprintf(two, sizeof two, "%02x", static_cast<unsigned>(byte & 0xff));
            printed += two;
        }
        const std::string hex = toHex(bytes);
        EXPECT_EQ(hex, printed);
        std::string upper = hex;
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](char c) { return static_cast<char>(std::toupper(c)); });
        EXPECT_EQ(fromHex(hex), bytes);
        EXPECT_EQ(fromHex(upper), bytes);

        // The raw codecs write exactly their output and nothing after it.
        std::vector<char> encoded(2 * length + 1, kCanary);
        encodeHex(encoded.data(), reinterpret_cast<const uint8_t*>(bytes.data()), length);
        EXPECT_EQ(std::string(encoded.data(), 2 * length), hex);
        EXPECT_EQ(encoded.back(), kCanary);
        std::vector<uint8_t> decoded(length + 1, kByteCanary);
        decodeHex(decoded.data(), upper.data(), upper.size());
        EXPECT_EQ(std::string(decoded.begin(), decoded.end() - 1), bytes);
        EXPECT_EQ(decoded.back(), kByteCanary);
    }
}

const uint8_t kThreeBytes[] = {0x00, 0xab, 0x7f};

TEST(EncodeHexChecked, NeedsRoomForDigitsAndTerminator) {
    static const struct {
        bool nullDst;
        size_t size;
        bool nullSrc;
        size_t n;
        bool result;
        const char* text;
    } kCases[] = {{false, 0, false, 3, false, ""},      {true, 10, false, 3, false, ""},
                  {false, 1, false, 3, false, ""},      {false, 6, false, 3, false, ""},
                  {false, 7, false, 3, true, "00ab7f"}, {false, 40, false, 3, true, "00ab7f"},
                  {false, 1, false, 0, true, ""},       {false, 10, true, 3, false, ""},
                  {false, 10, true, 0, true, ""}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << "size " << c.size << " n " << c.n);
        Canvas canvas;
        EXPECT_EQ(encodeHexChecked(c.nullDst ? nullptr : canvas.data(), c.size,
                                   c.nullSrc ? nullptr : kThreeBytes, c.n),
                  c.result);
        expectBoundedText(canvas, c.nullDst ? 0 : c.size, c.text);
    }
}

TEST(DecodeHexChecked, NeedsHalfTheLength) {
    static const struct {
        bool nullDst;
        size_t size;
        bool nullSrc;
        size_t length;
        bool result;
        size_t written;
    } kCases[] = {{true, 0, true, 0, true, 0},    {false, 0, false, 6, false, 0},
                  {true, 10, false, 6, false, 0}, {false, 10, true, 6, false, 0},
                  {false, 2, false, 6, false, 0}, {false, 3, false, 6, true, 3},
                  {false, 2, false, 5, true, 2},  {false, 16, false, 6, true, 3}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << "size " << c.size << " length " << c.length);
        std::array<uint8_t, 16> out;
        out.fill(kByteCanary);
        EXPECT_EQ(decodeHexChecked(c.nullDst ? nullptr : out.data(), c.size,
                                   c.nullSrc ? nullptr : "00AB7F", c.length),
                  c.result);
        EXPECT_TRUE(std::equal(out.begin(), out.begin() + c.written, kThreeBytes));
        EXPECT_TRUE(std::all_of(out.begin() + c.written, out.end(),
                                [](uint8_t b) { return b == kByteCanary; }));
    }
}

TEST(HexDump, SeparatesBytesAndEndsOnTheTerminator) {
    static const struct {
        size_t size;
        size_t n;
        char separator;
        const char* text;  // null: hexDump returns null
    } kCases[] = {{0, 3, ':', nullptr},    {1, 3, ':', ""},          {8, 3, ':', ""},
                  {9, 3, ':', "00:ab:7f"}, {40, 3, ' ', "00 ab 7f"}, {3, 1, ':', "00"},
                  {40, 0, ':', ""}};
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << "size " << c.size << " n " << c.n);
        Canvas canvas;
        const char* result = hexDump(canvas.data(), c.size, c.separator, kThreeBytes, c.n);
        EXPECT_EQ(result, c.text == nullptr ? nullptr : canvas.data());
        expectBoundedText(canvas, c.size, c.text == nullptr ? "" : c.text);
    }
}

}  // namespace
}  // namespace nuvra::utils
