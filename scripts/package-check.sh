#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks nuvra as its users take it, from the optimised "deb" build (shared and static library,
# tool, examples and tests, installed under /usr):
# - builds it with warnings as errors and runs the tests there, since an optimising compiler
#   warns and fails where a debug build does not;
# - compares the shared library's binary interface with abi/libnuvra.abi (scripts/abi-check.sh);
# - installs into a temporary prefix and builds scripts/consumer through find_package(nuvra)
#   (a program on the shared library, a shared library of its own on the static archive, and a
#   program using that) and once with pkg-config, and runs them;
# - pulls the checkout into scripts/consumer with FetchContent, in Release, without
#   installing, which must need neither GoogleTest nor anything else of nuvra's tests;
# - makes the Debian packages, checks them with lintian (no errors allowed), unpacks them into
#   a private root, runs the tool from there and builds the consumer against that root.
# Expects scripts/setup.sh test to have run.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/deb
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --preset deb
cmake --build --preset deb
ctest --preset deb
./scripts/abi-check.sh "$build/nuvra/libnuvra.so"

run_consumer() {
    "$1/consumer"
    "$1/plugin_user"
}

build_consumer() {
    local name=$1
    shift
    cmake -S scripts/consumer -B "$work/$name" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
    cmake --build "$work/$name" >/dev/null
    run_consumer "$work/$name"
}

echo "== consumer through find_package(nuvra), installed into a prefix"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
build_consumer cmake-consumer -DCMAKE_PREFIX_PATH="$prefix"

echo "== consumer through pkg-config"
pc_dir=$(dirname "$(find "$prefix" -name nuvra.pc -print -quit)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs nuvra)
echo "pkg-config --cflags --libs nuvra: $flags"
# shellcheck disable=SC2086 # the flags are words
g++ -o "$work/pc-consumer" scripts/consumer/consumer.cpp $flags -Wl,-rpath,"$(dirname "$pc_dir")"
"$work/pc-consumer"

echo "== consumer with the checkout pulled in by FetchContent"
build_consumer fetch-consumer -DNUVRA_SOURCE_DIR="$PWD"
if grep -q -i gtest "$work/fetch-consumer/CMakeCache.txt"; then
    echo "package-check: the embedded build looked for GoogleTest" >&2
    exit 1
fi

echo "== Debian packages"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
debs=("$build"/*.deb)
for deb in "${debs[@]}"; do
    echo "-- $(basename "$deb")"
    dpkg-deb --field "$deb" Package Depends
    dpkg-deb --contents "$deb" | awk '{print "   " $6 ($7 ? " " $7 " " $8 : "")}'
done
# Errors fail the check; warnings and the rest are shown (the README lists them).
lintian --fail-on error --info "${debs[@]}"

echo "== the packages unpacked into a private root"
root="$work/root"
for deb in "${debs[@]}"; do
    dpkg-deb -x "$deb" "$root"
done
"$root/usr/bin/nuvra-guid"
if dpkg-deb --field "$build"/nuvra-guid_*.deb Depends | grep -q -- -dev; then
    echo "package-check: the tool's package depends on a development package" >&2
    exit 1
fi
build_consumer deb-consumer -DCMAKE_PREFIX_PATH="$root/usr"
echo "== a consumer of the shared library alone needs none of the dependencies' -dev packages"
build_consumer deb-consumer-shared -DCMAKE_PREFIX_PATH="$root/usr" \
    -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON -DCMAKE_DISABLE_FIND_PACKAGE_Boost=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON
