// Inet4Address::isDottedQuad over arbitrary text (odd first byte: mapped onto digits and dots)
// against a regular expression of the strict syntax. Text both accept must take resolve's
// literal path, never the resolver: its octets, or 255.255.255.255 for a group with a leading
// zero (inet_pton refuses those), with the text as host name.

#include <regex>

#include "fuzz_check.h"
#include "nuvra/utils/inet_address.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using nuvra::utils::Inet4Address;
    static const std::regex kQuad(
        R"(((25[0-5]|2[0-4]\d|[01]?\d?\d)\.){3}(25[0-5]|2[0-4]\d|[01]?\d?\d))");
    static const std::regex kLeadingZero(R"((^|\.)0\d)");
    std::string text(reinterpret_cast<const char*>(data), size);
    if (size > 0 && (data[0] & 1) != 0) {
        for (char& c : text.erase(0, 1)) {
            c = "0123456789.."[static_cast<unsigned char>(c) % 12];
        }
    }
    // Checked before resolve is called: a quad wrongly refused here would reach the resolver.
    FUZZ_CHECK(Inet4Address::isDottedQuad(text) == std::regex_match(text, kQuad));
    if (Inet4Address::isDottedQuad(text)) {
        const Inet4Address address = Inet4Address::resolve(text);
        FUZZ_CHECK(address.getHostName() == text);
        FUZZ_CHECK(std::regex_search(text, kLeadingZero) ? address.toNetworkOrder() == 0xFFFFFFFFU
                                                         : address.toString() == text);
    }
    return 0;
}
