// SPDX-License-Identifier: Apache-2.0
// toHex against the C library doing the same job: a snprintf("%02x") per byte into a
// string sized once, over the same random bytes.

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>

#include "bench/ratio_reporter.h"
#include "nuvra/utils/format.h"

namespace {

// The same bytes for both sides of a case: a fixed seed per length.
std::string randomBytes(size_t length) {
    std::mt19937 random(static_cast<uint32_t>(length));
    std::string bytes(length, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

std::string printfHex(const std::string& bytes) {
    // Room for the terminator that the last snprintf writes, dropped afterwards.
    std::string hex(2 * bytes.size() + 1, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        const unsigned byte = static_cast<uint8_t>(bytes[i]);
        if (std::snprintf(&hex[2 * i], 3, "%02x", byte) != 2) {
            return {};
        }
    }
    hex.pop_back();
    return hex;
}

// The length is a template argument rather than a benchmark argument, which would be
// appended to the name and hide the "/nuvra" and "/baseline" suffixes from the reporter.
template <size_t kLength>
void toHexNuvra(benchmark::State& state) {
    const std::string bytes = randomBytes(kLength);
    for (auto _ : state) {
        benchmark::DoNotOptimize(nuvra::utils::toHex(bytes));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLength));
}

template <size_t kLength>
void toHexBaseline(benchmark::State& state) {
    const std::string bytes = randomBytes(kLength);
    for (auto _ : state) {
        benchmark::DoNotOptimize(printfHex(bytes));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kLength));
}

BENCHMARK_TEMPLATE(toHexNuvra, 16)->Name("toHex/16/nuvra");
BENCHMARK_TEMPLATE(toHexBaseline, 16)->Name("toHex/16/baseline");
BENCHMARK_TEMPLATE(toHexNuvra, 256)->Name("toHex/256/nuvra");
BENCHMARK_TEMPLATE(toHexBaseline, 256)->Name("toHex/256/baseline");
BENCHMARK_TEMPLATE(toHexNuvra, 4096)->Name("toHex/4096/nuvra");
BENCHMARK_TEMPLATE(toHexBaseline, 4096)->Name("toHex/4096/baseline");

}  // namespace

int main(int argc, char** argv) { return nuvra::bench::runWithRatios(argc, argv); }
