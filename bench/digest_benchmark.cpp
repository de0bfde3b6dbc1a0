// Digest streams against libcrypto's one-shot EVP_Digest over the same 1 MiB.
//
// The stream hands the digest one byte per update by design (it keeps no buffer that a
// flush would have to pass on), so a large ratio is expected: it measures that per-byte
// cost, which callers hashing short texts accept.

#include <openssl/evp.h>

#include <cstddef>
#include <random>
#include <string>

#include "bench/ratio_reporter.h"
#include "nuvra/crypto/stream_digest.h"

namespace {

using nuvra::crypto::StreamDigestMD5;
using nuvra::crypto::StreamDigestSHA1;

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
void streamDigest(benchmark::State& state, Args... args) {
    const std::string& data = mebibyte();
    Stream stream(args...);
    for (auto _ : state) {
        stream.write(data.data(), static_cast<std::streamsize>(data.size()));
        benchmark::DoNotOptimize(stream.digest(false));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(data.size()));
}

void oneShotDigest(benchmark::State& state, const EVP_MD* algorithm) {
    const std::string& data = mebibyte();
    for (auto _ : state) {
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_Digest(data.data(), data.size(), out, &length, algorithm, nullptr);
        benchmark::DoNotOptimize(out);
        benchmark::DoNotOptimize(length);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(data.size()));
}

void md5Nuvra(benchmark::State& state) { streamDigest<StreamDigestMD5>(state, false); }
BENCHMARK(md5Nuvra)->Name("md5_1MiB/nuvra")->Unit(benchmark::kMillisecond);

void md5Baseline(benchmark::State& state) { oneShotDigest(state, EVP_md5()); }
BENCHMARK(md5Baseline)->Name("md5_1MiB/baseline")->Unit(benchmark::kMillisecond);

void sha1Nuvra(benchmark::State& state) { streamDigest<StreamDigestSHA1>(state); }
BENCHMARK(sha1Nuvra)->Name("sha1_1MiB/nuvra")->Unit(benchmark::kMillisecond);

void sha1Baseline(benchmark::State& state) { oneShotDigest(state, EVP_sha1()); }
BENCHMARK(sha1Baseline)->Name("sha1_1MiB/baseline")->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) { return nuvra::bench::runWithRatios(argc, argv); }
