#include "nuvra/utils/format.h"

#include <arpa/inet.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <tuple>
#include <type_traits>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/testing/bounded_text_test_util.h"
#include "nuvra/utils/exception.h"

namespace nuvra::utils {
namespace {

using testing::GuardedBuffer;

// Callers catch the decoder's exception as std::runtime_error.
static_assert(std::is_base_of_v<std::runtime_error, Exception>);

// Every size from 0 to past the whole text; for appendFormatBounded every length of a string
// already there, up to one that fills the buffer without a terminator.
TEST(BoundedWriters, KeepWhatFitsAtEverySize) {
    for (size_t size = 0; size <= 12; ++size) {
        for (size_t existing = 0; existing <= size; ++existing) {
            EXPECT_TRUE(testing::formatKeepsTheStart("abcdef", size, existing))
                << size << " " << existing;
        }
        for (const char* hex : {"00aB7Fg0x", ""}) {
            EXPECT_TRUE(testing::hexCodecsAgree(hex, size, 12 - size, ':')) << hex << " " << size;
        }
    }
    // A format vsnprintf cannot convert counts as cut at the size, whatever it left.
    static const wchar_t kLoneSurrogate[] = {0xd800, 0};
    char text[8];
    EXPECT_EQ(formatBounded(text, sizeof text, "%ls", kLoneSurrogate), 7);
    EXPECT_EQ(formatBounded(nullptr, 10, "%s", "abc") + appendFormatBounded(nullptr, 10, "x"), 0);
    uint8_t bytes[] = {0x00, 0xab, 0x7f};
    EXPECT_FALSE(encodeHexChecked(nullptr, 10, bytes, 3) || encodeHexChecked(text, 8, nullptr, 3));
    EXPECT_FALSE(decodeHexChecked(nullptr, 10, "00", 2) || decodeHexChecked(bytes, 10, nullptr, 2));
    EXPECT_TRUE(decodeHexChecked(nullptr, 0, nullptr, 0));  // nothing to decode
}

// A buffer too small for all digits keeps the least significant ones.
TEST(BoundedWriters, NumbersKeepTheirLastDigits) {
    static const std::tuple<uint64_t, unsigned, size_t, const char*, int> kCases[] = {
        {123456, 10, 0, "", -1},
        {123456, 10, 1, "", 0},
        {123456, 10, 4, "456", 3},
        {123456, 10, 7, "123456", 6},
        {UINT64_MAX, 36, 14, "3w5e11264sgsf", 13}};
    for (const auto& [value, base, size, text, result] : kCases) {
        GuardedBuffer buf(size);
        EXPECT_EQ(uint64ToTextBounded(value, buf.data(), size, base), result) << text;
        EXPECT_TRUE(buf.holds(text)) << text;
    }
    char binary[kUInt64TextSize];
    EXPECT_EQ(uint64ToText(UINT64_MAX, binary, 2), std::string(64, '1'));
    EXPECT_EQ(toOctalString(0) + "," + toOctalString(511), "0,777");
}

TEST(AppendFormat, AppendsResultsOfAnyLength) {
    // The buffer starts at 4096 bytes; a retry after growing reads the arguments afresh.
    for (const size_t length : {4091, 4092, 10000}) {
        const std::string text(length, 'x');
        std::string out = "kept:";
        appendFormat(out, "%d|%s|%d", 1, text.c_str(), 2);
        EXPECT_EQ(out, "kept:1|" + text + "|2") << length;
    }
}

TEST(ReadableText, ByteSizesAndDurations) {
    static const std::tuple<int64_t, const char*> kSizes[] = {
        {4096, "4096 B"},     {4097, "4.00 kB"},          {1048576, "1024.00 kB"},
        {1048577, "1.00 MB"}, {1073741824, "1024.00 MB"}, {1073741825, "1.00 GB"},
        {-5000, "-4.88 kB"},  {INT64_MIN, "-0 B"}};
    for (const auto& [bytes, text] : kSizes) {
        GuardedBuffer buf(40);
        EXPECT_EQ(formatByteSize(buf.data(), 40, bytes), static_cast<int>(std::strlen(text)));
        EXPECT_TRUE(buf.holds(text)) << text;
    }
    GuardedBuffer four(4);
    GuardedBuffer none(0);
    EXPECT_EQ(formatByteSize(four.data(), 4, -5000) + formatByteSize(none.data(), -1, 1), 3);
    EXPECT_TRUE(four.holds("-4.") && none.holds(""));
    static const std::tuple<uint32_t, const char*> kDurations[] = {
        {0, "00:00:00"},
        {90061, "1 day 01:01:01"},
        {172861, "2 days 00:01:01"},
        {UINT32_MAX, "49710 days 06:28:15"}};  // the longest text just fits
    for (const auto& [seconds, text] : kDurations) {
        GuardedBuffer buf(kDurationTextSize);
        EXPECT_EQ(formatDuration(seconds, buf.data()), static_cast<int>(std::strlen(text)));
        EXPECT_TRUE(buf.holds(text)) << text;
    }
}

// Address and port are held in network byte order; the longest texts just fit.
TEST(ReadableText, AddressesAndNetworkOrder) {
    for (const auto& [address, port, text] :
         {std::tuple(htonl(0xc0a80102), 8080, std::string("192.168.1.2:8080")),
          std::tuple(0xffffffffu, 65535, std::string("255.255.255.255:65535"))}) {
        GuardedBuffer plain(kIPv4TextSize);
        GuardedBuffer withPort(kIPv4PortTextSize);
        EXPECT_EQ(formatIPv4(plain.data(), address), plain.data());
        EXPECT_EQ(formatIPv4Port(withPort.data(), address, htons(port)), withPort.data());
        EXPECT_TRUE(plain.holds(text.substr(0, text.find(':'))) && withPort.holds(text)) << text;
    }
    const uint64_t network = hostToNetwork64(0x0102030405060708);
    EXPECT_EQ(std::memcmp(&network, "\x01\x02\x03\x04\x05\x06\x07\x08", 8), 0);
}

TEST(Hex, KnownTextsAndEveryDigitValue) {
    EXPECT_EQ(toHex(std::string("\x00\xff\x10", 3)), "00ff10");
    EXPECT_EQ(fromHex("00FF10"), std::string("\x00\xff\x10", 3));
    for (int c = CHAR_MIN; c <= CHAR_MAX; ++c) {
        const char text[] = {static_cast<char>(c), '\0'};
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            EXPECT_EQ(hexDigitValue(text[0]), std::strtol(text, nullptr, 16)) << c;
        } else {
            EXPECT_THAT(
                [&] { hexDigitValue(text[0]); },
                ::testing::ThrowsMessage<Exception>(::testing::StrEq("Wrong hex character.")));
        }
    }
}

}  // namespace
}  // namespace nuvra::utils
