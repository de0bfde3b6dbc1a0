#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets (preset "fuzz": clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for a bounded time, starting from its seed corpus
# in fuzz/corpus/<target>/, two at a time. Exits non-zero when any target finds a crash, a
# sanitizer report, a failed check, a leak, a time-out or runaway memory; the input that
# did it is kept in build/fuzz/findings/.
#
#   scripts/fuzz.sh [seconds-per-target]     (default $NUVRA_FUZZ_SECONDS, else 12)
#
# New inputs found during a run go to a scratch directory, not into the seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-${NUVRA_FUZZ_SECONDS:-12}}
jobs=${NUVRA_FUZZ_JOBS:-2}
case "$seconds" in
'' | *[!0-9]*)
    echo "fuzz: seconds must be a whole number, not '$seconds'" >&2
    exit 2
    ;;
esac

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

findings=build/fuzz/findings
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
rm -rf "$findings"
mkdir -p "$findings"

targets=()
for binary in build/fuzz/fuzz/*_fuzzer; do
    [ -x "$binary" ] && targets+=("$(basename "$binary")")
done
if [ ${#targets[@]} -eq 0 ]; then
    echo "fuzz: no targets were built" >&2
    exit 1
fi

# One target: its own scratch corpus first (libFuzzer writes new inputs there), then the
# seeds. -timeout makes a single slow input a finding; -rss_limit_mb one that eats memory.
run_target() {
    local target=$1
    local seeds=fuzz/corpus/$target
    mkdir -p "$scratch/$target"
    local status=0
    "build/fuzz/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$findings/$target-" \
        "$scratch/$target" $([ -d "$seeds" ] && echo "$seeds") \
        >"$scratch/$target.log" 2>&1 || status=$?
    local runs
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$scratch/$target.log")
    if [ "$status" -ne 0 ]; then
        echo "fuzz: $target FAILED (exit $status) after ${runs:-?} runs; log:" >&2
        tail -n 60 "$scratch/$target.log" >&2
        return 1
    fi
    echo "fuzz: $target: ${runs:-?} runs in ${seconds}s, nothing found"
}

echo "fuzz: ${#targets[@]} targets, ${seconds}s each, $jobs at a time"
failed=0
running=0
for target in "${targets[@]}"; do
    if [ "$running" -ge "$jobs" ]; then
        wait -n || failed=1
        running=$((running - 1))
    fi
    run_target "$target" &
    running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
    wait -n || failed=1
    running=$((running - 1))
done

if [ "$failed" -ne 0 ]; then
    echo "fuzz: findings kept in $findings/" >&2
    exit 1
fi
rmdir "$findings" 2>/dev/null || true
