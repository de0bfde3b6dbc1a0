#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Times nuvra-guid against uuidgen as whole processes, in one hyperfine run, and prints the
# ratio of their medians (below 1: nuvra-guid starts and finishes faster).
#   bench/guid_startup.sh [runs]     (default 300)
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-300}
./scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null

tool=build/release/tool/nuvra-guid
csv=$(mktemp)
trap 'rm -f "$csv"' EXIT
hyperfine --shell=none --warmup 30 --runs "$runs" --export-csv "$csv" \
    --command-name nuvra-guid "$tool" --command-name uuidgen uuidgen
# Columns: command,mean,stddev,median,user,system,min,max (seconds).
awk -F, '
    $1 == "nuvra-guid" { ours = $4 }
    $1 == "uuidgen" { theirs = $4 }
    END {
        printf "median nuvra-guid %.2f ms, uuidgen %.2f ms, ratio %.2f\n",
            ours * 1000, theirs * 1000, ours / theirs
    }' "$csv"
