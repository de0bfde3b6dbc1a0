// SPDX-License-Identifier: Apache-2.0
// RandomSource against the libraries a caller would otherwise use for the same job:
// makeUniqueId against a libuuid identifier as text, getBytes against RAND_bytes.

#include <openssl/rand.h>
#include <uuid/uuid.h>

#include <string>

#include "bench/ratio_reporter.h"
#include "nuvra/utils/random_source.h"

namespace {

using nuvra::utils::RandomSource;

void uniqueIdNuvra(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(RandomSource::makeUniqueId(32));
    }
}
BENCHMARK(uniqueIdNuvra)->Name("uniqueId/nuvra");

void uniqueIdBaseline(benchmark::State& state) {
    for (auto _ : state) {
        uuid_t uuid;
        uuid_generate(uuid);
        char text[37];
        uuid_unparse_lower(uuid, text);
        benchmark::DoNotOptimize(std::string(text, 36));
    }
}
BENCHMARK(uniqueIdBaseline)->Name("uniqueId/baseline");

void bytesNuvra(benchmark::State& state) {
    RandomSource source;
    std::string bytes;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source.getBytes(bytes, 16));
    }
}
BENCHMARK(bytesNuvra)->Name("bytes16/nuvra");

void bytesBaseline(benchmark::State& state) {
    for (auto _ : state) {
        unsigned char buffer[16];
        benchmark::DoNotOptimize(RAND_bytes(buffer, sizeof buffer));
        benchmark::DoNotOptimize(std::string(reinterpret_cast<char*>(buffer), sizeof buffer));
    }
}
BENCHMARK(bytesBaseline)->Name("bytes16/baseline");

}  // namespace

int main(int argc, char** argv) { return nuvra::bench::runWithRatios(argc, argv); }
