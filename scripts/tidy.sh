#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs clang-tidy, with the checks in .clang-tidy, over every source file of a configured
# build tree (default: build/default). Exits non-zero on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${1:-build/default}
database="$build_dir/compile_commands.json"
[ -f "$database" ] || {
    echo "tidy: no $database; configure a preset first" >&2
    exit 1
}
tidy=$(command -v clang-tidy-14 || command -v clang-tidy) || {
    echo "tidy: clang-tidy is not installed (run scripts/setup.sh)" >&2
    exit 1
}

log=$(mktemp)
trap 'rm -f "$log"' EXIT
sources=$(sed -n 's/^ *"file": "\(.*\)",\{0,1\}$/\1/p' "$database" | sort -u)

# The static analyzer spends most of its time inside GoogleTest's macros, so tests are
# checked without it. One file per clang-tidy process: the analyzer carries state from one
# file to the next and then reports va_list uses that are fine on their own.
run_tidy() {
    xargs -r -P "$(nproc)" -n 1 "$tidy" -p "$build_dir" --quiet --warnings-as-errors='*' "$@"
}
status=0
{ grep -v '_test\.cpp$' <<<"$sources" || true; } | run_tidy >"$log" 2>&1 || status=$?
{ grep '_test\.cpp$' <<<"$sources" || true; } | run_tidy --checks='-clang-analyzer-*' >>"$log" 2>&1 ||
    status=$?
grep -v -E '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$' "$log" >&2 || true
if [ "$status" -ne 0 ]; then
    echo "tidy: clang-tidy reported problems" >&2
fi
exit "$status"
