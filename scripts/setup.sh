#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages nuvra needs, for one or more profiles:
#
#   scripts/setup.sh [tool] [test] [i386]
#
#   tool  building the library and nuvra-guid: compiler, CMake, Ninja, pkg-config and the
#         three libraries' development packages (the default)
#   test  also everything the test command uses: GoogleTest, Google Benchmark, clang with
#         libFuzzer and clang-tidy, valgrind, gcovr, the packaging and ABI tools, iproute2,
#         and git, through which the checks list the checkout's files
#   i386  the 32-bit compiler and the user-mode emulator of the i386 preset
#
# Idempotent: it asks apt only for what is missing, and refreshes the package lists only then.
set -euo pipefail

tool_packages=(g++ cmake ninja-build pkg-config uuid-dev libssl-dev libboost-regex-dev)
test_packages=(
    libgtest-dev libgmock-dev libbenchmark-dev
    clang clang-tidy libclang-rt-14-dev libfuzzer-14-dev valgrind gcovr
    uuid-runtime hyperfine
    dpkg-dev file lintian abigail-tools
    iproute2 git
)
i386_packages=(g++-multilib qemu-user-static)

packages=()
for profile in "${@:-tool}"; do
    case "$profile" in
    tool) packages+=("${tool_packages[@]}") ;;
    test) packages+=("${tool_packages[@]}" "${test_packages[@]}") ;;
    i386) packages+=("${i386_packages[@]}") ;;
    *)
        echo "usage: scripts/setup.sh [tool] [test] [i386]" >&2
        exit 2
        ;;
    esac
done

is_installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

missing=()
for package in "${packages[@]}"; do
    is_installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

tell_how() {
    echo "nuvra setup: could not install: ${missing[*]}" >&2
    echo "Run this as root (or with sudo), then try again:" >&2
    echo "    apt-get update && apt-get install -y ${missing[*]}" >&2
    exit 1
}

if [ "$(id -u)" -eq 0 ]; then
    as_root=()
elif command -v sudo >/dev/null 2>&1; then
    as_root=(sudo)
else
    tell_how
fi

echo "nuvra setup: installing ${missing[*]}" >&2
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q || tell_how
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}" || tell_how
