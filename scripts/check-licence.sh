#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks that every source, header, script, CMake and configuration file starts with the licence line
# "SPDX-License-Identifier: Apache-2.0" (after the "#!" line of a script); with --add, puts
# the line at the top of the files that lack it, in each file's comment syntax.
#
#   scripts/check-licence.sh [--add]
set -euo pipefail
cd "$(dirname "$0")/.."

tag="SPDX-License-Identifier: Apache-2.0"
add=false
[ "${1:-}" = --add ] && add=true

files() {
    git ls-files '*.cpp' '*.h' '*.sh' '*.cmake' '*CMakeLists.txt' '*.in' '*.map' '*.txt' \
        '*.1' '.ci/run' '.clang-format' '.clang-tidy' 'cmake/debian/postinst' \
        'cmake/debian/postrm' 'cmake/debian/triggers' '*.lintian-overrides' |
        grep -v -E '^fuzz/corpus/'
}

# The comment that carries the line in `file`.
comment_for() {
    case "$1" in
    *.cpp | *.h | *.h.in) echo "// $tag" ;;
    *.map) echo "/* $tag */" ;;
    *.1) echo ".\\\" $tag" ;;
    *) echo "# $tag" ;;
    esac
}

missing=0
while read -r file; do
    first=$(head -n 1 "$file")
    case "$first" in '#!'*) line=$(sed -n 2p "$file") ;; *) line=$first ;; esac
    case "$line" in *"$tag"*) continue ;; esac
    if $add; then
        comment=$(comment_for "$file")
        # The line goes through the environment: sed and awk -v would both eat the backslash
        # of the man page's comment.
        LINE=$comment SHEBANG=$([[ $first == '#!'* ]] && echo 1) awk '
            NR == 1 && !ENVIRON["SHEBANG"] { print ENVIRON["LINE"] }
            { print }
            NR == 1 && ENVIRON["SHEBANG"] { print ENVIRON["LINE"] }' "$file" >"$file.licence"
        cat "$file.licence" >"$file" && rm "$file.licence"
    else
        echo "no licence line: $file"
        missing=1
    fi
done < <(files)
exit "$missing"
