// SPDX-License-Identifier: Apache-2.0
// nuvra-guid: prints one freshly generated GUID and exits 0.
//
// Arguments, the environment and standard input are never read. Nothing is written to
// standard error, and a failed write to standard output (closed or full) does not change the
// exit status. A pipe whose reader has gone ends it by SIGPIPE, as it does any command.

#include <iostream>
#include <string>

#include "nuvra/utils/random_source.h"
#include "nuvra/utils/uuid.h"

int main() {
    // Prepared for its side effect alone: without the random device it seeds rand() for
    // this thread. The printed value does not depend on it.
    const nuvra::utils::RandomSource randomSource;
    const std::string text = nuvra::utils::Uuid().toString();
    std::cout << text << std::endl;
    return 0;
}
