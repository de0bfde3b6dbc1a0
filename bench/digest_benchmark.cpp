// SPDX-License-Identifier: Apache-2.0
// Digest streams against libcrypto's one-shot EVP_Digest over the same bytes.
//
// 1 MiB is written to the stream in 4 KiB pieces, as a caller copying a file would; the
// short-message case reuses one stream for 64-byte messages (write, then digest), as the
// random source does. SHA-0 is the library's own code; libcrypto has no SHA-0, so it is set
// against libcrypto's SHA-1, the same compression function with one rotation more (which
// libcrypto may run on the processor's SHA instructions).

#include <openssl/evp.h>

#include <cstddef>
#include <random>
#include <string>

#include "bench/ratio_reporter.h"
#include "nuvra/crypto/stream_digest.h"

namespace {

using nuvra::crypto::StreamDigestMD5;
using nuvra::crypto::StreamDigestSHA;
using nuvra::crypto::StreamDigestSHA1;
using nuvra::crypto::StreamDigestSHA512;

constexpr size_t kPiece = 4096;
constexpr size_t kShortMessage = 64;

const std::string& mebibyte() {
    static const std::string data = [] {
        std::mt19937 generator(1);
        std::string bytes(size_t{1} << 20U, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(generator() & 0xFFU);
        }
        return bytes;
    }();
    return data;
}

template <typename Stream, typename... Args>
void streamInPieces(benchmark::State& state, Args... args) {
    const std::string& data = mebibyte();
    Stream stream(args...);
    for (auto _ : state) {
        for (size_t at = 0; at < data.size(); at += kPiece) {
            stream.write(data.data() + at, static_cast<std::streamsize>(kPiece));
        }
        benchmark::DoNotOptimize(stream.digest(false));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(data.size()));
}

void oneShot(benchmark::State& state, const EVP_MD* algorithm, size_t size) {
    const std::string& data = mebibyte();
    for (auto _ : state) {
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_Digest(data.data(), size, out, &length, algorithm, nullptr);
        benchmark::DoNotOptimize(out);
        benchmark::DoNotOptimize(length);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}

void md5ShortNuvra(benchmark::State& state) {
    const std::string& data = mebibyte();
    StreamDigestMD5 stream(false);
    for (auto _ : state) {
        stream.write(data.data(), static_cast<std::streamsize>(kShortMessage));
        benchmark::DoNotOptimize(stream.digest(false));
    }
}
BENCHMARK(md5ShortNuvra)->Name("md5_64B/nuvra");

void md5ShortBaseline(benchmark::State& state) { oneShot(state, EVP_md5(), kShortMessage); }
BENCHMARK(md5ShortBaseline)->Name("md5_64B/baseline");

// The 1 MiB cases: each stream against libcrypto's one-shot digest, SHA-0 against SHA-1.
void registerMebibyteCases() {
    static const struct {
        const char* name;
        void (*nuvra)(benchmark::State&);
        const EVP_MD* (*baseline)();
    } kCases[] = {
        {"md5_1MiB", [](benchmark::State& s) { streamInPieces<StreamDigestMD5>(s, false); },
         EVP_md5},
        {"sha1_1MiB", streamInPieces<StreamDigestSHA1>, EVP_sha1},
        {"sha512_1MiB", streamInPieces<StreamDigestSHA512>, EVP_sha512},
        {"sha0_vs_sha1_1MiB", streamInPieces<StreamDigestSHA>, EVP_sha1},
    };
    for (const auto& c : kCases) {
        const std::string name = c.name;
        benchmark::RegisterBenchmark((name + "/nuvra").c_str(), c.nuvra)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((name + "/baseline").c_str(), [algorithm = c.baseline](
                                                                       benchmark::State& state) {
            oneShot(state, algorithm(), mebibyte().size());
        })->Unit(benchmark::kMillisecond);
    }
}

}  // namespace

int main(int argc, char** argv) {
    registerMebibyteCases();
    return nuvra::bench::runWithRatios(argc, argv);
}
