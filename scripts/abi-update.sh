#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Writes the ABI baseline abi/libnuvra.abi from the freshly built shared library (the "deb"
# preset's; configure and build it first). Run it when an interface change is meant, commit
# the new baseline, and when the change is incompatible (scripts/abi-check.sh fails on it)
# bump NUVRA_SOVERSION in nuvra/CMakeLists.txt in the same commit.
#
#   scripts/abi-update.sh [library]        (default: build/deb/nuvra/libnuvra.so)
set -euo pipefail
cd "$(dirname "$0")/.."

library=$(readlink -f "${1:-build/deb/nuvra/libnuvra.so}")
mkdir -p abi
# Only types that the public headers declare count; paths and source locations are left
# out so that the baseline does not depend on where the tree was built.
abidw --headers-dir nuvra --drop-private-types --no-corpus-path --no-comp-dir-path \
    --no-show-locs --type-id-style hash --out-file abi/libnuvra.abi "$library"
echo "abi-update: wrote abi/libnuvra.abi from $library"
