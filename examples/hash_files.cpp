// SPDX-License-Identifier: Apache-2.0
// Hashes files with one of nuvra's digest streams and prints one line per file in the form
// the coreutils sums print ("<hex digest>  <file name>"), so the output can be compared with
// md5sum, sha1sum or sha512sum:
//
//   hash_files md5 /etc/os-release          # same line as: md5sum /etc/os-release
//   hash_files sha0 a.bin b.bin             # algorithms: md5 ripemd160 sha0 sha1 sha512
//
// Exits 1 when a file cannot be read, 2 on a usage error.

#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "nuvra/crypto/stream_digest.h"

namespace {

std::unique_ptr<nuvra::crypto::StreamDigest> makeDigest(const std::string& name) {
    using namespace nuvra::crypto;
    if (name == "md5") {
        return std::make_unique<StreamDigestMD5>(false);
    }
    if (name == "ripemd160") {
        return std::make_unique<StreamDigestRIPEMD160>();
    }
    if (name == "sha0") {
        return std::make_unique<StreamDigestSHA>();
    }
    if (name == "sha1") {
        return std::make_unique<StreamDigestSHA1>();
    }
    if (name == "sha512") {
        return std::make_unique<StreamDigestSHA512>();
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    // Made only to check the name: each file gets a digest stream of its own below.
    const std::unique_ptr<nuvra::crypto::StreamDigest> known =
        argc < 3 ? nullptr : makeDigest(argv[1]);
    if (known == nullptr) {
        std::cerr << "usage: hash_files md5|ripemd160|sha0|sha1|sha512 FILE...\n";
        return 2;
    }
    int status = 0;
    for (int i = 2; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        if (!file) {
            std::cerr << "hash_files: cannot open " << argv[i] << "\n";
            status = 1;
            continue;
        }
        // A new stream per file: a stream asked again with nothing written since its last
        // digest repeats that digest, so an empty file would get the previous file's.
        const std::unique_ptr<nuvra::crypto::StreamDigest> digest = makeDigest(argv[1]);
        // A digest stream is an std::ostream: whatever is written to it is hashed.
        *digest << file.rdbuf();
        // evenIfEmpty: an empty file still has a digest (without it the result is "").
        std::cout << digest->hexDigest(true) << "  " << argv[i] << "\n";
    }
    return status;
}
