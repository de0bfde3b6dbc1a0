#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing, builds the release preset and runs nuvra-guid once.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/setup.sh tool
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null
exec build/release/tool/nuvra-guid "$@"
