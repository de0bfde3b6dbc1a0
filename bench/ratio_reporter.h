// SPDX-License-Identifier: Apache-2.0
// A console reporter that, after the usual table, prints for every benchmark pair named
// "<case>/nuvra" and "<case>/baseline" the ratio of their CPU times per iteration. A ratio
// below 1 means nuvra is faster than the standard library or tool doing the same job.

#ifndef NUVRA_BENCH_RATIO_REPORTER_H_
#define NUVRA_BENCH_RATIO_REPORTER_H_

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace nuvra::bench {

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.iterations == 0) {
                continue;
            }
            const std::string name = run.benchmark_name();
            const auto slash = name.rfind('/');
            if (slash != std::string::npos) {
                cpuTimes_[name.substr(0, slash)][name.substr(slash + 1)] = run.GetAdjustedCPUTime();
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-32s %10s\n", "case", "nuvra/baseline");
        for (const auto& [caseName, sides] : cpuTimes_) {
            const auto ours = sides.find("nuvra");
            const auto theirs = sides.find("baseline");
            if (ours != sides.end() && theirs != sides.end() && theirs->second > 0) {
                std::printf("%-32s %10.2f\n", caseName.c_str(), ours->second / theirs->second);
            }
        }
    }

  private:
    std::map<std::string, std::map<std::string, double>> cpuTimes_;
};

// Runs the registered benchmarks with the ratio reporter; for a benchmark program's main().
inline int runWithRatios(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace nuvra::bench

#endif  // NUVRA_BENCH_RATIO_REPORTER_H_
