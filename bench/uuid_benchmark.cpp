// SPDX-License-Identifier: Apache-2.0
// Uuid against libuuid called directly, for the same work.

#include <uuid/uuid.h>

#include <string>

#include "bench/ratio_reporter.h"
#include "nuvra/utils/uuid.h"

namespace {

using nuvra::utils::Uuid;

const std::string kText = "00112233-4455-6677-8899-aabbccddeeff";

void generateNuvra(benchmark::State& state) {
    for (auto _ : state) {
        Uuid uuid;
        benchmark::DoNotOptimize(uuid);
    }
}
BENCHMARK(generateNuvra)->Name("generate/nuvra");

void generateBaseline(benchmark::State& state) {
    for (auto _ : state) {
        uuid_t uuid;
        uuid_generate(uuid);
        benchmark::DoNotOptimize(uuid);
    }
}
BENCHMARK(generateBaseline)->Name("generate/baseline");

void toStringNuvra(benchmark::State& state) {
    const Uuid uuid = Uuid::fromString(kText);
    for (auto _ : state) {
        benchmark::DoNotOptimize(uuid.toString());
    }
}
BENCHMARK(toStringNuvra)->Name("toString/nuvra");

void toStringBaseline(benchmark::State& state) {
    uuid_t uuid;
    uuid_parse(kText.c_str(), uuid);
    for (auto _ : state) {
        char text[37];
        uuid_unparse_lower(uuid, text);
        benchmark::DoNotOptimize(std::string(text, 36));
    }
}
BENCHMARK(toStringBaseline)->Name("toString/baseline");

void parseNuvra(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Uuid::fromString(kText));
    }
}
BENCHMARK(parseNuvra)->Name("parse/nuvra");

void parseBaseline(benchmark::State& state) {
    for (auto _ : state) {
        uuid_t uuid;
        benchmark::DoNotOptimize(uuid_parse(kText.c_str(), uuid));
        benchmark::DoNotOptimize(uuid);
    }
}
BENCHMARK(parseBaseline)->Name("parse/baseline");

}  // namespace

int main(int argc, char** argv) { return nuvra::bench::runWithRatios(argc, argv); }
