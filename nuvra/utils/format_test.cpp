// SPDX-License-Identifier: Apache-2.0
#include "nuvra/utils/format.h"

#include <arpa/inet.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "nuvra/testing/bounded_text_test_util.h"
#include "nuvra/utils/exception.h"

namespace nuvra::utils {
namespace {

// Callers catch the decoder's exception as std::runtime_error.
static_assert(std::is_base_of_v<std::runtime_error, Exception>);

// Every size from 0 to past the whole text; for appendFormatBounded every length of a string
// already there, up to one that fills the buffer without a terminator.
TEST(BoundedWriters, TextAndHexKeepWhatFitsAtEverySize) {
    for (size_t size = 0; size <= 12; ++size) {
        for (size_t existing = 0; existing <= size; ++existing) {
            EXPECT_TRUE(testing::formatKeepsTheStart("abcdef", size, existing))
                << size << " " << existing;
        }
        for (const char* hex : {"00aB7Fg0x", ""}) {
            EXPECT_TRUE(testing::hexCodecsAgree(hex, size, ':')) << hex << " " << size;
        }
    }
    EXPECT_EQ(hexDigitValue('0') + 16 * hexDigitValue('a') + hexDigitValue('F'), 0xaf);
    EXPECT_THAT([] { hexDigitValue('g'); },
                ::testing::ThrowsMessage<Exception>(::testing::StrEq("Wrong hex character.")));
    // A format vsnprintf cannot convert counts as cut at the size, whatever it left.
    static const wchar_t kLoneSurrogate[] = {0xd800, 0};
    char text[8];
    EXPECT_EQ(formatBounded(text, sizeof text, "%ls", kLoneSurrogate), 7);
}

// A buffer too small for all digits keeps the least significant ones.
TEST(BoundedWriters, NumbersKeepTheirLastDigits) {
    for (const auto& [value, base, size, text, result] :
         {std::tuple(123456ull, 10u, 0ul, "", -1), std::tuple(123456ull, 10u, 1ul, "", 0),
          std::tuple(123456ull, 10u, 4ul, "456", 3),
          std::tuple(0xffffffffffffffffull, 36u, 14ul, "3w5e11264sgsf", 13)}) {
        testing::GuardedBuffer buf(size);
        EXPECT_EQ(uint64ToTextBounded(value, buf.data(), size, base), result) << text;
        EXPECT_TRUE(buf.holds(text)) << text;
    }
    char binary[kUInt64TextSize];
    EXPECT_EQ(uint64ToText(UINT64_MAX, binary, 2) + toOctalString(0) + toOctalString(511),
              std::string(64, '1') + "0777");
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

// Each result counts what it wrote; the longest duration and address texts just fit.
TEST(ReadableText, ByteSizesDurationsAndAddresses) {
    static const std::tuple<int64_t, const char*> kSizes[] = {
        {4096, "4096 B"},     {4097, "4.00 kB"},          {1048576, "1024.00 kB"},
        {1048577, "1.00 MB"}, {1073741824, "1024.00 MB"}, {1073741825, "1.00 GB"},
        {-5000, "-4.88 kB"},  {INT64_MIN, "-0 B"}};
    char buf[40];
    for (const auto& [bytes, text] : kSizes) {
        EXPECT_EQ(formatByteSize(buf, sizeof buf, bytes), static_cast<int>(std::strlen(text)));
        EXPECT_STREQ(buf, text);
    }
    for (const auto& [seconds, text] :
         {std::pair(0u, "00:00:00"), std::pair(90061u, "1 day 01:01:01"),
          std::pair(172861u, "2 days 00:01:01"), std::pair(UINT32_MAX, "49710 days 06:28:15")}) {
        EXPECT_EQ(formatDuration(seconds, buf), static_cast<int>(std::strlen(text)));
        EXPECT_STREQ(buf, text);
    }
    EXPECT_EQ(formatByteSize(buf, 4, -5000) + formatByteSize(nullptr, -1, 1), 3);
    EXPECT_STREQ(buf, "-4.");
    // Address and port are held in network byte order.
    testing::GuardedBuffer address(kIPv4TextSize);
    testing::GuardedBuffer withPort(kIPv4PortTextSize);
    EXPECT_EQ(formatIPv4(address.data(), htonl(0xc0a8fffe)), address.data());
    EXPECT_EQ(formatIPv4Port(withPort.data(), htonl(0xc0a8fffe), htons(65534)), withPort.data());
    EXPECT_TRUE(address.holds("192.168.255.254") && withPort.holds("192.168.255.254:65534"));
    const uint64_t network = hostToNetwork64(0x0102030405060708);
    EXPECT_EQ(std::memcmp(&network, "\x01\x02\x03\x04\x05\x06\x07\x08", 8), 0);
}

}  // namespace
}  // namespace nuvra::utils
