// SPDX-License-Identifier: Apache-2.0
// Feeds arbitrary text to the GUID parsers: a text accepted must print back as itself, up to
// its first NUL, in lower case; one rejected must leave the all-zero value; and parse() must
// agree.

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "nuvra/utils/uuid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using nuvra::utils::Uuid;
    std::string text(reinterpret_cast<const char*>(data), size);  // NOLINT
    const Uuid parsed = Uuid::fromString(text);
    Uuid other(Uuid::Bytes{}, false);
    FUZZ_CHECK(other.parse(text) == parsed.isValid() && other.bytes() == parsed.bytes());
    text.resize(std::min(text.size(), text.find('\0')));
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    FUZZ_CHECK(parsed.isValid() ? parsed.toString() == text : parsed.bytes() == Uuid::Bytes{});
    return 0;
}
