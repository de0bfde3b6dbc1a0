// The hexadecimal decoders of format.h over arbitrary text: fromHex and decodeHex agree with
// each other and with the digit values of hexDigitValue (-1 where it throws, which must be
// exactly the non-digits); decodeHexChecked writes exactly length/2 bytes or nothing, at
// random sizes.

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "nuvra/utils/exception.h"
#include "nuvra/utils/format.h"

namespace {

namespace nu = nuvra::utils;

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// hexDigitValue, or -1 when it throws the library's exception.
int digitValue(char c) {
    try {
        const int value = nu::hexDigitValue(c);
        FUZZ_CHECK(value >= 0 && value < 16);
        return value;
    } catch (const nu::Exception& e) {
        FUZZ_CHECK(std::strcmp(e.what(), "Wrong hex character.") == 0);
        return -1;
    }
}

// hexDigitValue has only 256 inputs: all are checked once, against isxdigit and strtol, and
// the table then serves as the reference for the decoders.
struct DigitTable {
    int value[256];
    DigitTable() : value() {
        for (int byte = 0; byte < 256; ++byte) {
            const char c = static_cast<char>(byte);
            value[byte] = digitValue(c);
            FUZZ_CHECK((value[byte] >= 0) == isHexDigit(c));
            if (value[byte] >= 0) {
                const char text[2] = {c, 0};
                FUZZ_CHECK(value[byte] == static_cast<int>(std::strtol(text, nullptr, 16)));
            }
        }
    }
    int operator()(char c) const { return value[static_cast<unsigned char>(c)]; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const size_t bufferSize = input.ConsumeIntegralInRange<size_t>(0, 64);
    const size_t length = input.ConsumeIntegralInRange<size_t>(0, 200);
    const std::string text = input.ConsumeRemainingBytesAsString();

    static const DigitTable digits;
    if (!text.empty()) {
        FUZZ_CHECK(digitValue(text[0]) == digits(text[0]));
    }
    bool allDigits = true;
    for (const char c : text) {
        allDigits = allDigits && digits(c) >= 0;
    }

    const std::string bytes = nu::fromHex(text);
    FUZZ_CHECK(bytes.size() == text.size() / 2);
    std::unique_ptr<uint8_t[]> decoded(new uint8_t[bytes.size()]);
    nu::decodeHex(decoded.get(), text.data(), text.size());
    FUZZ_CHECK(std::memcmp(decoded.get(), bytes.data(), bytes.size()) == 0);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const int high = digits(text[2 * i]);
        const int low = digits(text[2 * i + 1]);
        // Non-digits count as -1 and the sum is cut to eight bits.
        FUZZ_CHECK(static_cast<uint8_t>(bytes[i]) == static_cast<uint8_t>(high * 16 + low));
    }
    if (allDigits) {
        std::string lower = text.substr(0, bytes.size() * 2);
        for (char& c : lower) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        FUZZ_CHECK(nu::toHex(bytes) == lower);
    }

    // The checked form over a prefix of the text into an exact-size buffer.
    const size_t used = std::min(length, text.size());
    std::unique_ptr<uint8_t[]> dst(new uint8_t[bufferSize]);
    std::memset(dst.get(), 0x5a, bufferSize);
    const bool result = nu::decodeHexChecked(dst.get(), bufferSize, text.data(), used);
    const bool expected = used == 0 || (bufferSize > 0 && bufferSize >= used / 2);
    FUZZ_CHECK(result == expected);
    for (size_t i = 0; i < bufferSize; ++i) {
        const bool written = result && i < used / 2;
        FUZZ_CHECK(dst[i] == (written ? static_cast<uint8_t>(bytes[i]) : 0x5a));
    }
    return 0;
}
