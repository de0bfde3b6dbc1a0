// SPDX-License-Identifier: Apache-2.0
// NFile buffered writing and reading against stdio (fwrite/fread) doing the same work: 64 MiB
// through a file under /tmp, in the same chunk sizes on both sides.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/ratio_reporter.h"
#include "nuvra/utils/stream.h"

namespace {

using nuvra::utils::NFile;

constexpr size_t kTotal = size_t{64} << 20;

// A file path unique to this process.
const std::string& scratchPath() {
    static const std::string path = "/tmp/nuvra_stream_bench_" + std::to_string(getpid());
    return path;
}

// Removes the scratch file when a case ends, however it ends.
struct ScratchCleanup {
    ScratchCleanup() = default;
    ScratchCleanup(const ScratchCleanup&) = delete;
    ScratchCleanup& operator=(const ScratchCleanup&) = delete;
    ~ScratchCleanup() { static_cast<void>(std::remove(scratchPath().c_str())); }
};

std::vector<char> chunkOf(size_t size) {
    std::vector<char> chunk(size);
    for (size_t i = 0; i < size; ++i) {
        chunk[i] = static_cast<char>(i * 31);
    }
    return chunk;
}

// Fills the scratch file with kTotal bytes for the read cases.
void prepareInput() {
    const std::vector<char> chunk = chunkOf(1 << 16);
    std::FILE* file = std::fopen(scratchPath().c_str(), "wbe");
    if (file == nullptr) {
        std::abort();
    }
    for (size_t done = 0; done < kTotal; done += chunk.size()) {
        if (std::fwrite(chunk.data(), 1, chunk.size(), file) != chunk.size()) {
            std::abort();
        }
    }
    if (std::fclose(file) != 0) {
        std::abort();
    }
}

template <size_t Chunk>
void writeNuvra(benchmark::State& state) {
    const ScratchCleanup cleanup;
    const std::vector<char> chunk = chunkOf(Chunk);
    for (auto _ : state) {
        NFile file;
        if (!file.open(scratchPath().c_str(), "w")) {
            state.SkipWithError("open failed");
            return;
        }
        for (size_t done = 0; done < kTotal; done += chunk.size()) {
            benchmark::DoNotOptimize(file.write(chunk.data(), static_cast<uint32_t>(chunk.size())));
        }
        file.close();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

template <size_t Chunk>
void writeBaseline(benchmark::State& state) {
    const ScratchCleanup cleanup;
    const std::vector<char> chunk = chunkOf(Chunk);
    for (auto _ : state) {
        std::FILE* file = std::fopen(scratchPath().c_str(), "wbe");
        if (file == nullptr) {
            state.SkipWithError("open failed");
            return;
        }
        for (size_t done = 0; done < kTotal; done += chunk.size()) {
            benchmark::DoNotOptimize(std::fwrite(chunk.data(), 1, chunk.size(), file));
        }
        benchmark::DoNotOptimize(std::fclose(file));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

template <size_t Chunk>
void readNuvra(benchmark::State& state) {
    const ScratchCleanup cleanup;
    prepareInput();
    std::vector<char> chunk(Chunk);
    for (auto _ : state) {
        NFile file;
        if (!file.open(scratchPath().c_str(), "r")) {
            state.SkipWithError("open failed");
            return;
        }
        size_t total = 0;
        // read() returns at most what one raw read delivered; loop until the chunk is full,
        // as a caller wanting whole chunks does.
        for (;;) {
            size_t got = 0;
            while (got < chunk.size()) {
                const uint32_t n =
                    file.read(chunk.data() + got, static_cast<uint32_t>(chunk.size() - got));
                if (n == 0) {
                    break;
                }
                got += n;
            }
            total += got;
            if (got < chunk.size()) {
                break;
            }
        }
        if (total != kTotal) {
            state.SkipWithError("short file");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

template <size_t Chunk>
void readBaseline(benchmark::State& state) {
    const ScratchCleanup cleanup;
    prepareInput();
    std::vector<char> chunk(Chunk);
    for (auto _ : state) {
        std::FILE* file = std::fopen(scratchPath().c_str(), "rbe");
        if (file == nullptr) {
            state.SkipWithError("open failed");
            return;
        }
        size_t total = 0;
        for (size_t n = 0; (n = std::fread(chunk.data(), 1, chunk.size(), file)) > 0;) {
            total += n;
        }
        benchmark::DoNotOptimize(std::fclose(file));
        if (total != kTotal) {
            state.SkipWithError("short file");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
}

// Chunk sizes: small records, a line-sized piece, one buffer, and a large block. Each
// iteration moves 64 MiB, so the default minimum time gives only a few iterations.
#define STREAM_CASE(chunk)                                                       \
    BENCHMARK_TEMPLATE(writeNuvra, chunk)->Name("write_" #chunk "/nuvra");       \
    BENCHMARK_TEMPLATE(writeBaseline, chunk)->Name("write_" #chunk "/baseline"); \
    BENCHMARK_TEMPLATE(readNuvra, chunk)->Name("read_" #chunk "/nuvra");         \
    BENCHMARK_TEMPLATE(readBaseline, chunk)->Name("read_" #chunk "/baseline")

STREAM_CASE(64);
STREAM_CASE(1000);
STREAM_CASE(4096);
STREAM_CASE(65536);

}  // namespace

int main(int argc, char** argv) { return nuvra::bench::runWithRatios(argc, argv); }
