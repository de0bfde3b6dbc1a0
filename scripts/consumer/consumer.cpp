// SPDX-License-Identifier: Apache-2.0
// A program outside the nuvra tree, built against nuvra: it prints nuvra's version, generates,
// prints and parses a Uuid and computes a digest, and exits non-zero when any of it goes wrong.

#include <iostream>
#include <string>

#include "nuvra/crypto/stream_digest.h"
#include "nuvra/utils/uuid.h"
#include "nuvra/version.h"

int main() {
    std::cout << "nuvra " << NUVRA_VERSION_STRING << '\n';
    static_assert(NUVRA_VERSION_MAJOR >= 0 && NUVRA_VERSION_MINOR >= 0 && NUVRA_VERSION_PATCH >= 0);
    const nuvra::utils::Uuid generated;
    const std::string text = generated.toString();
    const nuvra::utils::Uuid parsed = nuvra::utils::Uuid::fromString(text);
    std::cout << text << '\n';
    if (!parsed.isValid() || parsed != generated) {
        std::cerr << "consumer: " << text << " did not parse back to the same value\n";
        return 1;
    }

    nuvra::crypto::StreamDigestMD5 md5(false);
    md5 << "abc";
    const std::string digest = md5.hexDigest(false);
    std::cout << "md5(abc) = " << digest << '\n';
    if (digest != "900150983cd24fb0d6963f7d28e17f72") {
        std::cerr << "consumer: wrong MD5 digest\n";
        return 1;
    }
    return 0;
}
