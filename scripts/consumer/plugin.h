// SPDX-License-Identifier: Apache-2.0
// A shared library of the consumer's own that uses nuvra inside.

#ifndef NUVRA_CONSUMER_PLUGIN_H_
#define NUVRA_CONSUMER_PLUGIN_H_

#include <string>

// The SHA-1 digest of `text` in hexadecimal, computed with nuvra.
std::string pluginSha1(const std::string& text);

#endif  // NUVRA_CONSUMER_PLUGIN_H_
