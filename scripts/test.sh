#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite twice: as a debug build,
# and under AddressSanitizer + UndefinedBehaviorSanitizer. Also checks the sources with
# clang-tidy, that an installed nuvra can be used from CMake and pkg-config and packaged for
# Debian, and runs every fuzz target for a bounded time (scripts/fuzz.sh; NUVRA_FUZZ_SECONDS
# sets the time per target). Any failure, warning-as-error, sanitizer or fuzzer finding makes
# it exit non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh
# First, so that the test runs' summaries are what the output ends with.
./scripts/package-check.sh
./scripts/fuzz.sh

for preset in default asan; do
    cmake --preset "$preset"
    cmake --build --preset "$preset"
    if [ "$preset" = default ]; then
        ./scripts/tidy.sh build/default
    fi
    ctest --preset "$preset"
done
