#!/usr/bin/env bash
# Installs what is missing, then checks that an installed nuvra can be used from CMake and
# pkg-config and packaged for Debian, runs every fuzz target for a bounded time
# (scripts/fuzz.sh; NUVRA_FUZZ_SECONDS sets the time per target), then builds and runs the
# whole test suite three times: as static 32-bit x86 programs under qemu-i386-static, as a
# debug build, and under AddressSanitizer + UndefinedBehaviorSanitizer. Then runs the
# concurrency tests under ThreadSanitizer (the tsan presets build only their two test programs
# and filter the tests). Also checks the sources with clang-tidy. Any failure,
# warning-as-error, sanitizer or fuzzer finding makes it exit non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh i386
# These first, so that the native test runs' summaries are what the output ends with.
./scripts/package-check.sh
./scripts/fuzz.sh
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
