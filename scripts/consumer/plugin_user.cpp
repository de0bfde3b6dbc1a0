// SPDX-License-Identifier: Apache-2.0
// Calls into the consumer's shared library, which carries nuvra inside.

#include <iostream>

#include "plugin.h"

int main() {
    const std::string digest = pluginSha1("abc");
    std::cout << "sha1(abc) through a shared library = " << digest << '\n';
    return digest == "a9993e364706816aba3e25717850c26c9cd0d89d" ? 0 : 1;
}
