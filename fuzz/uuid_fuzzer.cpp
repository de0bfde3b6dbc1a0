// Feeds arbitrary text to the GUID parsers: a text accepted must print back as itself in
// lower case, and one rejected must leave the all-zero, invalid value.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "nuvra/utils/uuid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using nuvra::utils::nullUuid;
    using nuvra::utils::Uuid;
    const std::string text(reinterpret_cast<const char*>(data), size);  // NOLINT
    const Uuid parsed = Uuid::fromString(text);
    if (parsed.isValid()) {
        std::string lower = text;
        for (char& c : lower) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        if (parsed.toString() != lower) {
            std::abort();
        }
    } else if (parsed != nullUuid) {
        std::abort();
    }
    Uuid other(Uuid::Bytes{}, false);
    if (other.parse(text) != parsed.isValid()) {
        std::abort();
    }
    return 0;
}
