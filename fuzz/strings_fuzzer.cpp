// SPDX-License-Identifier: Apache-2.0
// Either the wildcard engines on a pattern of complete elements (see enginesAgree), or the
// case-insensitive search on arbitrary text, pattern and limit (see searchAgrees).

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "nuvra/testing/strings_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace nt = nuvra::testing;
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool()) {
        const int flags = input.ConsumeIntegral<uint8_t>() & 15;
        const auto pick = [&input](size_t n) {
            return input.ConsumeIntegralInRange<size_t>(0, n - 1);
        };
        const auto [pattern, text] = nt::wildcardCase(pick(13), pick(64), pick);
        FUZZ_CHECK(nt::enginesAgree(pattern, text, flags));
        return 0;
    }
    const auto limit = input.ConsumeIntegral<uint8_t>();
    // The search takes NUL-terminated text: each string ends at its first NUL.
    const auto upToNul = [](const std::string& s) { return s.substr(0, s.find('\0')); };
    const std::string pattern = upToNul(input.ConsumeRandomLengthString(80));
    FUZZ_CHECK(nt::searchAgrees(upToNul(input.ConsumeRemainingBytesAsString()), pattern, limit));
    return 0;
}
