// On each input, the search, the tokenisers and replaceAll (see searchAgrees, tokensAgree and
// replacementAgrees). Up to four characters of the pattern delimit the tokens.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "nuvra/testing/strings_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace nt = nuvra::testing;
    FuzzedDataProvider input(data, size);
    const auto limit = input.ConsumeIntegral<uint8_t>();
    const auto room = input.ConsumeIntegral<uint8_t>();
    const auto open = input.ConsumeIntegral<char>();
    const auto close = input.ConsumeIntegral<char>();
    // The helpers take NUL-terminated text: each string ends at its first NUL.
    const auto upToNul = [](const std::string& s) { return s.substr(0, s.find('\0')); };
    const std::string pattern = upToNul(input.ConsumeRandomLengthString(80));
    const std::string to = upToNul(input.ConsumeRandomLengthString(8));
    const std::string text = upToNul(input.ConsumeRemainingBytesAsString());
    FUZZ_CHECK(nt::searchAgrees(text, pattern, limit));
    FUZZ_CHECK(nt::tokensAgree(text, pattern.substr(0, 4), open, close, room % 24));
    FUZZ_CHECK(nt::replacementAgrees(text, pattern, to, text.size() + room));
    return 0;
}
