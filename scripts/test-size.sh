#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prints the size of the tests against the size of the code they test, in non-blank lines
# (comments included), and fails when the tests outgrow the code's limit.
#
#   tests: every *_test.cpp, every test-only helper (*_test_util.h/.cpp), everything in fuzz/
#          but its seed corpora
#   code:  every other .cpp and .h under nuvra/ and tool/
#
#   scripts/test-size.sh [--per-file] [limit]      (limit: default 0.40)
set -euo pipefail
cd "$(dirname "$0")/.."

per_file=false
if [ "${1:-}" = --per-file ]; then
    per_file=true
    shift
fi
limit=${1:-0.40}

count() { xargs -r cat | grep -cv '^[[:space:]]*$' || true; }
test_files() {
    git ls-files '*_test.cpp' '*_test_util.h' '*_test_util.cpp' 'fuzz/*.cpp' 'fuzz/*.h' | sort -u
}
code_files() {
    git ls-files 'nuvra/*.cpp' 'nuvra/*.h' 'tool/*.cpp' 'tool/*.h' |
        grep -v -E '_test\.cpp$|_test_util\.(h|cpp)$'
}

if $per_file; then
    test_files | while read -r file; do
        printf '%6d  %s\n' "$(grep -cv '^[[:space:]]*$' "$file" || true)" "$file"
    done
fi
tests=$(test_files | count)
code=$(code_files | count)
awk -v t="$tests" -v c="$code" -v limit="$limit" 'BEGIN {
    ratio = t / c
    printf "test size: %d test lines, %d code lines, ratio %.2f (limit %.2f)\n", t, c, ratio, limit
    if (ratio > limit) {
        print "test size: the tests are too large for the code; merge cases that share a shape, drop tests that restate the code or repeat another test" > "/dev/stderr"
        exit 1
    }
}'
