// Inet4Address::isDottedQuad over arbitrary text, against a reference that splits the text at
// its dots: exactly four groups of one to three decimal digits, each at most 255, nothing
// else. Text both accept goes on to Inet4Address::resolve, which must then take the literal
// path (never the resolver): the octets of the text, or 255.255.255.255 when a group has a
// leading zero (inet_pton refuses those), with the text itself as the host name.
//
// Half of the inputs are drawn from digits and dots only, so that near-misses are common.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "nuvra/utils/inet_address.h"

namespace {

using nuvra::utils::Inet4Address;

struct Quad {
    bool valid = false;
    bool leadingZero = false;
    uint32_t address = 0;
};

Quad referenceQuad(const std::string& text) {
    Quad quad;
    std::vector<std::string> groups(1);
    for (const char c : text) {
        if (c == '.') {
            groups.emplace_back();
        } else {
            groups.back() += c;
        }
    }
    if (groups.size() != 4) {
        return quad;
    }
    for (const std::string& group : groups) {
        if (group.empty() || group.size() > 3) {
            return quad;
        }
        uint32_t value = 0;
        for (const char c : group) {
            if (c < '0' || c > '9') {
                return quad;
            }
            value = value * 10 + static_cast<uint32_t>(c - '0');
        }
        if (value > 255) {
            return quad;
        }
        quad.leadingZero = quad.leadingZero || (group.size() > 1 && group[0] == '0');
        quad.address = quad.address << 8 | value;
    }
    quad.valid = true;
    return quad;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        FUZZ_CHECK(!Inet4Address::isDottedQuad(""));
        return 0;
    }
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if ((data[0] & 1) != 0) {
        for (char& c : text) {
            c = "0123456789.."[static_cast<unsigned char>(c) % 12];
        }
    }

    const Quad expected = referenceQuad(text);
    // Checked before resolve is called: a quad wrongly refused here would reach the resolver.
    FUZZ_CHECK(Inet4Address::isDottedQuad(text) == expected.valid);
    if (!expected.valid) {
        return 0;
    }
    const Inet4Address address = Inet4Address::resolve(text);
    FUZZ_CHECK(address.getHostName() == text);
    if (expected.leadingZero) {
        FUZZ_CHECK(address.toNetworkOrder() == 0xFFFFFFFFU);
    } else {
        FUZZ_CHECK(Inet4Address(expected.address).toString() == text);
        FUZZ_CHECK(address.toString() == text);
    }
    return 0;
}
