// SPDX-License-Identifier: Apache-2.0
// Wildcard matching against fnmatch, and the case-insensitive search against strcasestr,
// on the same inputs.

#include <fnmatch.h>
#include <cstring>

#include <string>

#include "bench/ratio_reporter.h"
#include "nuvra/utils/strings.h"

namespace {

struct MatchInput {
    const char* name;
    const char* pattern;
    std::string text;
};

const MatchInput kMatchInputs[] = {
    {"fileName", "*.tx?", "some-directory-entry-name.txt"},
    {"sets", "[a-m]*[0-9][!x]*.log", "daily-report-2026-11-22-7y.log"},
    {"manyStarsMiss", "*a*a*a*a*a*a*b", std::string(2000, 'a')},
};

void wildcardNuvra(benchmark::State& state, const MatchInput* input) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            nuvra::utils::wildcardMatch(input->pattern, input->text.c_str(), false));
    }
}

void wildcardBaseline(benchmark::State& state, const MatchInput* input) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(fnmatch(input->pattern, input->text.c_str(), FNM_NOESCAPE));
    }
}

struct SearchInput {
    const char* name;
    std::string text;
    const char* pattern;
};

std::string repeated(const std::string& piece, int times) {
    std::string text;
    for (int i = 0; i < times; ++i) {
        text += piece;
    }
    return text;
}

const SearchInput kSearchInputs[] = {
    {"shortHit", "Content-Type: text/html; charset=UTF-8", "CHARSET"},
    {"prose", std::string(64, 'x') + " the Quick brown fox jumps over the lazy dog", "LAZY DOG"},
    {"logMiss", repeated("2026-11-22 07:25:43 info worker 7 finished job 1234\n", 80), "ERROR:"},
    // Highly periodic text and pattern: the worst case for a linear search that has to
    // look at every character.
    {"periodicMiss", std::string(4096, 'a') + "b", "AAAAAAAAAAAAAAAC"},
};

void searchNuvra(benchmark::State& state, const SearchInput* input) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(nuvra::utils::findNoCase(input->text.c_str(), input->pattern));
    }
}

void searchBaseline(benchmark::State& state, const SearchInput* input) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(strcasestr(input->text.c_str(), input->pattern));
    }
}

void registerAll() {
    for (const MatchInput& input : kMatchInputs) {
        const std::string name = std::string("wildcard/") + input.name;
        benchmark::RegisterBenchmark((name + "/nuvra").c_str(), wildcardNuvra, &input);
        benchmark::RegisterBenchmark((name + "/baseline").c_str(), wildcardBaseline, &input);
    }
    for (const SearchInput& input : kSearchInputs) {
        const std::string name = std::string("findNoCase/") + input.name;
        benchmark::RegisterBenchmark((name + "/nuvra").c_str(), searchNuvra, &input);
        benchmark::RegisterBenchmark((name + "/baseline").c_str(), searchBaseline, &input);
    }
}

}  // namespace

int main(int argc, char** argv) {
    registerAll();
    return nuvra::bench::runWithRatios(argc, argv);
}
