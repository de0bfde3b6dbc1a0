#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the "coverage" preset (debug, GCC --coverage), runs the native test suite and prints
# line and branch coverage of the library and the tool, per file and in total. Test sources,
# test-only helpers, fuzz targets and benchmarks are left out of the counts.
#
#   scripts/coverage.sh [ctest arguments...]     e.g. -R '^Uuid' to run a part of the suite
#
# Branches that only the compiler's exception paths take are not counted. Expects gcovr
# (scripts/setup.sh installs it).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/coverage
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find "$build" -name '*.gcda' -delete
ctest --preset coverage "$@" >"$build/ctest.log" 2>&1 || {
    tail -n 40 "$build/ctest.log" >&2
    echo "coverage: the test suite failed; see $build/ctest.log" >&2
    exit 1
}
tail -n 3 "$build/ctest.log"

summary="$build/coverage.json"
gcovr --root . --object-directory "$build" --exclude-directories "$build/CMakeFiles" \
    --filter 'nuvra/' --filter 'tool/' \
    --exclude '.*_test\.cpp$' --exclude '.*_test_util\.(h|cpp)$' --exclude 'nuvra/testing/' \
    --exclude-throw-branches --exclude-unreachable-branches \
    --json-summary "$summary" >/dev/null

python3 - "$summary" <<'EOF'
import json, sys

report = json.load(open(sys.argv[1]))

def percent(covered, total):
    return f"{100.0 * covered / total:5.1f}%" if total else "    -"

row = "{:<44} {:>7} {:>8} {:>8} {:>9}"
print(row.format("file", "lines", "line %", "branches", "branch %"))
for f in sorted(report["files"], key=lambda f: f["filename"]):
    print(row.format(f["filename"], f["line_total"], percent(f["line_covered"], f["line_total"]),
                     f["branch_total"], percent(f["branch_covered"], f["branch_total"])))
print(row.format("TOTAL", report["line_total"],
                 percent(report["line_covered"], report["line_total"]), report["branch_total"],
                 percent(report["branch_covered"], report["branch_total"])))
EOF
