// The bounded formatting at random sizes (see formatKeepsTheStart), and number text in every
// base, read back by strtoull.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>

#include "fuzz_check.h"
#include "nuvra/testing/bounded_text_test_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto number = input.ConsumeIntegral<uint64_t>();
    const auto base = input.ConsumeIntegralInRange<int>(2, 36);
    const auto bufferSize = input.ConsumeIntegralInRange<size_t>(0, 300);
    const auto existing = input.ConsumeIntegralInRange<size_t>(0, bufferSize);
    const auto text = input.ConsumeRemainingBytesAsString();
    FUZZ_CHECK(
        nuvra::testing::formatKeepsTheStart(text.substr(0, text.find('\0')), bufferSize, existing));
    char digits[nuvra::utils::kUInt64TextSize];
    FUZZ_CHECK(std::strtoull(nuvra::utils::uint64ToText(number, digits, base), nullptr, base) ==
               number);
    return 0;
}
