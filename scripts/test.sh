#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The whole test command, as CI runs it. Installs what is missing (scripts/setup.sh), then:
# - checks that the tests stay small beside the code (scripts/test-size.sh), that every file
#   carries its licence line (scripts/check-licence.sh) and that every include follows the
#   layers of nuvra/layers.txt (scripts/check-layers.sh);
# - builds and tests an optimised configuration and checks nuvra as its users take it:
#   installed (CMake package, pkg-config, a shared library on the static archive), pulled in
#   with FetchContent, and as a Debian package (scripts/package-check.sh);
# - runs every fuzz target for a bounded time (scripts/fuzz.sh; NUVRA_FUZZ_SECONDS sets the
#   time per target);
# - builds and runs the whole suite as static 32-bit x86 programs under qemu-i386-static, as
#   a debug build (then clang-tidy over the sources) and under AddressSanitizer +
#   UndefinedBehaviorSanitizer; then the concurrency tests under ThreadSanitizer.
# Any failure, warning (as an error), sanitizer or fuzzer finding makes it exit non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh test i386
./scripts/test-size.sh
./scripts/check-licence.sh
./scripts/check-layers.sh
# These first, so that the native test runs' summaries are what the output ends with.
./scripts/package-check.sh
./scripts/fuzz.sh
./scripts/i386-sysroot.sh build/i386/sysroot
cmake --preset i386
cmake --build --preset i386
ctest --preset i386

for preset in default asan tsan; do
    cmake --preset "$preset"
    cmake --build --preset "$preset"
    if [ "$preset" = default ]; then
        ./scripts/tidy.sh build/default
    fi
    ctest --preset "$preset"
done
