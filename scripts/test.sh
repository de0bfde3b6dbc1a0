#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite three times: as static
# 32-bit x86 programs under qemu-i386-static, as a debug build, and under AddressSanitizer +
# UndefinedBehaviorSanitizer. Also checks the sources with clang-tidy, and that an installed
# nuvra can be used from CMake and pkg-config and packaged for Debian. Any failure,
# warning-as-error or sanitizer finding makes it exit non-zero.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh i386
# These first, so that the native test runs' summaries are what the output ends with.
./scripts/package-check.sh
cmake --preset i386
cmake --build --preset i386
ctest --preset i386

for preset in default asan; do
    cmake --preset "$preset"
    cmake --build --preset "$preset"
    if [ "$preset" = default ]; then
        ./scripts/tidy.sh build/default
    fi
    ctest --preset "$preset"
done
