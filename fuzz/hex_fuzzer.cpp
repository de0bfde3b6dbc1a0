// The hexadecimal codecs over arbitrary text at random buffer sizes (see hexCodecsAgree).

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

#include "fuzz_check.h"
#include "nuvra/testing/bounded_text_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto bufferSize = input.ConsumeIntegralInRange<size_t>(0, 100);
    const auto length = input.ConsumeIntegralInRange<size_t>(0, 200);
    const auto separator = input.ConsumeIntegral<char>();
    const auto text = input.ConsumeRemainingBytesAsString();
    FUZZ_CHECK(nuvra::testing::hexCodecsAgree(text, bufferSize, length, separator));
    return 0;
}
