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

void md5Nuvra(benchmark::State& state) { streamInPieces<StreamDigestMD5>(state, false); }
BENCHMARK(md5Nuvra)->Name("md5_1MiB/nuvra")->Unit(benchmark::kMillisecond);

void md5Baseline(benchmark::State& state) { oneShot(state, EVP_md5(), mebibyte().size()); }
BENCHMARK(md5Baseline)->Name("md5_1MiB/baseline")->Unit(benchmark::kMillisecond);

void sha1Nuvra(benchmark::State& state) { streamInPieces<StreamDigestSHA1>(state); }
BENCHMARK(sha1Nuvra)->Name("sha1_1MiB/nuvra")->Unit(benchmark::kMillisecond);

void sha1Baseline(benchmark::State& state) { oneShot(state, EVP_sha1(), mebibyte().size()); }
BENCHMARK(sha1Baseline)->Name("sha1_1MiB/baseline")->Unit(benchmark::kMillisecond);

void sha512Nuvra(benchmark::State& state) { streamInPieces<StreamDigestSHA512>(state); }
BENCHMARK(sha512Nuvra)->Name("sha512_1MiB/nuvra")->Unit(benchmark::kMillisecond);

void sha512Baseline(benchmark::State& state) { oneShot(state, EVP_sha512(), mebibyte().size()); }
BENCHMARK(sha512Baseline)->Name("sha512_1MiB/baseline")->Unit(benchmark::kMillisecond);

void sha0Nuvra(benchmark::State& state) { streamInPieces<StreamDigestSHA>(state); }
BENCHMARK(sha0Nuvra)->Name("sha0_vs_sha1_1MiB/nuvra")->Unit(benchmark::kMillisecond);

void sha0Baseline(benchmark::State& state) { oneShot(state, EVP_sha1(), mebibyte().size()); }
BENCHMARK(sha0Baseline)->Name("sha0_vs_sha1_1MiB/baseline")->Unit(benchmark::kMillisecond);

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

}  // namespace

int main(int argc, char** argv) { return nuvra::bench::runWithRatios(argc, argv); }
