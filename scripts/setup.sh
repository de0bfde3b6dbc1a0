#!/usr/bin/env bash
# Installs the Debian packages that building, testing, fuzzing and benchmarking nuvra need;
# with the argument "i386" also the 32-bit compiler and the user-mode emulator that the i386
# preset needs. Idempotent: it asks apt only for what is missing, and refreshes the package
# lists only then.
set -euo pipefail

packages=(
    g++ cmake ninja-build pkg-config clang-tidy
    uuid-dev libssl-dev libboost-regex-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    uuid-runtime hyperfine
    dpkg-dev file gcovr
    clang libclang-rt-14-dev libfuzzer-14-dev valgrind
)
if [ "${1:-}" = i386 ]; then
    packages+=(g++-multilib qemu-user-static)
fi

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
