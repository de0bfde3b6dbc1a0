// SPDX-License-Identifier: Apache-2.0
#include "plugin.h"

#include "nuvra/crypto/stream_digest.h"

std::string pluginSha1(const std::string& text) {
    nuvra::crypto::StreamDigestSHA1 sha1;
    sha1 << text;
    return sha1.hexDigest(true);
}
