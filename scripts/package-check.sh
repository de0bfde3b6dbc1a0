#!/usr/bin/env bash
# Checks nuvra as its users take it, from an optimised build:
# - builds the library, the tool, the examples and the tests in Release (with warnings as
#   errors) and runs the tests there, since an optimising compiler warns and fails where a
#   debug build does not;
# - installs into a temporary prefix and builds scripts/consumer through find_package(nuvra)
#   (a program, a shared library of its own that links the installed static libnuvra.a, and
#   a program using that library) and once with pkg-config, and runs them;
# - pulls the checkout into scripts/consumer with FetchContent, in Release, without
#   installing, which must need neither GoogleTest nor anything else of nuvra's tests;
# - builds the Debian package with cpack and lists its contents.
# Expects scripts/setup.sh test to have run.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/package
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNUVRA_BUILD_TESTS=ON -DNUVRA_WERROR=ON
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure --no-tests=error
cmake --install "$build" --prefix "$prefix"

run_consumer() {
    "$1/consumer"
    "$1/plugin_user"
}

echo "== consumer through find_package(nuvra)"
cmake -S scripts/consumer -B "$work/cmake-consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix"
cmake --build "$work/cmake-consumer"
run_consumer "$work/cmake-consumer"

echo "== consumer with the checkout pulled in by FetchContent"
cmake -S scripts/consumer -B "$work/fetch-consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DNUVRA_SOURCE_DIR="$PWD"
cmake --build "$work/fetch-consumer"
run_consumer "$work/fetch-consumer"
if grep -q -i gtest "$work/fetch-consumer/CMakeCache.txt"; then
    echo "package-check: the embedded build looked for GoogleTest" >&2
    exit 1
fi

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
