// SPDX-License-Identifier: Apache-2.0
// The fuzz targets' assertion: names the failed condition, then aborts so that libFuzzer
// records the input.

#ifndef NUVRA_FUZZ_FUZZ_CHECK_H_
#define NUVRA_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (false)

#endif  // NUVRA_FUZZ_FUZZ_CHECK_H_
