#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the binary interface of the freshly built shared library (the "deb" preset's, which
# scripts/package-check.sh builds) with the baseline abi/libnuvra.abi, and fails on a change
# that would break a program built against the baseline: a removed or changed function or
# variable, a changed type. Added names are reported but allowed.
#
#   scripts/abi-check.sh [library]        (default: build/deb/nuvra/libnuvra.so)
#
# A deliberate incompatible change is made with scripts/abi-update.sh, which writes a new
# baseline; bump NUVRA_SOVERSION (nuvra/CMakeLists.txt) in the same commit.
set -euo pipefail
cd "$(dirname "$0")/.."

library=$(readlink -f "${1:-build/deb/nuvra/libnuvra.so}")
[ -f "$library" ] || {
    echo "abi-check: no $library; build the deb preset first" >&2
    exit 1
}
status=0
abidiff --headers-dir2 nuvra --drop-private-types --no-show-locs \
    abi/libnuvra.abi "$library" || status=$?
# abidiff's status is a bit set: 1 an error, 2 a usage error, 4 a change, 8 an incompatible
# change.
if [ $((status & 11)) -ne 0 ]; then
    echo "abi-check: libnuvra's binary interface changed incompatibly (abidiff status $status)." >&2
    echo "If that is meant: scripts/abi-update.sh, and bump NUVRA_SOVERSION." >&2
    exit 1
fi
if [ $((status & 4)) -ne 0 ]; then
    echo "abi-check: compatible additions only"
else
    echo "abi-check: libnuvra's binary interface is unchanged"
fi
