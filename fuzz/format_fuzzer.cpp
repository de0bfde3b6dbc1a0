// SPDX-License-Identifier: Apache-2.0
// The bounded formatting and the hexadecimal codecs on arbitrary text at random buffer sizes
// (see formatKeepsTheStart and hexCodecsAgree).

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

#include "fuzz_check.h"
#include "nuvra/testing/bounded_text_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto bufferSize = input.ConsumeIntegralInRange<size_t>(0, 300);
    const auto existing = input.ConsumeIntegralInRange<size_t>(0, bufferSize);
    const auto separator = input.ConsumeIntegral<char>();
    const auto text = input.ConsumeRemainingBytesAsString();
    FUZZ_CHECK(
        nuvra::testing::formatKeepsTheStart(text.substr(0, text.find('\0')), bufferSize, existing));
    FUZZ_CHECK(nuvra::testing::hexCodecsAgree(text, bufferSize, separator));
    return 0;
}
