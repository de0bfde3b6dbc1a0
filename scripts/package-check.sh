#!/usr/bin/env bash
# Checks that an installed nuvra can be used as C++ users on Linux use a library: installs a
# release build into a temporary prefix, builds scripts/consumer once through
# find_package(nuvra) and once with pkg-config, runs both, then builds the Debian package
# with cpack and lists its contents. Expects scripts/setup.sh to have run.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/package
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
cmake --build "$build"
cmake --install "$build" --prefix "$prefix"

echo "== consumer through find_package(nuvra)"
cmake -S scripts/consumer -B "$work/cmake-consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
cmake --build "$work/cmake-consumer"
"$work/cmake-consumer/consumer"

echo "== consumer through pkg-config"
pc_dir=$(dirname "$(find "$prefix" -name nuvra.pc -print -quit)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs nuvra)
echo "pkg-config --cflags --libs nuvra: $flags"
# shellcheck disable=SC2086 # the flags are words
g++ -std=c++17 -o "$work/pc-consumer" scripts/consumer/consumer.cpp $flags
"$work/pc-consumer"

echo "== installed manual page"
man -l "$prefix/share/man/man1/nuvra-guid.1" 2>/dev/null | head -n 5 ||
    test -s "$prefix/share/man/man1/nuvra-guid.1"

echo "== Debian package"
(cd "$build" && cpack -G DEB)
deb=$(find "$build" -maxdepth 1 -name 'nuvra_*.deb' -print -quit)
dpkg-deb --info "$deb"
dpkg-deb --contents "$deb"
