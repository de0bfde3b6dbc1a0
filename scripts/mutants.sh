#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Puts small deliberate faults into the library one at a time and tells which of them the test
# suite catches: for each fault it edits one line, rebuilds a debug tree, runs the native suite
# and puts the line back.
#
#   scripts/mutants.sh LIST [ctest arguments...]
#
# LIST has one fault per line, fields separated by tabs: the file, a text that stands on
# exactly one of its lines, the text that replaces it there, and a note. Empty lines and
# lines starting with "#" are skipped. Because faults are found by their text, not by line
# number, one list can be run again after the code around them has moved.
#
# Prints one row per fault: caught (a test failed or timed out), MISSED (every test passed),
# or unusable (the text is not on exactly one line, or the fault does not compile).
set -euo pipefail
cd "$(dirname "$0")/.."

list=${1:?usage: scripts/mutants.sh LIST [ctest arguments...]}
shift
build=build/mutants
cmake --preset default -B "$build" >/dev/null
cmake --build "$build" >/dev/null

# Put a file back and make it newer than its object, so that the build compiles the original
# again (mv keeps the copy's old time stamp, which ninja would take for up to date).
put_back() {
    mv "$1" "${1%.mutant-orig}"
    touch "${1%.mutant-orig}"
}
restore=""
trap '[ -n "$restore" ] && put_back "$restore"' EXIT

run_fault() {
    local file=$1 from=$2 to=$3
    local lines
    lines=$(grep -nF -- "$from" "$file" | cut -d: -f1 | tr '\n' ' ')
    if [ "$(wc -w <<<"$lines")" -ne 1 ]; then
        echo "unusable (text on lines: ${lines:-none})"
        return
    fi
    cp -p "$file" "$file.mutant-orig"
    restore="$file.mutant-orig"
    local content
    content=$(<"$file")
    printf '%s\n' "${content/"$from"/"$to"}" >"$file"
    local verdict log
    log=$(mktemp)
    if ! cmake --build "$build" >/dev/null 2>&1; then
        verdict="unusable (does not compile)"
    elif ctest --test-dir "$build" -j2 --timeout 60 --stop-on-failure "$@" >"$log" 2>&1; then
        verdict=MISSED
    else
        verdict="caught by $(sed -n 's/.*Test *#[0-9]*: \([^ ]*\) .*\(Failed\|Timeout\|Exception\|SEGFAULT\).*/\1/p' "$log" | head -n 1)"
    fi
    rm -f "$log"
    put_back "$file.mutant-orig"
    restore=""
    echo "$verdict (line ${lines% })"
}

caught=0
total=0
while IFS=$'\t' read -r -u 3 file from to note; do
    [ -z "$file" ] || [ "${file:0:1}" = "#" ] && continue
    verdict=$(run_fault "$file" "$from" "$to" "$@")
    total=$((total + 1))
    case "$verdict" in caught*) caught=$((caught + 1)) ;; esac
    printf '%-32s %-60s %s\n' "$file" "$verdict" "$note"
done 3<"$list"
# Rebuild the untouched sources so the tree is ready for the next run.
cmake --build "$build" >/dev/null
echo "caught $caught of $total"
