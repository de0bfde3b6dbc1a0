// The wildcard engines under all 16 flag combinations on patterns built from complete
// elements: against each other, and against fnmatch wherever they are meant to agree.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

#include "fuzz_check.h"
#include "nuvra/testing/strings_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const int flags = input.ConsumeIntegral<uint8_t>() & 15;
    const auto pick = [&input](size_t n) { return input.ConsumeIntegralInRange<size_t>(0, n - 1); };
    const auto [pattern, text] = nuvra::testing::wildcardCase(pick(13), pick(64), pick);
    FUZZ_CHECK(nuvra::testing::enginesAgree(pattern, text, flags));
    return 0;
}
