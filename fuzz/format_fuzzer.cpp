// The bounded formatting and number functions of format.h at random buffer sizes. Each
// result is compared with the same text made without a bound (or parsed back), and every
// buffer is allocated at exactly the size handed over, so AddressSanitizer sees any write
// past it. A control byte picks the function.

#include <arpa/inet.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "nuvra/utils/format.h"

namespace {

namespace nu = nuvra::utils;

constexpr char kCanary = '\x5a';

// A heap block of exactly `size` bytes (a valid pointer even for 0), filled with a canary.
std::unique_ptr<char[]> exactBuffer(size_t size) {
    std::unique_ptr<char[]> buffer(new char[size]);
    std::memset(buffer.get(), kCanary, size);
    return buffer;
}

// What a bounded function must leave: the first size-1 characters of `full`, terminated.
void checkCut(const char* buf, size_t size, const std::string& full, int result) {
    if (size == 0) {
        FUZZ_CHECK(result == 0);
        return;
    }
    const size_t kept = std::min(full.size(), size - 1);
    FUZZ_CHECK(result == static_cast<int>(kept));
    FUZZ_CHECK(std::memcmp(buf, full.data(), kept) == 0 && buf[kept] == 0);
}

// formatBounded with a few conversions over fuzzed arguments.
void fuzzFormatBounded(FuzzedDataProvider& input) {
    const auto number = input.ConsumeIntegral<int64_t>();
    const double real = input.ConsumeFloatingPoint<double>();
    const size_t size = input.ConsumeIntegralInRange<size_t>(0, 300);
    const bool append = input.ConsumeBool();
    const std::string text = input.ConsumeRandomLengthString(256).c_str();
    char full[1024];
    std::snprintf(full, sizeof full, "%s|%" PRId64 "|%x|%.3g", text.c_str(), number,
                  static_cast<unsigned>(number), real);

    auto buf = exactBuffer(size);
    if (!append) {
        const int result =
            nu::formatBounded(buf.get(), size, "%s|%" PRId64 "|%x|%.3g", text.c_str(), number,
                              static_cast<unsigned>(number), real);
        checkCut(buf.get(), size, full, result);
        return;
    }
    // An existing string shorter than the size, then the appended text.
    const size_t existing = size == 0 ? 0 : number % size;
    std::memset(buf.get(), 'e', existing);
    if (size > 0) {
        buf[existing] = 0;
    }
    const int result =
        nu::appendFormatBounded(buf.get(), size, "%s|%" PRId64 "|%x|%.3g", text.c_str(), number,
                                static_cast<unsigned>(number), real);
    checkCut(buf.get(), size, std::string(existing, 'e') + full, result);
}

// A buffer that holds no terminator at all is taken as full.
void fuzzAppendToFullBuffer(FuzzedDataProvider& input) {
    const size_t size = input.ConsumeIntegralInRange<size_t>(1, 64);
    auto buf = exactBuffer(size);
    const int result = nu::appendFormatBounded(buf.get(), size, "%s", "more");
    FUZZ_CHECK(result == static_cast<int>(size - 1));
    FUZZ_CHECK(buf[size - 1] == 0 && std::strlen(buf.get()) == size - 1);
}

void fuzzByteSize(FuzzedDataProvider& input) {
    const auto bytes = input.ConsumeIntegral<int64_t>();
    const int size = input.ConsumeIntegralInRange<int>(-2, 40);
    char full[64];
    const int fullLength = nu::formatByteSize(full, sizeof full, bytes);
    FUZZ_CHECK(fullLength > 0 && static_cast<size_t>(fullLength) == std::strlen(full));
    // "[-]digits[.dd] unit"
    char unit[4] = {};
    double value = 0;
    FUZZ_CHECK(std::sscanf(full, "%lf %3s", &value, unit) == 2);
    const std::string u = unit;
    FUZZ_CHECK(u == "B" || u == "kB" || u == "MB" || u == "GB");

    auto buf = exactBuffer(size > 0 ? static_cast<size_t>(size) : 0);
    const int result = nu::formatByteSize(buf.get(), size, bytes);
    checkCut(buf.get(), size > 0 ? static_cast<size_t>(size) : 0, full, result);
}

void fuzzNumberText(FuzzedDataProvider& input) {
    const auto value = input.ConsumeIntegral<uint64_t>();
    const unsigned base = input.ConsumeIntegralInRange<unsigned>(2, 36);
    const size_t size = input.ConsumeIntegralInRange<size_t>(0, nu::kUInt64TextSize + 2);
    char full[nu::kUInt64TextSize];
    FUZZ_CHECK(nu::uint64ToText(value, full, base) == full);
    FUZZ_CHECK(std::strtoull(full, nullptr, static_cast<int>(base)) == value);
    const std::string digits = full;
    FUZZ_CHECK(digits.size() == 1 || digits[0] != '0');

    auto buf = exactBuffer(size);
    const int result = nu::uint64ToTextBounded(value, buf.get(), size, base);
    if (size == 0) {
        FUZZ_CHECK(result == -1);
        return;
    }
    // A small buffer keeps the least significant digits.
    const size_t kept = std::min(digits.size(), size - 1);
    FUZZ_CHECK(result == static_cast<int>(kept));
    FUZZ_CHECK(digits.compare(digits.size() - kept, kept, buf.get()) == 0);
}

void fuzzHexEncode(FuzzedDataProvider& input) {
    const size_t size = input.ConsumeIntegralInRange<size_t>(0, 100);
    const char separator = input.ConsumeIntegral<char>();
    const bool dump = input.ConsumeBool();
    const std::string bytes = input.ConsumeRandomLengthString(40);
    const std::string hex = nu::toHex(bytes);
    const auto* src = reinterpret_cast<const uint8_t*>(bytes.data());
    const size_t n = bytes.size();
    auto buf = exactBuffer(size);
    if (!dump) {
        const bool result = nu::encodeHexChecked(buf.get(), size, src, n);
        if (size == 0) {
            FUZZ_CHECK(!result);
        } else if (size >= 2 * n + 1) {
            FUZZ_CHECK(result && hex == buf.get());
        } else {
            FUZZ_CHECK(result == (n == 0) && buf[0] == 0);
        }
        return;
    }
    if (n == 0) {
        return;  // a dump needs at least one byte
    }
    const char* result = nu::hexDump(buf.get(), size, separator, src, n);
    if (size == 0) {
        FUZZ_CHECK(result == nullptr);
    } else if (3 * n > size) {
        FUZZ_CHECK(result == buf.get() && buf[0] == 0);
    } else {
        FUZZ_CHECK(result == buf.get());
        for (size_t i = 0; i < n; ++i) {
            FUZZ_CHECK(buf[3 * i] == hex[2 * i] && buf[3 * i + 1] == hex[2 * i + 1]);
            FUZZ_CHECK(buf[3 * i + 2] == (i + 1 == n ? 0 : separator));
        }
    }
}

void fuzzDurationAndAddresses(FuzzedDataProvider& input) {
    const auto seconds = input.ConsumeIntegral<uint32_t>();
    auto duration = exactBuffer(nu::kDurationTextSize);
    const int length = nu::formatDuration(seconds, duration.get());
    FUZZ_CHECK(length > 0 && static_cast<size_t>(length) == std::strlen(duration.get()));
    unsigned days = 0;
    unsigned h = 0;
    unsigned m = 0;
    unsigned s = 0;
    if (std::sscanf(duration.get(), "%u:%u:%u", &h, &m, &s) != 3) {
        char word[8] = {};
        FUZZ_CHECK(std::sscanf(duration.get(), "%u %7s %u:%u:%u", &days, word, &h, &m, &s) == 5);
        FUZZ_CHECK(std::string(word) == (days == 1 ? "day" : "days"));
    }
    FUZZ_CHECK(h < 24 && m < 60 && s < 60);
    FUZZ_CHECK(uint64_t{days} * 86400 + h * 3600 + m * 60 + s == seconds);

    const auto address = input.ConsumeIntegral<uint32_t>();
    const auto port = input.ConsumeIntegral<uint16_t>();
    auto text = exactBuffer(nu::kIPv4PortTextSize);
    nu::formatIPv4Port(text.get(), address, port);
    const std::string withPort = text.get();
    const size_t colon = withPort.find(':');
    FUZZ_CHECK(colon != std::string::npos);
    in_addr parsed{};
    FUZZ_CHECK(inet_pton(AF_INET, withPort.substr(0, colon).c_str(), &parsed) == 1);
    FUZZ_CHECK(parsed.s_addr == address);
    FUZZ_CHECK(std::strtoul(withPort.c_str() + colon + 1, nullptr, 10) == ntohs(port));
    auto plain = exactBuffer(nu::kIPv4TextSize);
    FUZZ_CHECK(withPort.substr(0, colon) == nu::formatIPv4(plain.get(), address));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    switch (input.ConsumeIntegralInRange<int>(0, 5)) {
        case 0:
            fuzzFormatBounded(input);
            break;
        case 1:
            fuzzAppendToFullBuffer(input);
            break;
        case 2:
            fuzzByteSize(input);
            break;
        case 3:
            fuzzNumberText(input);
            break;
        case 4:
            fuzzHexEncode(input);
            break;
        default:
            fuzzDurationAndAddresses(input);
            break;
    }
    return 0;
}
